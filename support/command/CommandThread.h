// Who serves the jobs of commands: the thread of the library for those that go on by themselves,
// and any thread that waits for a job of its own.
//
// The thread starts with the first job and ends when there has been none for a second. It blocks
// every signal but while it calls a `done`.
#ifndef SUPPORT_COMMAND_COMMANDTHREAD_H
#define SUPPORT_COMMAND_COMMANDTHREAD_H

#include <csignal>
#include <memory>
#include <span>
#include <utility>

#include "VarnSupport/VarnCommand.h"
#include "command/CommandJob.h"
#include "runtime/CallUnderWay.h"
#include "threads/LatchState.h"

namespace VarnSupport {

// A job, and who is to hear of its end. What is not fixed is guarded by commandLock.
struct CommandTask {
  enum tState { RUNNING, CALLING, OVER };  // CALLING: `done` is under way

  CommandTask(const CommandSettings& settings, VarnCommand::Done function, const void* command)
      : job(settings), done(std::move(function)), owner(command) {}

  // The child of a fork has it in memory alone.
  bool isOver() const { return state == OVER || job.isOrphan(); }

  CommandJob job;
  VarnCommand::Done done;
  const void* const owner;
  sigset_t callersMask{};
  tState state = RUNNING;
  // Wakes the thread that serves the job, unless that is the one of the library.
  Descriptor bell;
};

// What a call of a `done` is for.
struct CommandKey {
  const void* command = nullptr;

  bool operator==(const CommandKey&) const = default;
};

using CommandCall = CallUnderWay<CommandKey>;

class CommandThread {
 public:
  // Keeps the thread for a task that is about to come, and starts it if it does not run. Throws a
  // VarnException when the system refuses.
  class Expectation {
   public:
    Expectation();
    Expectation(const Expectation&) = delete;
    Expectation& operator=(const Expectation&) = delete;
    ~Expectation();
  };

  // Hands a task to the thread. Throws nothing. Requires: commandLock, an Expectation.
  static void addLocked(const std::shared_ptr<CommandTask>& task);
  // The same for a process that is yet to be waited for, if the thread can be had.
  static void leave(const std::shared_ptr<CommandTask>& task) noexcept;

  // Serves the job on the calling thread until it is finished. One of `stops`, which ring the
  // task's bell, terminates it. The wait can be cancelled.
  static void serve(CommandTask& task, std::span<const LatchTicket> stops = {});
  // Calls who is to hear of the end, unless that has begun. Requires: the job is finished.
  static void conclude(CommandTask& task);
  // Waits until the task is over, or until `deadline`. On the thread itself it serves and concludes
  // the task, and does nothing in the task's own `done`. The wait can be cancelled.
  static void await(CommandTask& task, MonotonicTime deadline = MonotonicTime::max());
  // After a change of what the job waits for. Requires: commandLock.
  static void wakeLocked(const CommandTask& task);

  struct Fork;

 private:
  class Presence;
  // Starts the thread unless it runs. Returns 0, or the system's code.
  static int startLocked() noexcept;
  static void run();
  static bool isCallerLocked();
  static bool turn();
};

}  // namespace VarnSupport

#endif
