// The phases of a thread, in order: it is started, is in its body, announces its end, and has
// ended. Its object may be touched in the body's frame and during the announcement, but only as
// long as the owner has not abandoned it, which waits for an announcement under way. Everything is
// guarded by the mutex of the control, which is held for moments only.
//
// Joining is somebody's task exactly once: of whoever turns m_bJoinable from true to false. A
// waiter that is killed while it joins gives the task back. All others wait for the end to be
// noted, which is before the thread has quite gone.
#include "threads/ThreadControl.h"

#include <cassert>
#include <chrono>
#include <csignal>
#include <memory>
#include <utility>

#include "VarnSupport/VarnCriticalSection.h"
#include "runtime/AlternateStack.h"
#include "runtime/Fork.h"
#include "runtime/ProcessExit.h"
#include "runtime/SignalSet.h"

namespace VarnSupport {

namespace {

// A thread that is killed has ended after some ten microseconds, as a rule. It may take as long as
// it likes: its own code may keep it from being unwound.
constexpr std::chrono::milliseconds kTimeToEnd{10};

constexpr int kLooksForOpening = 100;

// The calling thread's control; null on threads that the library does not run.
ThreadControl* ownControl() { return static_cast<ThreadControl*>(t_pCancellation); }

// Guards the objects' pointers to their controls.
constinit std::mutex controlMutex;

}  // namespace

ThreadControl::Visit::Visit(VarnThread& object) {
  const std::lock_guard guard(controlMutex);
  m_pControl = object.m_pControl;
  if (m_pControl != nullptr)
    m_pControl->m_nUses.fetch_add(1);
}

ThreadControl::Visit::~Visit() {
  if (m_pControl != nullptr)
    m_pControl->drop();
}

// The thread's side of the control: set up first, undone however the thread ends.
class ThreadControl::Use {
 public:
  explicit Use(ThreadControl& control) : m_oControl(control) {
    assert(t_pCancellation == nullptr);
    pthread_setcanceltype(PTHREAD_CANCEL_ASYNCHRONOUS, nullptr);
    letKillInterrupt();
    t_pCancellation = &m_oControl;
  }
  Use(const Use&) = delete;
  Use& operator=(const Use&) = delete;
  ~Use() {
    m_oControl.giveBackAll();
    m_oControl.releaseCaughtExceptions();
    VarnCriticalSectionRecoverFn(nullptr);
    t_pCancellation = nullptr;
    {
      const std::lock_guard guard(m_oControl.m_oMutex);
      m_oControl.m_bEnded = true;
      m_oControl.m_oChanged.notify_all();
    }
    m_oControl.drop();
  }

 private:
  // Who starts the thread may have blocked all signals.
  static void letKillInterrupt() {
    const sigset_t signals = signalSet({SIGUSR2});
    pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
  }

