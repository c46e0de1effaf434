// The threads of this process as they are found at one moment: what the system tells of them, and
// what the library keeps in their variables.
//
// The variables of another thread lie as far from its thread pointer as one's own from one's own,
// and so does the list of robust mutexes, whose address the system tells for each thread. So nobody
// registers, and threads pay nothing. All is copied by the system from under threads that go on or
// hang; nothing is locked, and nothing is allocated but by the system. Async-signal-safe.
#ifndef SUPPORT_INSIGHT_TASKLIST_H
#define SUPPORT_INSIGHT_TASKLIST_H

#include <sys/types.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "runtime/WaitNote.h"

namespace VarnSupport {

// The call of the system that a thread is in.
struct SystemCall {
  long number = -1;  // -1 while it runs, or when the system does not tell
  std::array<std::uint64_t, 6> arguments{};
};

struct Task {
  pid_t id = 0;
  std::array<char, 16> name{};
  std::uintptr_t pointer = 0;  // pthread_self() there; 0 when the system does not tell
  bool isVarnThread = false;
  std::uintptr_t newestLock = 0;  // of the list of its critical sections
  bool isWaiting = false;         // then what follows holds
  WaitNote::tKind kind = WaitNote::SECTION;
  std::uintptr_t awaited = 0;
  std::int64_t since = 0;
  SystemCall call;
};

class TaskList {
 public:
  static constexpr std::size_t kMost = 4096;

  TaskList();
  TaskList(const TaskList&) = delete;
  TaskList& operator=(const TaskList&) = delete;
  ~TaskList();

  std::span<const Task> tasks() const { return {m_pTasks, m_nTasks}; }
  // Threads beyond the most that there is room for.
  std::size_t leftOut() const { return m_nLeftOut; }
  // Why not all threads are known: the code of the system; else 0.
  int error() const { return m_nError; }

  // Null when there is none.
  const Task* withId(pid_t id) const;
  const Task* withPointer(std::uintptr_t pointer) const;

 private:
  void addAll();
  void add(pid_t id);
  static void look(Task& task);

  Task* m_pTasks;  // null when there is no memory
  std::size_t m_nTasks = 0;
  std::size_t m_nLeftOut = 0;
  int m_nError = 0;
};

}  // namespace VarnSupport

#endif
