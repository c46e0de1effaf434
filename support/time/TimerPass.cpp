// Expiry passes, and the threads that run them.
//
// A pass holds the pass lock for all of its length, so that passes do not overlap, and the list
// lock whenever it looks at the schedule, but never while it calls set().
#include <pthread.h>

#include <memory>
#include <new>
#include <optional>

#include "VarnSupport/VarnTimer.h"
#include "runtime/Cancellation.h"
#include "runtime/ProcessExit.h"
#include "runtime/SignalRelay.h"
#include "threads/Uncaught.h"
#include "time/TimerState.h"

namespace VarnSupport {

// One expiry pass, from its beginning to the arming of the next, however it ends.
class VarnTimerManager::Pass {
 public:
  explicit Pass(VarnTimerManager& manager) : m_oManager(manager) {
    const VarnCriticalSection guard(m_oManager.m_oListLock);
    m_bBegun = !m_oManager.m_bBusy;
    m_oManager.m_bBusy = true;
    m_oManager.m_pState->passRequested = false;
    m_oManager.m_pState->users.begin();
  }
  Pass(const Pass&) = delete;
  Pass& operator=(const Pass&) = delete;
  ~Pass() {
    {
      const VarnCriticalSection guard(m_oManager.m_oListLock);
      if (m_bBegun) {
        m_oManager.m_pState->endRound();
        m_oManager.m_bBusy = false;
        m_oManager.m_pState->arm();
      }
    }
    m_oManager.m_pState->users.end();
  }

  // False when another pass was under way.
  bool hasBegun() const { return m_bBegun; }

  // Sets all timers that are due; true when more have become due meanwhile.
  bool runRound() {
    while (setNextDue()) {
    }
    const VarnCriticalSection guard(m_oManager.m_oListLock);
    State& state = *m_oManager.m_pState;
    state.endRound();
    return !state.schedule.isEmpty() && state.isOverdue(state.look());
  }

 private:
  // False when no timer is due.
  bool setNextDue() {
    std::optional<TimerCall> call;
    VarnTimer* timer = nullptr;
    {
      const VarnCriticalSection guard(m_oManager.m_oListLock);
      timer = m_oManager.m_pState->takeDue();
      if (timer == nullptr)
        return false;
      call.emplace(timer);
    }
    ProcessExit::watch();
    // From here on the timer may be gone as soon as set() has returned.
    try {
      timer->set();
    } catch (...) {
      passOnCancellation();
      Uncaught::tell([] { return "a timer"; });
    }
    return true;
  }

  const TimerUse m_oUse;
  VarnTimerManager& m_oManager;
  bool m_bBegun;
};

// Callbacks that take longer than a period leave more to do: another round, not another level.
void VarnTimerManager::elapsed() {
  const CancellationGuard closed;
  const VarnCriticalSection guard(m_oPassLock);
  Pass pass(*this);
  while (pass.hasBegun() && pass.runRound() && !m_bExiting) {
  }
}

VarnTimerThread::VarnTimerThread(VarnTimerManager& manager) : m_oManager(manager) {
  m_oManager.m_pState->users.begin();
}

VarnTimerThread::~VarnTimerThread() { m_oManager.m_pState->users.end(); }

int VarnTimerThread::run() {
  const CancellationGuard closed;
  const TimerUse use;
  pthread_setname_np(pthread_self(), "vsupt-timer");
  SignalRelay::adoptCallersMask();
  if (VarnTimerManager::m_bExiting)
    return 0;
  if (m_oManager.m_bCancel) {
    m_oManager.declinePass();
    return 0;
  }
  m_oManager.elapsed();
  return 0;
}

bool VarnTimerThread::launchFor(VarnTimerManager& manager) {
  try {
    auto thread = std::make_unique<VarnTimerThread>(manager);
    thread->setMarkForDeath();
    if (!thread->launch())
      return false;
    static_cast<void>(thread.release());  // it may be gone already
    return true;
  } catch (const std::bad_alloc&) {
    return false;
  }
}

// What a pass that was skipped would have done at its end.
void VarnTimerManager::declinePass() {
  const CancellationGuard closed;
  const VarnCriticalSection guard(m_oListLock);
  m_pState->passRequested = false;
  m_pState->arm();
}

}  // namespace VarnSupport
