#include "VarnSupport/VarnThread.h"

#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <exception>
#include <memory>
#include <new>
#include <typeinfo>

#include "Cancellation.h"
#include "EventAccess.h"
#include "ForkHandlers.h"
#include "NeverDestroyed.h"
#include "SignalRelay.h"
#include "ThreadControl.h"
#include "TrackedDependent.h"
#include "VarnSupport/VarnException.h"
#include "VarnSupport/VarnLogging.h"
#include "VarnSupport/VarnModule.h"
#include "VarnSupport/VarnTimer.h"

namespace VarnSupport {

namespace {

constinit NeverDestroyed<std::vector<pthread_t>> exitThreads;
constinit NeverDestroyed<VarnCriticalSectionObject> exitThreadLock(false);

std::string defaultName() {
  return "class " + VarnObjectBase::normalizeClassName(typeid(VarnThread).name());
}

// The time-out of a wait for threads, and the event that the wait sleeps on.
class ThreadWaitTimer : public VarnTimer {
 public:
  ThreadWaitTimer(std::atomic<bool>& timedOut, bool traced)
      : m_pTimedOut(&timedOut), m_bTraced(traced) {}
  ~ThreadWaitTimer() override { stopAndWait(); }

  void set() override {
    m_pTimedOut->store(true);
    EventAccess::raise(*this);
    if (m_bTraced && VarnLogging::admits(9))
      VarnLogRecord(9) << "ThreadWaitTimer::set: timer expired";
  }

 private:
  std::atomic<bool>* m_pTimedOut;
  bool m_bTraced;
};

// An ending thread cannot throw: without memory the record is left out.
void traceDeparture(const VarnThread& thread) {
  try {
    VarnLogRecord(9) << "ThreadWaitDependent::handleNotification: thread " << thread.getName()
                     << " departed";
  } catch (const std::bad_alloc&) {
  }
}

// Counts the threads that finish.
class ThreadWaitDependent : public TrackedDependent {
 public:
  ThreadWaitDependent(const std::vector<VarnThread*>& threads, VarnEvent& event, int& remaining,
                      bool traced)
      : m_oEvent(event), m_pRemaining(&remaining), m_bTraced(traced), m_vUntold(threads) {
    m_oLock.init();
  }

  void handleNotification(VarnCollaborator& source, const VarnNotification&) override {
    const VarnCriticalSection guard(m_oLock, true);
    m_pLast = &dynamic_cast<VarnThread&>(source);
    const auto told = std::find(m_vUntold.begin(), m_vUntold.end(), m_pLast);
    if (told != m_vUntold.end())
      *told = nullptr;
    const bool traced = m_bTraced && VarnLogging::admits(9);
    if (traced)
      traceDeparture(*m_pLast);
    if (*m_pRemaining > 0)
      --*m_pRemaining;
    EventAccess::raise(m_oEvent);
    if (traced) {
      VarnLogRecord(9)
          << "ThreadWaitTimer::setJustEvent: delay has not expired, just setting event";
      VarnLogRecord(9) << "ThreadWaitDependent::handleNotification: returning";
    }
  }

  // The threads still awaited; `last` becomes the thread that finished last, if any did.
  int look(VarnThread*& last) {
    const VarnCriticalSection guard(m_oLock, true);
    last = m_pLast;
    return *m_pRemaining;
  }

  // Removes the dependent everywhere. A thread that has told its end may have deleted itself since;
  // one that has not must come by here first, and waits for the lock.
  void leave() {
    {
      const VarnCriticalSection guard(m_oLock, true);
      for (VarnThread* const thread : m_vUntold) {
        if (thread != nullptr)
          thread->removeDependent(*this);
      }
    }
    awaitCalls();
  }

 private:
  VarnEvent& m_oEvent;
  VarnCriticalSectionObject m_oLock;
  VarnThread* m_pLast = nullptr;
  int* m_pRemaining;
  bool m_bTraced;
  std::vector<VarnThread*> m_vUntold;  // null in place of those that have told their end
};

// Ends the registration of a dependent with its scope, also when that ends by cancellation.
class Registration {
 public:
  explicit Registration(ThreadWaitDependent& dependent) : m_oDependent(dependent) {}
  Registration(const Registration&) = delete;
  Registration& operator=(const Registration&) = delete;
  ~Registration() { m_oDependent.leave(); }

