// An object and its POSIX thread share a ThreadControl, which outlives whichever goes first: a
// thread may delete its object, an object may be killed and destroyed while its thread runs, and
// others may be waiting for either. All that one of them must know of the other goes through the
// control.
//
// A thread that deletes itself has nobody to join it. It writes itself into g_vExitThreads as the
// last of its acts and sends SIGUSR2, on which the relay joins all those of the list that have
// ended.
//
// The exit code is there before the dependents are told of the end, and the end is told before the
// thread counts as no longer running. What the body throws ends here and is not told to anybody.
// Only the unwinding of a killed thread goes on, up to the platform's end of the thread; no end is
// announced then.
//
// When the process exits, the destructor of a static thread object waits for its thread, but not
// for ever (ProcessExit).
#include "VarnSupport/VarnThread.h"

#include <pthread.h>

#include <cerrno>
#include <csignal>
#include <memory>
#include <new>
#include <typeinfo>

#include "VarnSupport/VarnModule.h"
#include "runtime/Cancellation.h"
#include "runtime/Fork.h"
#include "runtime/NeverDestroyed.h"
#include "runtime/ProcessExit.h"
#include "runtime/SignalRelay.h"
#include "runtime/UnwindCheck.h"
#include "threads/ThreadControl.h"
#include "threads/Uncaught.h"
#include "threads/WaitForSeveral.h"

