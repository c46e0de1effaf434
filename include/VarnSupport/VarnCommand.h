// Runs another program, and tells what became of it.
//
//   VarnCommand command({"df", "-P", "/srv"});
//   command.setTimeLimit(std::chrono::seconds(10));
//   const VarnCommand::Result result = command.run();
//   if (!result.succeeded())
//     VarnLogRecord(1) << "df " << result.getText() << ": " << result.getErrors();
//
// There is no shell: each argument arrives as it is. The program has the caller's environment,
// folder, signal mask and ignored signals, but SIGPIPE is never ignored; it has no descriptor but
// its three streams. It leads a process group of its own: what ends it before its time ends the
// processes of that group with it. Those that have left the group live on, as daemons do, and so do
// those that a program leaves behind when it ends by itself, or is ended by somebody else.
//
// Many programs run at once by start(), each with its own object; a limit to their number is a
// VarnQueue of commands that as many VarnFunctionThreads run, each by run(thread.stopEvent()). The
// function of a timer should not wait for a program.
//
// Setting up, running, starting, moving and destroying belong to the owner; kill(), wait() and the
// queries are safe from any thread. Failures of the program, also to start it, are results; nothing
// is thrown but what start() and run() say, and std::bad_alloc. A child of a fork has none of the
// commands that run in its parent: there they have ended with the outcome UNKNOWN.
#ifndef VARNSUPPORT_VARNCOMMAND_H
#define VARNSUPPORT_VARNCOMMAND_H

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "VarnSupport/VarnExport.h"
#include "VarnSupport/VarnLatchedEvent.h"

namespace VarnSupport {

class VSUPT_EXPORT VarnCommand {
 public:
  // UNKNOWN: the process has ended, but somebody else has taken its status, as the system does
  // where SIGCHLD is set to SIG_IGN, which VarnService does not do; or the system has not let it
  // end within a second of SIGKILL.
  enum tOutcome : int { NOT_STARTED, EXITED, SIGNALLED, UNKNOWN };

  // What becomes of an output: kept for the result, thrown away, written where the caller's goes,
  // or, for the errors alone, put into the output in the order of writing.
  enum tStream : int { CAPTURED, DROPPED, INHERITED, WITH_OUTPUT };

  static constexpr std::size_t kCaptureBytes = std::size_t{1} << 20;
  static constexpr std::chrono::seconds kGrace{5};

  // What a result is made of; for the library.
  struct Outcome {
    struct Captured {
      std::string text;
      std::uint64_t dropped = 0;
    };

    tOutcome outcome = UNKNOWN;
    int exitCode = -1;
    int signal = 0;
    int error = 0;
    std::string subject;  // of the error
    bool isTimedOut = false;
    bool isKilled = false;
    Captured output;
    Captured errors;
  };

  // How a run has ended. Copies share what they hold, which never changes.
  class VSUPT_EXPORT Result {
   public:
    // Of a command that was never started.
    Result() = default;
    // For the library.
    explicit Result(std::shared_ptr<const Outcome> outcome) : m_pOutcome(std::move(outcome)) {}

    tOutcome getOutcome() const { return outcome().outcome; }
    // Exited with 0.
    bool succeeded() const { return getExitCode() == 0; }
    // -1 unless it has exited.
    int getExitCode() const { return outcome().exitCode; }
    // The signal that ended it, else 0.
    int getSignal() const { return outcome().signal; }
    // Why it could not be started, an error number, else 0. EINVAL: there is no argument, a text
    // contains a NUL, or the name of a variable is empty or contains a '='. ECANCELED: it was to
    // stop before.
    int getError() const { return outcome().error; }
    // Whether the time limit, or kill() and its kind, came before the end of the program.
    bool isTimedOut() const { return outcome().isTimedOut; }
    bool isKilled() const { return outcome().isKilled; }

    // What it has written, up to the limit, and how many bytes beyond were dropped.
    const std::string& getOutput() const { return outcome().output.text; }
    const std::string& getErrors() const { return outcome().errors.text; }
    std::uint64_t getDroppedOutput() const { return outcome().output.dropped; }
    std::uint64_t getDroppedErrors() const { return outcome().errors.dropped; }