 private:
  ThreadWaitDependent& m_oDependent;
};

// Has the calling thread joined once it has ended.
void leaveToReaper() {
  try {
    const VarnCriticalSection guard(g_exitThreadLock, true);
    g_vExitThreads.push_back(pthread_self());
  } catch (const std::bad_alloc&) {
    pthread_detach(pthread_self());
    return;
  }
  SignalRelay::ensureRunning();
  kill(getpid(), SIGUSR2);
  SignalRelay::post(SIGUSR2);
}

void reapExitThreads(int) {
  const VarnCriticalSection guard(g_exitThreadLock, true);
  for (const pthread_t thread : g_vExitThreads)
    pthread_join(thread, nullptr);
  g_vExitThreads.clear();
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
    else if (!m_bMarkedForDeath)
      waitForThreadExit();
    giveUpHandle();
  }
  forgetControl();
}

void VarnThread::start() { launch(); }

bool VarnThread::launch() {
  const CancellationGuard closed;
  if (m_pHandle != nullptr)
    return false;
  forgetControl();
  // All is in place before the thread may run, as it may end, or even delete the object, at once.
  auto handle = std::make_unique<pthread_t>();
  m_pControl = new ThreadControl(*this, m_sName == defaultName() ? std::string() : m_sName);
  ThreadControl& control = *m_pControl;
  pthread_t& identifier = *handle;
  m_pHandle = handle.release();
  m_bRunning = true;
  if (control.start(identifier))
    return true;
  giveUpHandle();
  forgetControl();
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
    m_pControl->join();
    return 0;
  }
  std::vector<VarnThread*> threads{this};
  return waitForThreads(threads, true, timeoutMs, RUNNING);
}

int VarnThread::setPriority(t_Priority) { return 0; }

int VarnThread::run() { return 0; }

int VarnThread::run(VarnWorkInformation&) { return 0; }

int VarnThread::waitForThreadExit() { return wait(-1); }

int VarnThread::wait(std::vector<VarnThread*>& threads, bool waitAll, int timeoutMs) {
  return waitForThreads(threads, waitAll, timeoutMs, ANY);
}

int VarnThread::wait(int count, VarnThread* threads, bool waitAll, int timeoutMs) {
  const CancellationGuard closed;
  std::vector<VarnThread*> addresses;
  for (int i = 0; i < count; ++i)
    addresses.push_back(&threads[i]);
  return wait(addresses, waitAll, timeoutMs);
}

int VarnThread::waitForThreads(std::vector<VarnThread*>& threads, bool waitAll, int timeoutMs,
                               tThreads known) {
  const CancellationGuard closed;
  int remaining = waitAll ? static_cast<int>(threads.size()) : 1;
  std::atomic<bool> timedOut{false};
  // This thread waits for those that trace, so it must not have the record that they would wait
  // for.
  const bool traced = !VarnLogging::isRecordOpenOnThisThread();
  ThreadWaitTimer timer(timedOut, traced);
  ThreadWaitDependent dependent(threads, timer, remaining, traced);
  const Registration registration(dependent);

  // A thread that runs now is not lost: it finds the dependent, or is seen past its body here.
  std::vector<bool> running;
  for (VarnThread* const thread : threads)
    running.push_back(known == RUNNING || thread->m_bRunning);
  for (std::size_t i = 0; i < threads.size(); ++i)
    threads[i]->watchEnd(dependent, running[i]);
  if (timeoutMs != -1)
    timer.start(timeoutMs, false);
  if (timeoutMs > 0 && !SignalRelay::ensureRunning())
    throw VarnException(L"VarnThread::wait: the time-out could not be started", 0);
  for (std::size_t i = 0; known == TO_START && i < threads.size(); ++i) {
    if (!threads[i]->launch())
      throw VarnException(L"VarnThread::wait: a thread could not be started", 0);
  }

  int result = -4;
  for (bool waited = false;; waited = true) {
    const std::uint64_t ticket = EventAccess::ticket(timer);
    if (waited && timedOut)
      return -2;
    VarnThread* last = nullptr;
    const int awaited = dependent.look(last);
    const auto found = std::find(threads.begin(), threads.end(), last);
    if (found != threads.end())
      result = static_cast<int>(found - threads.begin());
    if (awaited < 1)
      return waitAll ? 0 : result;
    EventAccess::waitSince(timer, ticket);
  }
}

