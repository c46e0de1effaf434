// Three sources are put together for each thread: files below /proc/self/task for its name and the
// call that it is in, the robust list for its thread pointer, and a copy of its own variables.
//
// Threads end while they are looked at. Every read therefore goes through the system, which answers
// with an error for memory that is gone, and a thread that has left in the meantime is told of with
// what was found by then.
#include "insight/TaskList.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/futex.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <cerrno>

#include "insight/PlainText.h"
#include "locks/BriefHold.h"
#include "locks/HeldSections.h"
#include "runtime/Cancellation.h"
#include "runtime/Descriptor.h"
#include "runtime/OwnMemory.h"

namespace VarnSupport {

namespace {

std::uintptr_t robustListOf(pid_t thread) {
  robust_list_head* head = nullptr;
  std::size_t length = 0;
  if (syscall(SYS_get_robust_list, thread, &head, &length) != 0)
    return 0;
  return reinterpret_cast<std::uintptr_t>(head);
}

// Where a thread with that pointer has what the calling thread has at `own`.
std::uintptr_t counterpart(const void* own, std::uintptr_t pointer) {
  assert(pointer != 0);
  return reinterpret_cast<std::uintptr_t>(own) - static_cast<std::uintptr_t>(callingThread()) +
         pointer;
}

// The platform puts the head of the robust list into the block that the thread pointer points to,
// at the same distance in every thread. The system keeps its address for the end of the thread, and
// tells it to threads of the same process.
std::uintptr_t pointerOf(pid_t thread) {
  const std::uintptr_t own = robustListOf(gettid());
  const std::uintptr_t list = robustListOf(thread);
  if (own == 0 || list == 0)
    return 0;
  return list - own + static_cast<std::uintptr_t>(callingThread());
}

void readVariables(Task& task) {
  std::uintptr_t cancellation = 0;
  copyOwnMemory(counterpart(&t_pCancellation, task.pointer), cancellation);
  task.isVarnThread = cancellation != 0;
  copyOwnMemory(counterpart(&HeldSections::t_pNewest, task.pointer), task.newestLock);
  const WaitNote::Copy copy(counterpart(ThreadScope::list(), task.pointer));
  if (const WaitNote* const note = copy.get()) {
    task.isWaiting = true;
    task.kind = note->kind();
    task.awaited = reinterpret_cast<std::uintptr_t>(note->what());
    task.since = note->since();
  }
}

// One's own takes no descriptor.
void readName(Task& task) {
  if (task.id == gettid()) {
    prctl(PR_GET_NAME, task.name.data());
  } else {
    PlainFile file(ProcPath("task/", task.id, "/comm").get());
    std::string_view name;
    if (file.nextLine(name))
      name.copy(task.name.data(), task.name.size() - 1);
  }
  std::replace_if(
      task.name.begin(), task.name.end() - 1,
      [](char letter) { return letter != 0 && (letter < ' ' || letter > '~'); }, '?');
}

// "202 0x7f... 0x80 ..." or "running".
void readCall(Task& task) {
  PlainFile file(ProcPath("task/", task.id, "/syscall").get());
  std::string_view line;
  std::uint64_t number = 0;
  if (!file.nextLine(line) || !takeNumber(line, 10, number))
    return;
  task.call.number = static_cast<long>(number);
  for (std::uint64_t& argument : task.call.arguments) {
    line.remove_prefix(line.empty() ? 0 : 1);
    if (!takeNumber(line, 16, argument))
      return;
  }
}

}  // namespace

// The calling thread alone is listed where /proc is not there.
TaskList::TaskList() {
  void* const memory = mmap(nullptr, kMost * sizeof(Task), PROT_READ | PROT_WRITE,
                            MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  m_pTasks = memory != MAP_FAILED ? static_cast<Task*>(memory) : nullptr;
  if (m_pTasks == nullptr) {
    m_nError = ENOMEM;
    return;
  }
  addAll();
  if (m_nTasks == 0)
    add(gettid());
  for (std::size_t i = 0; i < m_nTasks; ++i)
    look(m_pTasks[i]);
}

// The folder is closed before files are opened: there may be no other descriptor.
void TaskList::addAll() {
  const Descriptor folder = Descriptor::open("/proc/self/task", O_RDONLY | O_DIRECTORY);
  if (!folder.isOpen()) {
    m_nError = errno;
    return;
  }
  alignas(dirent64) std::array<char, 1024> buffer;
  long length = 0;
  while ((length = syscall(SYS_getdents64, folder.get(), buffer.data(), buffer.size())) > 0) {
    for (const char* at = buffer.data(); at < buffer.data() + length;) {
      const auto* const entry = reinterpret_cast<const dirent64*>(at);
      std::string_view name(entry->d_name);
      std::uint64_t id = 0;
      if (takeNumber(name, 10, id))
        add(static_cast<pid_t>(id));
      at += entry->d_reclen;
    }
  }
}

TaskList::~TaskList() {
  if (m_pTasks != nullptr)
    munmap(m_pTasks, kMost * sizeof(Task));
}

void TaskList::add(pid_t id) {
  assert(m_pTasks != nullptr && id > 0);
  if (m_nTasks == kMost) {
    ++m_nLeftOut;
    return;
  }
  m_pTasks[m_nTasks] = Task();
  m_pTasks[m_nTasks++].id = id;
}

void TaskList::look(Task& task) {
  readName(task);
  task.pointer = pointerOf(task.id);
  if (task.pointer != 0)
    readVariables(task);
  if (task.id != gettid())
    readCall(task);
}

const Task* TaskList::withId(pid_t id) const {
  const auto all = tasks();
  const auto found =
      std::find_if(all.begin(), all.end(), [id](const Task& task) { return task.id == id; });
  return found != all.end() ? &*found : nullptr;
}

const Task* TaskList::withPointer(std::uintptr_t pointer) const {
  const auto all = tasks();
  const auto found = std::find_if(all.begin(), all.end(), [pointer](const Task& task) {
    return pointer != 0 && task.pointer == pointer;
  });
  return found != all.end() ? &*found : nullptr;
}

}  // namespace VarnSupport