    // In words, such as "exited with 3", "was ended by signal 15 (Terminated), as its time was
    // over", "could not be started: /bin/nothing: No such file or directory".
    std::string getText() const;

   private:
    const Outcome& outcome() const;

    std::shared_ptr<const Outcome> m_pOutcome;
  };

  using Done = std::function<void(const Result& result)>;

  // The first argument is the program. Without a '/' in its name it is looked for in the PATH of
  // the environment that it gets. VarnCmdLineTokenizer makes arguments of a line of text
  // (VarnProgramOptions.h).
  explicit VarnCommand(std::vector<std::string> arguments);
  // A command that was moved from can be assigned to and destroyed, and no more.
  VarnCommand(VarnCommand&& source) noexcept;
  // What the target was running ends as by its destructor.
  VarnCommand& operator=(VarnCommand&& source) noexcept;
  VarnCommand(const VarnCommand&) = delete;
  VarnCommand& operator=(const VarnCommand&) = delete;
  // Kills a program that is running, and waits for its end and for the return of `done`, unless
  // that is its caller. Takes up to the grace time and a second more, and while the process exits
  // no longer than three seconds. For several commands these times add up, unless kill() is called
  // for all of them first.
  ~VarnCommand();

  // These are for the runs that begin later.

  // One variable of the environment, beside or instead of the caller's.
  void setVariable(const std::string& name, const std::string& value);
  // A variable that the program is not to see, as NOTIFY_SOCKET and WATCHDOG_PID, by which it would
  // speak to the service manager in the caller's place.
  void unsetVariable(const std::string& name);
  // The whole environment; what was set and unset before is forgotten.
  void setEnvironment(const std::map<std::string, std::string>& environment);
  // The working folder. Relative paths of the program, and in PATH, begin there.
  void setFolder(const std::string& path);
  // What the program reads, as a file; nothing by default.
  void setInput(const std::string& text);
  void inheritInput();
  // What is beyond the limit is read and dropped: the program never waits for it. Both outputs are
  // captured by default. Requires: WITH_OUTPUT is for the errors.
  void setOutput(tStream stream, std::size_t limitBytes = kCaptureBytes);
  void setErrors(tStream stream, std::size_t limitBytes = kCaptureBytes);
  // When the limit has passed, the group is sent SIGTERM, and SIGKILL after the grace time, or when
  // the program has ended and nobody holds its captured outputs. Limits below 1 ms mean none, and
  // such a grace time SIGKILL at once.
  void setTimeLimit(std::chrono::milliseconds limit, std::chrono::milliseconds grace = kGrace);

  // Runs the program to its end. Outputs that other processes hold open then are read for 250 ms
  // more. A thread that is killed in here kills the program and waits for it. Throws a
  // VarnException with EBUSY while the command is running, with ECANCELED while it is destroyed.
  Result run();
  // The same, until `stop` is set or the calling VarnFunctionThread is asked to stop, which end the
  // program as kill() does; where that was so before, no program is started.
  Result run(VarnLatchedEvent& stop);

  // Starts the program and returns. When it has ended, or could not be started, `done` is called
  // once, with the caller's signal mask, on the thread that the library has for all commands:
  // meanwhile no other started command goes on, so that long work belongs elsewhere. `done` may use
  // all commands: start this one anew, run others, destroy it. Its exceptions are dropped and
  // logged at level 1. Throws as run(), and a VarnException with the error number when the system
  // refuses the thread, which ends when there has been nothing to do for a second.
  void start(Done done = Done());

  // Ends the program as the time limit does, without waiting. Does nothing when it is not running:
  // a run that is about to begin does not know of it, and needs an event to be stopped by.
  void kill();
  // Waits for the end of the program, and for the return of `done`, unless that is the caller.
  // Returns the result of the latest run.
  Result wait() const;
  // False from just before `done` is called.
  bool isRunning() const;
  // -1 when it is not running. It may end at any moment: to send it signals is up to the caller.
  pid_t getProcessId() const;

 private:
  struct VSUPT_LOCAL State;

  std::unique_ptr<State> m_pState;
};

}  // namespace VarnSupport

#endif
