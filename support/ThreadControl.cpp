#include "ThreadControl.h"

#include <unistd.h>

#include <memory>
#include <utility>

#include "VarnSupport/VarnCriticalSection.h"

namespace VarnSupport {

namespace {

constinit thread_local ThreadControl* t_pControl = nullptr;

}  // namespace

// The thread's side of the control: set up first, undone however the thread ends.
class ThreadControl::Use {
 public:
  explicit Use(ThreadControl& control) : m_oControl(control) {
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    pthread_setcanceltype(PTHREAD_CANCEL_ASYNCHRONOUS, nullptr);
    t_pCancellation = &m_oControl.m_oCancellation;
    t_pControl = &m_oControl;
  }
  Use(const Use&) = delete;
  Use& operator=(const Use&) = delete;
  ~Use() {
    VarnCriticalSectionRecoverFn(nullptr);
    t_pControl = nullptr;
    t_pCancellation = nullptr;
    {
      const std::lock_guard guard(m_oControl.m_oMutex);
      m_oControl.m_bEnded = true;
      m_oControl.m_oChanged.notify_all();
    }
    m_oControl.drop();
  }

 private:
  ThreadControl& m_oControl;
};

ThreadControl::ThreadControl(VarnThread& object, const std::string& systemName)
    : m_sSystemName(systemName.substr(0, 15)), m_pObject(&object), m_nProcess(getpid()) {}

void ThreadControl::drop() {
  if (m_nUses.fetch_sub(1) == 1)
    delete this;
}

ThreadControl* ThreadControl::of(const VarnThread& object) {
  if (t_pControl == nullptr)
    return nullptr;
  const std::lock_guard guard(t_pControl->m_oMutex);
  return t_pControl->m_pObject == &object ? t_pControl : nullptr;
}

bool ThreadControl::start(pthread_t& handle) {
  const std::lock_guard guard(m_oMutex);
  if (pthread_create(&m_hThread, nullptr, &ThreadControl::routine, this) != 0)
    return false;
  m_nUses.fetch_add(1);
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
  if (!belongsToThisProcess() || t_pControl == this)
    return;
  // A thread that deletes itself gives up both other uses while this waits.
  struct Visit {
    ThreadControl& control;
    explicit Visit(ThreadControl& visited) : control(visited) { control.m_nUses.fetch_add(1); }
    ~Visit() { control.drop(); }
  } const visit(*this);
  std::unique_lock guard(m_oMutex);
  if (!m_bJoinable) {
    const BlockingCall cancellable;
    m_oChanged.wait(guard, [this] { return m_bEnded; });
    return;
  }
  m_bJoinable = false;
  guard.unlock();
  // A waiter that is cancelled leaves the thread to be joined by another.
  struct Restore {
    ThreadControl& control;
    bool joined = false;
    ~Restore() {
      if (!joined) {
        const std::lock_guard again(control.m_oMutex);
        control.m_bJoinable = true;
      }
    }
  } restore{*this};
  {
    const BlockingCall cancellable;
    pthread_join(m_hThread, nullptr);
  }
  restore.joined = true;
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

// Under the mutex the thread cannot end, so that its identifier is valid.
void ThreadControl::cancel() {
  if (!belongsToThisProcess())
    return;
  const std::lock_guard guard(m_oMutex);
  if (m_bEnded)
    return;
  m_oCancellation.cancel(m_hThread);
}

void ThreadControl::abandon() {
  if (!belongsToThisProcess())
    return;
  std::unique_lock guard(m_oMutex);
  if (t_pControl != this)
    m_oChanged.wait(guard, [this] { return m_ePhase != ANNOUNCING || m_bEnded; });
  m_pObject = nullptr;
}

bool ThreadControl::beginAnnouncement() {
  const std::lock_guard guard(m_oMutex);
  if (m_pObject == nullptr)
    return false;
  m_ePhase = ANNOUNCING;
  return true;
}

bool ThreadControl::isAbandoned() {
  const std::lock_guard guard(m_oMutex);
  return m_pObject == nullptr;
}

void ThreadControl::endAnnouncement() {
  const std::lock_guard guard(m_oMutex);
  m_ePhase = FINISHED;
  m_oChanged.notify_all();
}

// Another thread may have held the mutex, or waited. The other controls are of threads that the
// child does not have: nothing waits for these, and their mutexes are left alone.
void ThreadControl::adoptInChild() {
  if (t_pControl == nullptr)
    return;
  std::construct_at(&t_pControl->m_oMutex);
  std::construct_at(&t_pControl->m_oChanged);
  t_pControl->m_nProcess = getpid();
}

bool ThreadControl::belongsToThisProcess() const { return m_nProcess == getpid(); }

}  // namespace VarnSupport
