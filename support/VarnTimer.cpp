// Lock order: pass lock, list lock. A pass holds the first for all of its length, so that passes do
// not overlap, and the second whenever it looks at the schedule, but never while it calls set(). A
// timer may therefore be started, stopped and destroyed in its own callback; on another thread its
// destruction waits for the callback that is under way (TimerCall).
//
// stop() only takes the timer out of the schedule: a callback that has begun goes on, and may
// start the timer again. The destructor, and whoever must be sure of the end, stops and waits
// until neither is the case (stopAndWait()).
//
// The manager is made by the first timer that needs it and never freed, as a pass, or a thread
// that starts a timer, may be inside it at any moment of the exit. In the child of a fork the
// timers that were started go on; those on the stacks of vanished threads leave the schedule
// first.
#include "VarnSupport/VarnTimer.h"

#include <algorithm>
#include <atomic>
#include <csignal>
#include <limits>
#include <new>
#include <optional>

#include "VarnSupport/VarnException.h"
#include "VarnSupport/VarnModule.h"
#include "locks/BriefHold.h"
#include "runtime/Cancellation.h"
#include "runtime/Fork.h"
#include "runtime/ProcessExit.h"
#include "runtime/SignalRelay.h"
#include "runtime/StackObjects.h"
#include "threads/EventState.h"
#include "time/TimerState.h"

namespace VarnSupport {

namespace {

// The manager that getInstance() made; never freed, as threads may still be inside it.
constinit VarnTimerManager* theManager = nullptr;
using StackTimers = StackObjects<VarnTimer>;

// The manager whose list lock a fork under way has taken.
constinit VarnTimerManager* lockedForFork = nullptr;

}  // namespace

// Whole seconds beyond the field are the farthest that it has.
void VarnTimer::TimeInterval::set(long wholeSeconds, long thousandths) {
  using Limits = std::numeric_limits<std::int32_t>;
  long sum = 0;
  if (__builtin_add_overflow(wholeSeconds, thousandths / 1000, &sum))
    sum = wholeSeconds;
  seconds = static_cast<std::int32_t>(std::clamp<long>(sum, Limits::min(), Limits::max()));
  milliseconds = static_cast<std::int32_t>(thousandths % 1000);
}

bool VarnTimer::TimeInterval::operator<(const TimeInterval& other) const {
  return seconds < other.seconds || (seconds == other.seconds && seconds > milliseconds);
}

bool VarnTimer::TimeInterval::operator==(const TimeInterval& other) const {
  return seconds == other.seconds && seconds == milliseconds;
}

bool VarnTimer::TimeInterval::operator<=(const TimeInterval& other) const {
  return *this < other || *this == other;
}

VarnTimer::VarnTimer() : VarnTimer(0, 0, false) {}

VarnTimer::VarnTimer(long milliseconds, bool oneShot) : VarnTimer(0, milliseconds, oneShot) {}

VarnTimer::VarnTimer(long seconds, long milliseconds, bool oneShot)
    : m_oInterval(seconds, milliseconds), m_bOneShot(oneShot) {
  const CancellationGuard closed;
  StackTimers::note(*this);
  ProcessExit::noteObject();
}

VarnTimer::~VarnTimer() {
  const QuietCancellationGuard closed;
  VarnTimer::stopAndWait();
  TimerCall::forget(this);
  StackTimers::forget(*this);
}

void VarnTimer::reset() {
  TimeInterval interval;
  bool oneShot = false;
  {
    const CancellationGuard closed;
    std::optional<VarnCriticalSection> guard;
    if (VarnTimerManager* const manager = VarnTimerManager::m_pThis)
      guard.emplace(manager->m_oListLock, true);
    interval = m_oInterval;
    oneShot = m_bOneShot;
  }
  start(interval.seconds, interval.milliseconds, oneShot);
}

void VarnTimer::start(long milliseconds, bool oneShot) { start(0, milliseconds, oneShot); }

void VarnTimer::start(long seconds, long milliseconds, bool oneShot) {
  const CancellationGuard closed;
  try {
    VarnTimerManager& manager = VarnTimerManager::getInstance();
    const VarnCriticalSection guard(manager.m_oListLock);
    VarnTimerManager::State& state = *manager.m_pState;
    state.remove(*this);
    m_oInterval.set(seconds, milliseconds);
    m_bOneShot = oneShot;
    const VarnTimerManager::State::Moment now = state.look();
    if ((seconds >= 1 || milliseconds >= 1) && !VarnTimerManager::m_bExiting)
      state.insert(*this, now);
    state.arm(now);
  } catch (const VarnException&) {
    // The timers have been shut down.
    m_oInterval.set(seconds, milliseconds);
    m_bOneShot = oneShot;
  }
}

void VarnTimer::stop() {
  const QuietCancellationGuard closed;
  if (!m_bActive)
    return;
  try {
    VarnTimerManager::getInstance().remove(*this);
  } catch (const VarnException&) {
    // The timers have been shut down: no pass will look at this one.
  }
}

bool VarnTimer::isOneShot() const { return m_bOneShot; }

// A callback that is under way may start the timer again.
void VarnTimer::stopAndWait() {
  const QuietCancellationGuard closed;
  do {
    VarnTimer::stop();
    TimerCall::await(this);
  } while (!VarnTimerManager::isAtRest(*this));
}

constinit std::atomic<VarnTimerManager*> VarnTimerManager::m_pThis{nullptr};
constinit std::atomic<bool> VarnTimerManager::m_bExiting{false};

// The pointer is read once: a shut-down on another thread clears it at any moment.
VarnTimerManager& VarnTimerManager::getInstance() {
  if (m_bExiting)
    throw VarnException("VarnTimerManager::getInstance: Exiting system", 0);
  VarnTimerManager* manager = m_pThis;
  if (manager != nullptr)
    return *manager;
  const CancellationGuard closed;
  const VarnCriticalSection guard(globalSection());
  if (theManager == nullptr)
    theManager = new VarnTimerManager;
  manager = theManager;
  if (m_pThis == nullptr)
    m_pThis = manager;
  return *manager;
}

void VarnTimerManager::deleteInstance() {
  const CancellationGuard closed;
  VarnTimerManager* const manager = m_pThis.exchange(nullptr);
  if (manager != nullptr)
    manager->shutDown();
}

// Under the list lock no callback begins, and none starts a timer.
bool VarnTimerManager::isAtRest(const VarnTimer& timer) {
  VarnTimerManager* const manager = m_pThis;
  if (manager == nullptr || m_bExiting || ProcessExit::hasBegun())
    return true;
  const VarnCriticalSection guard(manager->m_oListLock);
  return !timer.m_bActive && !TimerCall::isUnderWay(&timer);
}

// The locks are made here, as a pass could not report that there is no memory for them.
VarnTimerManager::VarnTimerManager() : m_pState(std::make_unique<State>(*this)) {
  m_oListLock.init();
  m_oPassLock.init();
}

VarnTimerManager::~VarnTimerManager() { shutDown(); }

// Does not wait for ever: a callback that never returns must not keep the process alive. Does not
// wait at all inside a callback, as all other passes wait for that. Empties the schedule, because
// from here on a timer that is destroyed does not take itself out.
void VarnTimerManager::shutDown() {
  {
    const VarnCriticalSection guard(m_oListLock);
    m_bExiting = true;
    m_pState->schedule.clear();
  }
  cancelTimer();
  if (TimerUse::countHere() == 0)
    m_pState->users.awaitOthers(0, ProcessExit::latestEnd());
}

void VarnTimerManager::add(VarnTimer& timer) {
  const CancellationGuard closed;
  const VarnCriticalSection guard(m_oListLock);
  addImpl(timer);
  m_pState->arm();
}

void VarnTimerManager::remove(VarnTimer& timer) {
  const QuietCancellationGuard closed;
  const VarnCriticalSection guard(m_oListLock);
  m_pState->remove(timer);
  if (m_pState->schedule.isEmpty())
    cancelTimer();
  else
    m_pState->arm();
}

void VarnTimerManager::addImpl(VarnTimer& timer) {
  if (m_bExiting)
    return;
  m_pState->remove(timer);
  m_pState->insert(timer, m_pState->look());
}

void VarnTimerManager::reset(bool inSignal) {
  const CancellationGuard closed;
  const VarnCriticalSection guard(m_oListLock);
  if (inSignal)
    m_pState->armRequested = false;
  m_pState->arm(inSignal);
}

void VarnTimerManager::timeout() {
  const CancellationGuard closed;
  const VarnCriticalSection guard(m_oListLock);
  m_pState->armedUntil = 0;
  m_pState->startPass();
}

void VarnTimerManager::cancelTimer() {
  const QuietCancellationGuard closed;
  m_bCancel = true;
  {
    const VarnCriticalSection guard(m_oListLock);
    stateOf(m_oEvent).raise();
  }
  m_bCancel = false;
}

struct VarnTimerManager::Fork {
  static void prepare() VSUPT_UNCHECKED {
    lockedForFork = m_pThis;
    if (lockedForFork != nullptr)
      lockedForFork->m_oListLock.lock();
    TimerCall::lockList();
    StackTimers::lock();
  }