  AlternateStack m_oStack;
  ThreadControl& m_oControl;
};

ThreadControl::ThreadControl(VarnThread& object, const std::string& systemName, const Work& work)
    : m_sSystemName(systemName.substr(0, 15)),
      m_pIdentity(&object),
      m_oWork(work),
      m_pObject(&object),
      m_nForks(g_nForks) {}

ThreadControl& ThreadControl::make(VarnThread& object, const std::string& systemName,
                                   const Work& work) {
  auto* const control = new ThreadControl(object, systemName, work);
  const std::lock_guard guard(controlMutex);
  assert(object.m_pControl == nullptr);
  object.m_pControl = control;
  return *control;
}

void ThreadControl::part(VarnThread& object) {
  ThreadControl* control = nullptr;
  {
    const std::lock_guard guard(controlMutex);
    control = std::exchange(object.m_pControl, nullptr);
  }
  if (control == nullptr)
    return;
  control->abandon();
  control->drop();
}

void ThreadControl::drop() {
  const int uses = m_nUses.fetch_sub(1);
  assert(uses > 0);
  if (uses == 1)
    delete this;
}

ThreadControl* ThreadControl::of(const VarnThread& object) {
  ThreadControl* const control = ownControl();
  return control != nullptr && control->m_pIdentity == &object ? control : nullptr;
}

// When the system refuses, there may be waiters already, for whom this is the thread's end.
bool ThreadControl::start(pthread_t& handle) {
  const std::lock_guard guard(m_oMutex);
  assert(!m_bJoinable && !m_bEnded && m_pObject != nullptr);
  m_nUses.fetch_add(1);
  if (pthread_create(&m_hThread, nullptr, &ThreadControl::routine, this) != 0) {
    m_nUses.fetch_sub(1);
    m_bEnded = true;
    m_oChanged.notify_all();
    return false;
  }
  m_bJoinable = true;
  handle = m_hThread;
  return true;
}

void* ThreadControl::routine(void* argument) {
  ThreadControl& control = *static_cast<ThreadControl*>(argument);
  const Use use(control);
  if (!control.m_sSystemName.empty())
    pthread_setname_np(pthread_self(), control.m_sSystemName.c_str());
  VarnThread* object = nullptr;
  {
    // Waits until start() is done: from here on the object may delete itself.
    const std::lock_guard guard(control.m_oMutex);
    object = control.m_pObject;
  }
  return object != nullptr ? VarnThreadFn(object) : nullptr;
}

void ThreadControl::join() {
  if (!belongsToThisProcess() || ownControl() == this)
    return;
  std::unique_lock guard(m_oMutex);
  if (!m_bJoinable) {
    const BlockingCall cancellable;
    m_oChanged.wait(guard, [this] { return m_bEnded.load(); });
    return;
  }
  m_bJoinable = false;
  guard.unlock();
  // A waiter that is cancelled leaves the thread to be joined by another, if its object is there.
  struct Restore {
    ThreadControl& control;
    bool joined = false;
    ~Restore() {
      if (joined)
        return;
      const std::lock_guard again(control.m_oMutex);
      control.m_bJoinable = control.m_pObject != nullptr;
      if (!control.m_bJoinable)
        pthread_detach(control.m_hThread);
    }
  } restore{*this};
  {
    const BlockingCall cancellable;
    pthread_join(m_hThread, nullptr);
  }
  restore.joined = true;
}

void ThreadControl::joinBefore(MonotonicTime deadline) {
  if (!belongsToThisProcess() || ownControl() == this)
    return;
  {
    const NoCancellation whole;
    std::unique_lock guard(m_oMutex);
    if (!m_oChanged.wait_until(guard, deadline, [this] { return m_bEnded.load(); }))
      return;
  }
  join();
}

bool ThreadControl::claimJoin() {
  const std::lock_guard guard(m_oMutex);
  return std::exchange(m_bJoinable, false);
}

void ThreadControl::detach() {
  if (!belongsToThisProcess())
    return;
  const std::lock_guard guard(m_oMutex);
  if (m_bJoinable)
    pthread_detach(m_hThread);
  m_bJoinable = false;
}

void ThreadControl::cancel() {
  if (!belongsToThisProcess())
    return;
  std::unique_lock guard(m_oMutex);
  if (m_bEnded)
    return;
  request();
  if (ownControl() == this)
    return;
  const NoCancellation whole;
  const auto ends = [this] { return m_bEnded.load(); };
  bool hasEnded = m_oChanged.wait_for(guard, kTimeToEnd, ends);
  for (int look = 0; CancellationState::kSignalsAreHeldBack && !hasEnded && look < kLooksForOpening;
       ++look) {
    if (isOpen())
      pthread_cancel(m_hThread);
    hasEnded = m_oChanged.wait_for(guard, kTimeToEnd, ends);
  }
}

// Waits while the thread is telling the dependents, but not for ever when the process exits. Nobody
// can join a thread any more that has been killed, or that destroys its own object.
void ThreadControl::abandon() {
  if (!belongsToThisProcess())
    return;
  std::unique_lock guard(m_oMutex);
  if (ownControl() != this) {
    const NoCancellation whole;
    const auto isToldOrGone = [this] { return m_ePhase != ANNOUNCING || m_bEnded.load(); };
    if (!isToldOrGone() && ProcessExit::hasBegunHere())
      m_oChanged.wait_until(guard, ProcessExit::latestEnd(), isToldOrGone);
    else
      m_oChanged.wait(guard, isToldOrGone);
  }
  m_pObject = nullptr;
  if (m_bJoinable && (ownControl() == this || isRequested())) {
    pthread_detach(m_hThread);
    m_bJoinable = false;
  }
}

// A cancellation that was requested before unwinds out of the constructor, the destructor then does
// not run: the control keeps the work until it goes itself.
ThreadControl::Body::Body(ThreadControl& control)
    : m_oControl(control), m_pWork(control.isAbandoned() ? nullptr : &control.m_oWork) {
  m_oControl.enterBody();
}

ThreadControl::Body::~Body() {
  m_oControl.leaveBody();
  m_oControl.m_oWork = Work();
}

bool ThreadControl::beginAnnouncement() {
  const std::lock_guard guard(m_oMutex);
  if (m_pObject == nullptr)
    return false;
  assert(m_ePhase == BODY);
  m_ePhase = ANNOUNCING;
  return true;
}

bool ThreadControl::isAbandoned() {
  const std::lock_guard guard(m_oMutex);
  return m_pObject == nullptr;
}

std::string ThreadControl::nameOfObject() {
  const std::lock_guard guard(m_oMutex);
  return m_pObject != nullptr ? nameOf(*m_pObject) : std::string();
}

std::string ThreadControl::nameOf(const VarnThread& object) {
  const std::lock_guard guard(controlMutex);
  return object.m_sName;
}

void ThreadControl::setNameOf(VarnThread& object, std::string name) {
  const std::lock_guard guard(controlMutex);
  object.m_sName.swap(name);
}

void ThreadControl::endAnnouncement() {
  const std::lock_guard guard(m_oMutex);
  m_ePhase = FINISHED;
  m_oChanged.notify_all();
}

bool ThreadControl::belongsToThisProcess() const { return m_nForks == g_nForks; }

// The thread that forks is the only one in the child: its control belongs there, and its mutex may
// have been held, or waited for, by another thread. The other controls are of threads that the
// child does not have: nothing waits for these, and their mutexes are left alone.
struct ThreadControl::Fork {
  static void prepare() { controlMutex.lock(); }
  static void release(ForkSide side) {
    controlMutex.unlock();
    if (side == ForkSide::PARENT || ownControl() == nullptr)
      return;
    std::construct_at(&ownControl()->m_oMutex);
    std::construct_at(&ownControl()->m_oChanged);
    ownControl()->m_nForks = g_nForks;
    ownControl()->forgetRequest();
  }
};

constinit const ForkPart controlFork{&ThreadControl::Fork::prepare, &ThreadControl::Fork::release};

}  // namespace VarnSupport