namespace VarnSupport {

namespace {

constinit NeverDestroyed<std::vector<pthread_t>> exitThreads;
constinit NeverDestroyed<VarnCriticalSectionObject> exitThreadLock(false);

// When to look again at threads that are about to end.
constexpr long kMillisecondsToEnd = 5;

std::string defaultName() {
  return "class " + VarnObjectBase::normalizeClassName(typeid(VarnThread).name());
}

// Has the calling thread joined once it has ended.
void leaveToReaper() {
  try {
    const VarnCriticalSection guard(g_exitThreadLock);
    g_vExitThreads.push_back(pthread_self());
  } catch (const std::bad_alloc&) {
    pthread_detach(pthread_self());
    return;
  }
  SignalRelay::raise(SIGUSR2);
}

// Runs on the relay, which must wait for nobody: not for the lock, which others may hold, nor for a
// thread that takes long over the destructors of its variables.
void reapExitThreads(int) {
  bool isDone = false;
  if (g_exitThreadLock.testAndSet()) {
    std::erase_if(g_vExitThreads,
                  [](pthread_t thread) { return pthread_tryjoin_np(thread, nullptr) != EBUSY; });
    isDone = g_vExitThreads.empty();
    g_exitThreadLock.unlock();
  }
  if (!isDone)
    SignalRelay::expectWithin(SIGUSR2, kMillisecondsToEnd);
}

}  // namespace

template class VarnSmartPointer<VarnThread>;
template class VarnSmartPointer<VarnThread::VarnRunnable>;

std::vector<pthread_t>& g_vExitThreads = exitThreads.value;
VarnCriticalSectionObject& g_exitThreadLock = exitThreadLock.value;

VarnThread::VarnRunnable::VarnRunnable() = default;

VarnThread::VarnRunnable::~VarnRunnable() = default;

int VarnThread::VarnRunnable::run() { return 0; }

int VarnThread::VarnRunnable::run(VarnWorkInformation&) { return 0; }

VarnThread::ThreadDone::ThreadDone(int exitCode) : VarnNotification(3), m_nExitCode(exitCode) {}

VarnThread::ThreadDone::~ThreadDone() = default;

VarnThread::VarnThread() : m_sName(defaultName()) {}

VarnThread::VarnThread(const std::string& name) : m_sName(name) {}

VarnThread::VarnThread(VarnSmartPointer<VarnRunnable> runnable)
    : m_sName(defaultName()), m_pRunnable(runnable) {}

VarnThread::VarnThread(VarnSmartPointer<VarnRunnable> runnable, const std::string& name)
    : m_sName(name), m_pRunnable(runnable) {}

VarnThread::~VarnThread() {
  const QuietCancellationGuard closed;
  if (m_pHandle != nullptr) {
    if (m_bMarkedForKill)
      kill();
    else if (!m_bMarkedForDeath && m_bRunning)
      VarnThread::joinFinally();
    giveUpHandle();
  }
  ThreadControl::part(*this);
}

void VarnThread::start() { launch(); }

bool VarnThread::launch() {
  const CancellationGuard closed;
  if (m_pHandle != nullptr)
    return false;
  ThreadControl::part(*this);
  ProcessExit::noteObject();
  ProcessExit::watch();
  // All is in place before the thread may run, as it may end, or even delete the object, at once.
  auto handle = std::make_unique<pthread_t>();
  const std::string name = getName();
  ThreadControl& control = ThreadControl::make(*this, name == defaultName() ? std::string() : name,
                                               {m_pRunnable, m_pWorkInformation});
  pthread_t& identifier = *handle;
  m_nExitCode = -1;
  m_pHandle = handle.release();
  m_bRunning = true;
  if (control.start(identifier))
    return true;
  giveUpHandle();
  ThreadControl::part(*this);
  return false;
}

void VarnThread::stop() {}

void VarnThread::setWorkInfo(VarnSmartPointer<VarnWorkInformation> workInformation) {
  m_pWorkInformation = workInformation;
}

int VarnThread::wait(int timeoutMs) {
  const CancellationGuard closed;
  if (m_pHandle == nullptr || !m_bRunning)
    return 0;
  if (timeoutMs == -1) {
    if (const ThreadControl::Visit control(*this); control)
      control->join();
    return 0;
  }
  std::vector<VarnThread*> threads{this};
  return WaitForSeveral::run(threads, true, timeoutMs, WaitForSeveral::RUNNING);
}

int VarnThread::setPriority(t_Priority) { return 0; }

int VarnThread::run() { return 0; }

int VarnThread::run(VarnWorkInformation&) { return 0; }

int VarnThread::waitForThreadExit() { return wait(-1); }

int VarnThread::wait(std::vector<VarnThread*>& threads, bool waitAll, int timeoutMs) {
  return WaitForSeveral::run(threads, waitAll, timeoutMs, WaitForSeveral::ANY);
}

int VarnThread::wait(int count, VarnThread* threads, bool waitAll, int timeoutMs) {
  const CancellationGuard closed;
  std::vector<VarnThread*> addresses = WaitForSeveral::addressesOf(count, threads);
  return wait(addresses, waitAll, timeoutMs);
}

std::string VarnThread::getName() const {
  const CancellationGuard closed;
  return ThreadControl::nameOf(*this);
}

void VarnThread::setName(const std::string& name) {
  const CancellationGuard closed;
  ThreadControl::setNameOf(*this, name);
}

void* VarnThread::getHandle() const { return m_pHandle; }

int VarnThread::getExitCode() const { return m_pHandle != nullptr ? m_nExitCode.load() : -1; }

bool VarnThread::isAlive() const { return m_pHandle != nullptr; }

void VarnThread::setMarkForDeath() { m_bMarkedForDeath = true; }

void VarnThread::setMarkForKill() {
  const CancellationGuard closed;
  m_bMarkedForKill = true;
  if (m_pHandle == nullptr)
    return;
  if (const ThreadControl::Visit control(*this); control)
    control->detach();
}

// A thread that kills itself gives up its handle before it ends.
void VarnThread::kill() {
  {
    const QuietCancellationGuard closed;
    if (m_pHandle == nullptr)
      return;
    if (const ThreadControl::Visit control(*this); control)
      control->cancel();
    giveUpHandle();
  }
  const CancellationGuard endsHere;
}

void VarnThread::cleanup(void*& handle) {
  delete static_cast<pthread_t*>(handle);
  handle = nullptr;
  m_bRunning = false;
}

pthread_t VarnThread::getCurrentThreadId() { return pthread_self(); }

int VarnThread::_run() {
  ThreadControl* const control = ThreadControl::of(*this);
  const int result = runBody(control);
  if (control != nullptr && !control->beginAnnouncement())
    return result;  // the object has been killed and may be gone
  m_nExitCode = result;
  notify(ThreadDone(result));
  return result;
}

void VarnThread::joinFinally() {
  const QuietCancellationGuard closed;
  const NoCancellation whole;
  const ThreadControl::Visit control(*this);
  if (!control)
    return;
  if (ProcessExit::hasBegunHere())
    control->joinBefore(ProcessExit::latestEnd());
  else
    control->join();
}

// Exceptions end here, but not the unwinding of a cancelled thread.
int VarnThread::runBody(ThreadControl* control) {
  if (control == nullptr)
    return callBody(nullptr, m_pRunnable, m_pWorkInformation);
  const ThreadControl::Body body(*control);
  return body.work() != nullptr ? callBody(control, body.work()->runnable, body.work()->information)
                                : 0;
}

int VarnThread::callBody(ThreadControl* control, VarnRunnable* runnable,
                         VarnWorkInformation* workInformation) {
  try {
    if (runnable != nullptr)
      return workInformation != nullptr ? runnable->run(*workInformation) : runnable->run();
    return workInformation != nullptr ? run(*workInformation) : run();
  } catch (...) {
    passOnCancellation();
    Uncaught::tell([&] { return "thread " + (control ? control->nameOfObject() : getName()); });
    return 0;
  }
}

void VarnThread::giveUpHandle() {
  void* handle = m_pHandle.exchange(nullptr);
  cleanup(handle);
}

void* VarnThreadFn(void* argument) {
  auto* const thread = static_cast<VarnThread*>(argument);
  ThreadControl* const control = ThreadControl::of(*thread);
  thread->_run();
  if (control != nullptr && control->isAbandoned())
    return nullptr;
  if (!thread->m_bMarkedForDeath) {
    thread->m_bRunning = false;
    if (control != nullptr)
      control->endAnnouncement();
    return thread;
  }
  // A thread that is detached, or being joined, may be gone before the reaper would look for it.
  const bool toReap = thread->m_pHandle != nullptr && control != nullptr && control->claimJoin();
  delete thread;
  if (toReap)
    leaveToReaper();
  return nullptr;
}

// Threads that wait to be joined are the parent's.
constinit const ForkPart threadFork{[]() VSUPT_UNCHECKED { g_exitThreadLock.lock(); },
                                    [](ForkSide side) VSUPT_UNCHECKED {
                                      if (side == ForkSide::CHILD)
                                        g_vExitThreads.clear();
                                      g_exitThreadLock.unlock();
                                    }};

void VSUPTInitVarnThread() {
  UnwindCheck::prepare();
  SignalRelay::route(SIGUSR2, reapExitThreads);
}

void VSUPTFinitVarnThread() {}

}  // namespace VarnSupport
