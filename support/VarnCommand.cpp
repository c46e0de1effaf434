// A command has settings and the task of its latest run. The task belongs to whoever serves it as
// well: the thread of all commands, or the caller of run().
//
// A run takes three steps. It claims the command, so that there is one run at a time; it starts the
// program, without the lock, as that may take its time; and it publishes the task, from where
// kill(), wait() and the destructor find it. What is claimed and not published, because the system
// refused something, is let go by the claim's end.
//
// run() serves its own task, and so needs no thread. Its end kills the program if that is still
// there, whether an exception, a cancellation or a time limit has brought the end about.
#include "VarnSupport/VarnCommand.h"

#include <array>
#include <cassert>
#include <cerrno>
#include <csignal>
#include <mutex>
#include <optional>
#include <span>
#include <utility>

#include "VarnSupport/VarnException.h"
#include "command/CommandSettings.h"
#include "command/CommandThread.h"
#include "runtime/Bell.h"
#include "runtime/Cancellation.h"
#include "runtime/NeverDestroyed.h"
#include "runtime/ProcessExit.h"
#include "runtime/System.h"
#include "threads/LatchState.h"

namespace VarnSupport {

namespace {

// Made while the library is loaded; results may be looked at during the exit.
const NeverDestroyed<CommandOutcome> neverStarted([] {
  CommandOutcome outcome;
  outcome.outcome = VarnCommand::NOT_STARTED;
  return outcome;
}());

std::string describe(const CommandOutcome& outcome) {
  switch (outcome.outcome) {
    case VarnCommand::NOT_STARTED:
      if (outcome.error == 0)
        return "was never started";
      return "could not be started: " + outcome.subject + ": " + errorText(outcome.error);
    case VarnCommand::EXITED:
      return "exited with " + std::to_string(outcome.exitCode);
    case VarnCommand::SIGNALLED: {
      const char* const name = sigdescr_np(outcome.signal);
      return "was ended by signal " + std::to_string(outcome.signal) +
             (name != nullptr ? std::string(" (") + name + ')' : std::string());
    }
    default:
      return "ended in a way that is not known";
  }
}

}  // namespace

const VarnCommand::Outcome& VarnCommand::Result::outcome() const {
  return m_pOutcome != nullptr ? *m_pOutcome : neverStarted.value;
}

std::string VarnCommand::Result::getText() const {
  const CancellationGuard closed;
  std::string text = describe(outcome());
  if (isTimedOut())
    text += ", as its time was over";
  else if (isKilled())
    text += ", as it was killed";
  return text;
}

struct VarnCommand::State {
  // A run that is about to begin: there can be one.
  class Claim {
   public:
    explicit Claim(State& state) : m_pState(&state) {
      const std::lock_guard guard(commandLock);
      if (state.isClosed)
        throw VarnException("VarnCommand: the command is being destroyed", ECANCELED);
      if (state.isClaimed || (state.task != nullptr && !state.task->job.isFinished()))
        throw VarnException("VarnCommand: the command is running", EBUSY);
      state.isClaimed = true;
    }
    Claim(const Claim&) = delete;
    Claim& operator=(const Claim&) = delete;
    ~Claim() {
      if (m_pState == nullptr)
        return;
      const std::lock_guard guard(commandLock);
      m_pState->isClaimed = false;
    }

    enum tServer { CALLER, THREAD };

    // Makes `next` the latest task, and hands it to the thread of all commands if that is to serve
    // it. The next run may begin at once, in the `done` of this one.
    void publish(std::shared_ptr<CommandTask> next, tServer server) {
      const std::lock_guard guard(commandLock);
      if (server == THREAD)
        CommandThread::addLocked(next);
      m_pState->task.swap(next);
      m_pState->isClaimed = false;
      m_pState = nullptr;
    }

   private:
    State* m_pState;
  };

  std::shared_ptr<CommandTask> latest() const {
    const std::lock_guard guard(commandLock);
    return task;
  }

  // The mask is the starter's, as `done` is called with it, wherever that runs.
  std::shared_ptr<CommandTask> makeTask(Done done) const {
    auto made = std::make_shared<CommandTask>(settings, std::move(done), this);
    pthread_sigmask(SIG_BLOCK, nullptr, &made->callersMask);
    return made;
  }

  void begin(CommandTask& begun, std::span<const LatchTicket> stops) const;
  Result run(std::span<const LatchTicket> stops);
  void end();

