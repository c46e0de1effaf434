// A turn collects what all tasks wait for, waits, lets every job advance, and calls who is to hear
// of those that have finished, the lock being free meanwhile. A `done` that waits for another task
// of the thread serves that one itself.
//
// The thread must be there before a program is started whose end it is to see, and room for its
// task must be, too: an Expectation takes both in advance, so that nothing can fail once the
// program runs. While there is one the thread does not end for want of work.
//
// Without memory the thread goes on: what cannot be put among the polled descriptors is looked at
// every 10 ms.
#include "command/CommandThread.h"

#include <pthread.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <vector>

#include "VarnSupport/VarnException.h"
#include "runtime/Bell.h"
#include "runtime/Cancellation.h"
#include "runtime/Fork.h"
#include "runtime/NeverDestroyed.h"
#include "runtime/SignalSet.h"
#include "runtime/SystemThreads.h"
#include "threads/Uncaught.h"

namespace VarnSupport {

namespace {

constexpr std::chrono::seconds kIdle{1};
// How often to look at what cannot be polled, as there is no memory for it.
constexpr std::chrono::milliseconds kLook{10};

// Guarded by commandLock.
struct ThreadState {
  bool isRunning = false;
  pthread_t thread{};
  Descriptor bell;
  int expected = 0;
  std::vector<std::shared_ptr<CommandTask>> tasks;  // has room for all that are expected
  MonotonicTime idleSince;
  std::condition_variable changed;  // told when a task is over
};

NeverDestroyed<ThreadState> thread;

// What some jobs, and those who ring, have to say. Does without what there is no memory for.
// The bell is first, so that a wake-up is seen even where nothing else found room.
class Watch {
 public:
  explicit Watch(const Descriptor& bell) : m_nBell(bell.get()) {
    try {
      m_vPolled.push_back({m_nBell, POLLIN, 0});
    } catch (const std::bad_alloc&) {
      lookBy(monotonicNow() + kLook);
    }
  }

  void lookBy(MonotonicTime time) { m_oUntil = std::min(m_oUntil, time); }
  void add(const CommandJob& job) {
    const MonotonicTime now = monotonicNow();
    lookBy(job.nextLook(now));
    try {
      job.collect(m_vPolled);
    } catch (const std::bad_alloc&) {
      lookBy(now + kLook);
    }
  }

  // Can be cancelled.
  void wait() {
    const timespec left = timeLeft(m_oUntil);
    const int count = ppoll(m_vPolled.data(), m_vPolled.size(),
                            m_oUntil == MonotonicTime::max() ? nullptr : &left, nullptr);
    if (count == -1 && errno != EINTR) {
      const timespec pause = toTimespec(kLook);
      ppoll(nullptr, 0, &pause, nullptr);
    }
    eventfd_t rung = 0;
    if (count > 0 && m_vPolled.front().fd == m_nBell && m_vPolled.front().revents != 0)
      static_cast<void>(eventfd_read(m_nBell, &rung));
  }

