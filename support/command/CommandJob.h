// One run of a program.
#ifndef SUPPORT_COMMAND_COMMANDJOB_H
#define SUPPORT_COMMAND_COMMANDJOB_H

#include <poll.h>
#include <sys/types.h>

#include <cassert>
#include <csignal>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "VarnSupport/VarnCommand.h"
#include "command/CommandLaunch.h"
#include "command/CommandSettings.h"
#include "runtime/System.h"

namespace VarnSupport {

using CommandOutcome = VarnCommand::Outcome;

// Guards all jobs, and who serves them. Held for moments, and across a fork: what it guards is
// whole in the child.
extern constinit std::mutex commandLock;

// Does nothing by itself: whoever serves it waits for what collect() and nextLook() name, and then
// lets it advance. The process is waited for last of all: until then nobody else can have its
// number, which is that of its group.
//
// All but the constructor, start() and fail() require commandLock.
class CommandJob {
 public:
  explicit CommandJob(const CommandSettings& settings);
  CommandJob(const CommandJob&) = delete;
  CommandJob& operator=(const CommandJob&) = delete;
  ~CommandJob();

  // Starts the program, or finishes at once. Requires: NoCancellation; nobody else has the job yet.
  void start(const CommandSettings& settings) noexcept;
  // Finishes as a program that cannot be started. The same is required.
  void fail(int error, std::string subject) noexcept;

  // Adds what is to be polled. May throw std::bad_alloc.
  void collect(std::vector<pollfd>& polled) const;
  // When to advance though nothing of that has happened.
  MonotonicTime nextLook(MonotonicTime now) const;
  // Does what is due, without waiting.
  void advance(MonotonicTime now);

  // Sends SIGTERM now, and SIGKILL after the grace time, or after `atMost` if that is shorter.
  // False when there is nothing to end.
  bool terminate(MonotonicTime now,
                 MonotonicTime::duration atMost = MonotonicTime::duration::max());

  bool isFinished() const { return m_bFinished; }
  // Whether the process has been waited for; it may be later than all else.
  bool isReaped() const { return m_nProcess == -1; }
  pid_t process() const { return m_nProcess; }
  // Requires: it is finished.
  VarnCommand::Result result() const {
    assert(m_bFinished);
    return VarnCommand::Result(m_pOutcome);
  }

  // In the child of a fork: all jobs are the parent's.
  static void orphanAll();
  bool isOrphan() const { return m_bOrphan; }

 private:
  struct Stream {
    Descriptor end;
    std::size_t limitBytes;
    CommandOutcome::Captured& captured;

    void readSome();
    void keep(const char* bytes, std::size_t count);
  };

  bool isOutputOpen() const { return m_oOutput.end.isOpen() || m_oErrors.end.isOpen(); }
  bool isComplete(MonotonicTime now) const;
  void lookForEnd(MonotonicTime now);
  bool isOurs() const;
  int waitWith(int options, siginfo_t& information) const;
  void signalGroup(int signal) const;
  void killGroup(MonotonicTime now);
  void reap();
  void finish();

  const std::shared_ptr<CommandOutcome> m_pOutcome;
  const MonotonicTime::duration m_oLimit;
  const MonotonicTime::duration m_oGrace;
  pid_t m_nProcess = -1;
  Descriptor m_oHandle;
  Stream m_oOutput;
  Stream m_oErrors;
  bool m_bEnded = false;     // the process is no more than its status
  bool m_bFinished = false;  // the outcome does not change any more
  bool m_bOrphan = false;
  bool m_bTerminating = false;
  bool m_bKilled = false;
  MonotonicTime m_oLimitAt = MonotonicTime::max();
  MonotonicTime m_oKillAt = MonotonicTime::max();
  // Until when to wait for what the kill, or the end, should have brought about.
  MonotonicTime m_oPatientUntil = MonotonicTime::max();

  // All jobs of the process.
  static CommandJob* m_pFirst;
  CommandJob* m_pNext = nullptr;
  CommandJob* m_pPrevious = nullptr;
};

}  // namespace VarnSupport

#endif