  CommandSettings settings;
  // Guarded by commandLock.
  std::shared_ptr<CommandTask> task;
  bool isClaimed = false;
  bool isClosed = false;
};

// A `done` that is under way may be starting the command anew. While the process exits, the time
// may be over first, as when a `done` of another command keeps the thread.
void VarnCommand::State::end() {
  const QuietCancellationGuard quiet;
  const NoCancellation whole;
  std::shared_ptr<CommandTask> ended;
  while (true) {
    const bool isExit = ProcessExit::hasBegunHere();
    const MonotonicTime deadline = isExit ? ProcessExit::latestEnd() : MonotonicTime::max();
    {
      const std::lock_guard guard(commandLock);
      isClosed = true;
      if (task == ended)
        break;
      const MonotonicTime now = monotonicNow();
      if (task->job.terminate(now, isExit ? (deadline - now) / 2 : MonotonicTime::duration::max()))
        CommandThread::wakeLocked(*task);
    }
    ended = latest();
    CommandThread::await(*ended, deadline);
    CommandCall::await(CommandKey{this});
  }
  CommandCall::forget(CommandKey{this});
  Done dropped;
  const std::lock_guard guard(commandLock);
  if (ended == nullptr)
    return;
  ended->job.terminate(monotonicNow(), MonotonicTime::duration::zero());
  if (ended->state == CommandTask::RUNNING)
    dropped.swap(ended->done);
}

VarnCommand::VarnCommand(std::vector<std::string> arguments) : m_pState(std::make_unique<State>()) {
  ProcessExit::noteObject();
  m_pState->settings.arguments = std::move(arguments);
}

VarnCommand::VarnCommand(VarnCommand&& source) noexcept = default;

// The command that was here ends as by its destructor, which may wait.
VarnCommand& VarnCommand::operator=(VarnCommand&& source) noexcept {
  if (this != &source) {
    const VarnCommand old(std::move(*this));
    m_pState = std::move(source.m_pState);
  }
  return *this;
}

VarnCommand::~VarnCommand() {
  if (m_pState != nullptr)
    m_pState->end();
}

void VarnCommand::setVariable(const std::string& name, const std::string& value) {
  const CancellationGuard closed;
  m_pState->settings.variables[name] = value;
}

void VarnCommand::unsetVariable(const std::string& name) {
  const CancellationGuard closed;
  m_pState->settings.variables[name].reset();
}

void VarnCommand::setEnvironment(const std::map<std::string, std::string>& environment) {
  const CancellationGuard closed;
  m_pState->settings.variables = {environment.begin(), environment.end()};
  m_pState->settings.inheritsEnvironment = false;
}

void VarnCommand::setFolder(const std::string& path) {
  const CancellationGuard closed;
  m_pState->settings.folder = path;
}

void VarnCommand::setInput(const std::string& text) {
  const CancellationGuard closed;
  m_pState->settings.input = text;
  m_pState->settings.inheritsInput = false;
}

void VarnCommand::inheritInput() { m_pState->settings.inheritsInput = true; }

void VarnCommand::setOutput(tStream stream, std::size_t limitBytes) {
  assert(stream != WITH_OUTPUT);
  m_pState->settings.output = {stream, limitBytes};
}

void VarnCommand::setErrors(tStream stream, std::size_t limitBytes) {
  m_pState->settings.errors = {stream, limitBytes};
}

void VarnCommand::setTimeLimit(std::chrono::milliseconds limit, std::chrono::milliseconds grace) {
  m_pState->settings.limit = limit;
  m_pState->settings.grace = grace;
}

VarnCommand::Result VarnCommand::run() {
  const CancellationGuard closed;
  return m_pState->run({});
}

VarnCommand::Result VarnCommand::run(VarnLatchedEvent& stop) {
  const CancellationGuard closed;
  LatchState& event = latchOf(stop);
  LatchState* const ofThread = StopScope::find();  // without one the event counts twice
  const std::array stops{LatchTicket(event), LatchTicket(ofThread != nullptr ? *ofThread : event)};
  return m_pState->run(stops);
}

// Throws std::bad_alloc where there is nothing to end.
void VarnCommand::State::begin(CommandTask& begun, std::span<const LatchTicket> stops) const {
  const NoCancellation whole;
  begun.bell = makeBell();
  if (!begun.bell.isOpen())
    begun.job.fail(errno, "eventfd");
  else if (isAnyOver(stops))
    begun.job.fail(ECANCELED, settings.arguments.empty() ? "" : settings.arguments.front());
  else
    begun.job.start(settings);
}

VarnCommand::Result VarnCommand::State::run(std::span<const LatchTicket> stops) {
  // However this ends, the program has ended before.
  struct Run {
    std::shared_ptr<CommandTask> task;
    ~Run() {
      const QuietCancellationGuard quiet;
      const NoCancellation whole;
      {
        const std::lock_guard guard(commandLock);
        task->job.terminate(monotonicNow());
      }
      CommandThread::serve(*task);
      CommandThread::conclude(*task);
      if (!task->job.isReaped())
        CommandThread::leave(task);
    }
  };
  Claim claim(*this);
  const std::shared_ptr<CommandTask> begun = makeTask(Done());
  begin(*begun, stops);
  const Run run{begun};
  claim.publish(begun, Claim::CALLER);
  std::optional<LatchWatch> watch;
  if (!stops.empty())
    watch.emplace(stops, run.task->bell);
  CommandThread::serve(*run.task, stops);
  return run.task->job.result();
}

void VarnCommand::start(Done done) {
  const CancellationGuard closed;
  const NoCancellation whole;
  State::Claim claim(*m_pState);
  ProcessExit::watch();
  const CommandThread::Expectation expectation;
  const std::shared_ptr<CommandTask> task = m_pState->makeTask(std::move(done));
  task->job.start(m_pState->settings);
  claim.publish(task, State::Claim::THREAD);
}

void VarnCommand::kill() {
  const QuietCancellationGuard closed;
  const NoCancellation whole;
  const std::lock_guard guard(commandLock);
  if (m_pState->task != nullptr && m_pState->task->job.terminate(monotonicNow()))
    CommandThread::wakeLocked(*m_pState->task);
}

// The task is kept by the caller: a `done` may start the next run while this one is waited for.
VarnCommand::Result VarnCommand::wait() const {
  const CancellationGuard closed;
  const std::shared_ptr<CommandTask> task = m_pState->latest();
  if (task == nullptr)
    return Result();
  CommandThread::await(*task);
  return task->job.result();
}

bool VarnCommand::isRunning() const {
  const std::lock_guard guard(commandLock);
  return m_pState->task != nullptr && !m_pState->task->job.isFinished();
}

pid_t VarnCommand::getProcessId() const {
  const std::lock_guard guard(commandLock);
  return m_pState->task != nullptr && !m_pState->task->job.isFinished()
             ? m_pState->task->job.process()
             : -1;
}

}  // namespace VarnSupport