 private:
  const int m_nBell;
  std::vector<pollfd> m_vPolled;  // the bell first
  MonotonicTime m_oUntil = MonotonicTime::max();
};

// On the mask of the thread that has started the command. However the call ends, what the function
// has with it is gone on the return.
void callDone(VarnCommand::Done& done, const VarnCommand::Result& result, const sigset_t& mask) {
  sigset_t own;
  pthread_sigmask(SIG_SETMASK, &mask, &own);
  try {
    const VarnCommand::Done called = std::move(done);
    called(result);
  } catch (...) {
    passOnCancellation();
    Uncaught::report([] { return "VarnCommand"; });
  }
  pthread_sigmask(SIG_SETMASK, &own, nullptr);
}

// A task that has been finished and not been concluded, or that needs the thread no more.
std::shared_ptr<CommandTask> takeFinished() {
  const std::lock_guard guard(commandLock);
  auto& tasks = thread.value.tasks;
  const auto found = std::find_if(tasks.begin(), tasks.end(), [](const auto& task) {
    return task->job.isFinished() && (task->state == CommandTask::RUNNING || task->job.isReaped());
  });
  if (found == tasks.end())
    return nullptr;
  std::shared_ptr<CommandTask> task = *found;
  if (task->job.isReaped()) {
    found->swap(tasks.back());
    tasks.pop_back();
  }
  thread.value.idleSince = monotonicNow();
  return task;
}

}  // namespace

CommandThread::Expectation::Expectation() {
  const std::lock_guard guard(commandLock);
  auto& state = thread.value;
  state.tasks.reserve(state.tasks.size() + static_cast<std::size_t>(state.expected) + 1);
  if (const int error = startLocked(); error != 0)
    throw VarnException("VarnCommand: the system refuses a thread", error);
  ++state.expected;
}

CommandThread::Expectation::~Expectation() {
  const std::lock_guard guard(commandLock);
  --thread.value.expected;
}

void CommandThread::addLocked(const std::shared_ptr<CommandTask>& task) {
  assert(thread.value.isRunning && thread.value.expected > 0);
  assert(thread.value.tasks.size() < thread.value.tasks.capacity());
  thread.value.tasks.push_back(task);
  ringBell(thread.value.bell.get());
}

// The process stays a zombie where the thread cannot be had.
void CommandThread::leave(const std::shared_ptr<CommandTask>& task) noexcept {
  try {
    const Expectation expected;
    const std::lock_guard guard(commandLock);
    addLocked(task);
  } catch (const std::exception&) {
    return;
  } catch (const VarnException&) {
    return;
  }
}

void CommandThread::serve(CommandTask& task, std::span<const LatchTicket> stops) {
  while (true) {
    std::optional<Watch> watch;
    {
      const NoCancellation whole;
      const std::lock_guard guard(commandLock);
      const MonotonicTime now = monotonicNow();
      if (isAnyOver(stops))
        task.job.terminate(now);
      task.job.advance(now);
      if (task.job.isFinished())
        return;
      watch.emplace(task.bell.isOpen() ? task.bell : thread.value.bell);
      watch->add(task.job);
    }
    const BlockingCall cancellable;
    watch->wait();
  }
}

// `done` is taken out under the lock, so that it is called once, whoever comes first: the thread, a
// `done` that waits for this task, or the caller of run().
void CommandThread::conclude(CommandTask& task) {
  VarnCommand::Done done;
  {
    const std::lock_guard guard(commandLock);
    assert(task.job.isFinished());
    if (task.state != CommandTask::RUNNING || task.job.isOrphan())
      return;
    task.state = CommandTask::CALLING;
    done.swap(task.done);
  }
  struct Over {
    CommandTask& task;
    ~Over() {
      const std::lock_guard guard(commandLock);
      task.state = CommandTask::OVER;
      thread.value.changed.notify_all();
    }
  } over{task};
  const CommandCall underWay(CommandKey{task.owner});
  if (done)
    callDone(done, task.job.result(), task.callersMask);
}

void CommandThread::await(CommandTask& task, MonotonicTime deadline) {
  std::unique_lock guard(commandLock);
  if (isCallerLocked() && !task.bell.isOpen()) {
    if (task.state != CommandTask::RUNNING || task.isOver())
      return;
    guard.unlock();
    serve(task);
    conclude(task);
    return;
  }
  const auto isOver = [&] { return task.isOver(); };
  const BlockingCall cancellable;
  if (deadline == MonotonicTime::max())
    thread.value.changed.wait(guard, isOver);
  else
    thread.value.changed.wait_until(guard, deadline, isOver);
}

void CommandThread::wakeLocked(const CommandTask& task) {
  ringBell((task.bell.isOpen() ? task.bell : thread.value.bell).get());
}

bool CommandThread::isCallerLocked() {
  return thread.value.isRunning && pthread_equal(thread.value.thread, pthread_self()) != 0;
}

int CommandThread::startLocked() noexcept {
  auto& state = thread.value;
  if (state.isRunning)
    return 0;
  state.bell = makeBell();
  int error = state.bell.isOpen() ? 0 : errno;
  const sigset_t all = allSignals();
  if (error == 0)
    error = startDetached("vsupt-commands", &CommandThread::run, &all, &state.thread);
  if (error != 0) {
    state.bell.close();
    return error;
  }
  state.isRunning = true;
  state.idleSince = monotonicNow();
  return 0;
}

// A `done` may end the thread: others then take over what is left.
class CommandThread::Presence {
 public:
  Presence() = default;
  Presence(const Presence&) = delete;
  Presence& operator=(const Presence&) = delete;
  ~Presence() {
    const std::lock_guard guard(commandLock);
    if (!isCallerLocked())
      return;
    thread.value.isRunning = false;
    thread.value.bell.close();
    if (!thread.value.tasks.empty() || thread.value.expected > 0)
      static_cast<void>(startLocked());  // or else the next command does
  }
};

void CommandThread::run() {
  const Presence presence;
  while (turn()) {
  }
}

// False when the thread is to end: there is nothing to do, or it is what a fork inside a `done` has
// made of it.
bool CommandThread::turn() {
  auto& state = thread.value;
  std::optional<Watch> watch;
  {
    const std::lock_guard guard(commandLock);
    if (!isCallerLocked())
      return false;
    const bool isIdle = state.tasks.empty() && state.expected == 0;
    if (isIdle && monotonicNow() >= state.idleSince + kIdle) {
      state.isRunning = false;
      state.bell.close();
      return false;
    }
    watch.emplace(state.bell);
    if (isIdle)
      watch->lookBy(state.idleSince + kIdle);
    else if (state.tasks.empty())
      watch->lookBy(monotonicNow() + kIdle);
    for (const auto& task : state.tasks)
      watch->add(task->job);
  }
  watch->wait();
  {
    const std::lock_guard guard(commandLock);
    const MonotonicTime now = monotonicNow();
    for (const auto& task : state.tasks)
      task->job.advance(now);
  }
  while (const std::shared_ptr<CommandTask> task = takeFinished())
    conclude(*task);
  return true;
}

// The child has neither the thread nor the programs. What others have in hand stays in memory: it
// cannot be destroyed there.
struct CommandThread::Fork {
  static void prepare() {
    commandLock.lock();
    CommandCall::lockList();
  }
  static void release(ForkSide side) {
    if (side == ForkSide::CHILD) {
      auto& state = thread.value;
      CommandJob::orphanAll();
      CommandCall::forgetLost();
      state.isRunning = false;
      state.bell.close();
      state.expected = 0;
      keepForever(state.tasks.data());
      std::construct_at(&state.tasks);
      std::construct_at(&state.changed);
    }
    CommandCall::unlockList();
    commandLock.unlock();
  }
};

constinit const ForkPart commandFork{&CommandThread::Fork::prepare, &CommandThread::Fork::release};

}  // namespace VarnSupport