  static void release(ForkSide side) VSUPT_UNCHECKED {
    if (side == ForkSide::CHILD) {
      TimerCall::forgetLost();
      if (lockedForFork != nullptr)
        renew(*lockedForFork);
      else if (theManager != nullptr)
        leaveBehind();
    }
    StackTimers::unlock();
    TimerCall::unlockList();
    if (lockedForFork != nullptr)
      lockedForFork->m_oListLock.unlock();
  }

 private:
  // Another thread made the manager after prepare(), and may have been changing it.
  static void leaveBehind() {
    keepForever(theManager);
    theManager = nullptr;
    m_pThis = nullptr;
  }

  // Timers on the stacks of vanished threads stop, and so does a pass of one.
  static void renew(VarnTimerManager& manager) VSUPT_UNCHECKED {
    while (VarnTimer* const timer = StackTimers::takeLost())
      manager.m_pState->remove(*timer);
    if (BriefHold::renewIfLost(manager.m_oPassLock)) {
      manager.m_bBusy = false;
      manager.m_pState->endRound();
    }
    manager.m_pState->renew();
  }
};

constinit const ForkPart timerFork{&VarnTimerManager::Fork::prepare,
                                   &VarnTimerManager::Fork::release};

// Without a manager there is no timer. The relay makes none: it would wait for the global section,
// which users may hold.
void VSUPTInitVarnTimer() {
  SignalRelay::route(SIGALRM, [](int) {
    if (VarnTimerManager* const manager = VarnTimerManager::m_pThis)
      manager->timeout();
  });
  SignalRelay::route(SIGUSR1, [](int) {
    if (VarnTimerManager* const manager = VarnTimerManager::m_pThis)
      manager->reset(true);
  });
}

void VSUPTFinitVarnTimer() {
  VarnTimerManager::deleteInstance();
  VarnTimerManager::m_bExiting = true;
}

}  // namespace VarnSupport