// Adds the dependent, or tells it at once when the body of a thread that was running has returned.
void VarnThread::watchEnd(VarnDependent& dependent, bool wasRunning) {
  if (!wasRunning)
    addDependent(dependent);
  else if (!m_pControl->ifInBody([&] { addDependent(dependent); }))
    dependent.handleNotification(*this, ThreadDone(m_nExitCode));
}

std::string VarnThread::getName() const { return m_sName; }

void VarnThread::setName(const std::string& name) { m_sName = name; }

void* VarnThread::getHandle() const { return m_pHandle; }

int VarnThread::getExitCode() const { return m_pHandle != nullptr ? m_nExitCode.load() : -1; }

bool VarnThread::isAlive() const { return m_pHandle != nullptr; }

void VarnThread::setMarkForDeath() { m_bMarkedForDeath = true; }

void VarnThread::setMarkForKill() {
  const CancellationGuard closed;
  m_bMarkedForKill = true;
  if (m_pHandle != nullptr)
    m_pControl->detach();
}

void VarnThread::kill() {
  const CancellationGuard closed;
  if (m_pHandle == nullptr)
    return;
  m_pControl->cancel();
  giveUpHandle();
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
  if (m_pControl != nullptr)
    m_pControl->join();
}

// Exceptions end here, but not the unwinding of a cancelled thread. The thread has its own
// references to what it runs: the object may be killed and destroyed meanwhile.
int VarnThread::runBody(ThreadControl* control) {
  const VarnSmartPointer<VarnRunnable> runnable = m_pRunnable;
  const VarnSmartPointer<VarnWorkInformation> workInformation = m_pWorkInformation;
  try {
    return callBody(control, runnable, workInformation);
  } catch (...) {
    if (std::current_exception() == nullptr)
      throw;
    return 0;
  }
}

// Has nothing to destroy, so that a cancellation can unwind it at any instruction.
int VarnThread::callBody(ThreadControl* control, VarnRunnable* runnable,
                         VarnWorkInformation* workInformation) {
  if (control != nullptr)
    control->enterBody();
  int result = 0;
  if (runnable != nullptr)
    result = workInformation != nullptr ? runnable->run(*workInformation) : runnable->run();
  else
    result = workInformation != nullptr ? run(*workInformation) : run();
  if (control != nullptr)
    control->leaveBody();
  return result;
}

void VarnThread::giveUpHandle() {
  void* handle = m_pHandle.exchange(nullptr);
  cleanup(handle);
}

void VarnThread::forgetControl() {
  if (m_pControl == nullptr)
    return;
  m_pControl->abandon();
  m_pControl->drop();
  m_pControl = nullptr;
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
  const bool hadHandle = thread->m_pHandle != nullptr;
  delete thread;
  // A thread that is detached, or being joined, may be gone before the reaper would look for it.
  if (hadHandle && control != nullptr && control->claimJoin())
    leaveToReaper();
  return nullptr;
}

void ForkHandlers::prepareThreads() { g_exitThreadLock.lock(); }

// Threads that wait to be joined are the parent's.
void ForkHandlers::releaseThreads(tSide side) {
  if (side == CHILD) {
    g_vExitThreads.clear();
    ThreadControl::adoptInChild();
  }
  g_exitThreadLock.unlock();
}

void VSUPTInitVarnThread() { SignalRelay::route(SIGUSR2, reapExitThreads); }

void VSUPTFinitVarnThread() {}

}  // namespace VarnSupport
