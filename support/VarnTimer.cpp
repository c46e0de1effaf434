#include "VarnSupport/VarnTimer.h"

#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <functional>
#include <new>
#include <optional>
#include <utility>

#include "BriefHold.h"
#include "Cancellation.h"
#include "EventAccess.h"
#include "ForkHandlers.h"
#include "SignalRelay.h"
#include "TimerCallback.h"
#include "VarnSupport/VarnException.h"
#include "VarnSupport/VarnModule.h"

namespace VarnSupport {

namespace {

// Differences below this between the wall clock and the monotonic one are drift, not a clock that
// was set.
constexpr std::time_t kClockStepSeconds = 2;
// An expiry whose SIGALRM has not come after this long is handled without it.
constexpr long kLostSignalMilliseconds = 1000;
constexpr useconds_t kShutDownLookMicroseconds = 1000;
constexpr int kShutDownLooks = 3000;

// The manager that getInstance() made; never freed, as threads may still be inside it.
constinit VarnTimerManager* theManager = nullptr;
// The manager whose list lock a fork under way has taken.
constinit VarnTimerManager* lockedForFork = nullptr;

// What the calling thread itself counts for as a user of the manager: shutDown() cannot wait for
// the pass that it is called from.
constinit thread_local int t_nOwnUses = 0;

// True for an object on the stack of the calling thread, unless that is the main one: in a child of
// a fork from another thread, such an object is gone.
bool isOnThreadStack(const void* object) {
  struct Stack {
    Stack() {
      if (gettid() == getpid())
        return;
      pthread_attr_t attributes;
      if (pthread_getattr_np(pthread_self(), &attributes) != 0)
        return;
      void* lowest = nullptr;
      std::size_t size = 0;
      pthread_attr_getstack(&attributes, &lowest, &size);
      pthread_attr_destroy(&attributes);
      begin = static_cast<const char*>(lowest);
      end = begin + size;
    }
    const char* begin = nullptr;
    const char* end = nullptr;
  };
  static const thread_local Stack stack;
  const std::less<const void*> before;
  return !before(object, stack.begin) && before(object, stack.end);
}

// Coarse: no more than one tick of the system behind, and cheap.
std::int64_t monotonicMilliseconds() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  return std::int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

}  // namespace

// What the manager needs beyond its interface. Guarded by the list lock, but for the count of
// users.
struct VarnTimerManager::State {
  // When the interval timer expires, in monotonic milliseconds; 0 while it is not armed.
  std::int64_t armedUntil = 0;
  // SIGUSR1 has been sent and not been answered: whatever is first then will be armed.
  bool armRequested = false;
  // Wall-clock seconds minus monotonic seconds when they were last compared.
  std::time_t clockOffset = 0;
  // A VarnTimerThread has been started and has not come to its pass.
  bool passRequested = false;
  // Timers on the stacks of the threads that started them.
  std::vector<std::pair<VarnTimer*, pthread_t>> stackTimers;
  // Passes under way and VarnTimerThreads; not guarded.
  std::atomic<int> users{0};
};

// One expiry pass, from its beginning to the arming of the next, however it ends.
class VarnTimerManager::Pass {
 public:
  explicit Pass(VarnTimerManager& manager) : m_oManager(manager) {
    const VarnCriticalSection guard(m_oManager.m_oListLock, true);
    m_bBegun = !m_oManager.m_bBusy;
    m_oManager.m_bBusy = true;
    m_oManager.m_pState->passRequested = false;
    ++t_nOwnUses;
    ++m_oManager.m_pState->users;
  }
  Pass(const Pass&) = delete;
  Pass& operator=(const Pass&) = delete;
  ~Pass() {
    {
      const VarnCriticalSection guard(m_oManager.m_oListLock, true);
      if (m_bBegun) {
        m_oManager.m_bBusy = false;
        m_oManager.armLocked(false);
      }
    }
    --t_nOwnUses;
    --m_oManager.m_pState->users;
  }

  // False when another pass was under way.
  bool hasBegun() const { return m_bBegun; }

 private:
  VarnTimerManager& m_oManager;
  bool m_bBegun;
};

void VarnTimer::TimeInterval::set(long wholeSeconds, long thousandths) {
  seconds = static_cast<std::int32_t>(static_cast<unsigned long>(wholeSeconds) +
                                      static_cast<unsigned long>(thousandths / 1000));
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

VarnTimer::VarnTimer() = default;

VarnTimer::VarnTimer(long milliseconds, bool oneShot) : VarnTimer(0, milliseconds, oneShot) {}

VarnTimer::VarnTimer(long seconds, long milliseconds, bool oneShot)
    : m_oInterval(seconds, milliseconds), m_bOneShot(oneShot) {}

VarnTimer::~VarnTimer() { VarnTimer::stopAndWait(); }

void VarnTimer::reset() {
  TimeInterval interval;
  try {
    const VarnCriticalSection guard(VarnTimerManager::getInstance().m_oListLock, true);
    interval = m_oInterval;
  } catch (const VarnException&) {
    return;  // the timers have been shut down
  }
  start(interval.seconds, interval.milliseconds, m_bOneShot);
}

void VarnTimer::start(long milliseconds, bool oneShot) { start(0, milliseconds, oneShot); }

void VarnTimer::start(long seconds, long milliseconds, bool oneShot) {
  const CancellationGuard closed;
  try {
    VarnTimerManager& manager = VarnTimerManager::getInstance();
    const VarnCriticalSection guard(manager.m_oListLock, true);
    if (m_bActive)
      manager.unlinkLocked(*this);
    m_oInterval.set(seconds, milliseconds);
    m_bOneShot = oneShot;
    if (seconds >= 1 || milliseconds >= 1)
      manager.addImpl(*this);
    manager.armLocked(false);
  } catch (const VarnException&) {
    // The timers have been shut down.
    m_oInterval.set(seconds, milliseconds);
    m_bOneShot = oneShot;
  }
}

void VarnTimer::stop() {
  const CancellationGuard closed;
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
    TimerCallback::await(*this);
  } while (!VarnTimerManager::isAtRest(*this));
}

constinit std::atomic<VarnTimerManager*> VarnTimerManager::m_pThis{nullptr};
constinit std::atomic<bool> VarnTimerManager::m_bExiting{false};

VarnTimerManager& VarnTimerManager::getInstance() {
  if (m_bExiting)
    throw VarnException("VarnTimerManager::getInstance: Exiting system", 0);
  if (m_pThis == nullptr) {
    const CancellationGuard closed;
    const VarnCriticalSection guard(globalSection(), true);
    if (theManager == nullptr)
      theManager = new VarnTimerManager;
    if (m_pThis == nullptr)
      m_pThis = theManager;
  }
  return *m_pThis;
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
  if (manager == nullptr || m_bExiting)
    return true;
  const VarnCriticalSection guard(manager->m_oListLock, true);
  return !timer.m_bActive && !TimerCallback::isUnderWay(timer);
}

// The locks are made here, as a pass could not report that there is no memory for them.
VarnTimerManager::VarnTimerManager() : m_pState(std::make_unique<State>()) {
  m_oListLock.init();
  m_oPassLock.init();
}

VarnTimerManager::~VarnTimerManager() { shutDown(); }

// A callback may take for ever: the process must end nevertheless. One that ends the process itself
// keeps all other passes waiting, and there is nothing to wait for. From here on timers do not
// leave the list when they are destroyed, so none may be in it.
void VarnTimerManager::shutDown() {
  m_bExiting = true;
  cancelTimer();
  {
    const VarnCriticalSection guard(m_oListLock, true);
    m_vTimers.clear();
    m_pState->stackTimers.clear();
  }
  for (int i = 0; i < kShutDownLooks && t_nOwnUses == 0 && m_pState->users > 0; ++i)
    usleep(kShutDownLookMicroseconds);
}

void VarnTimerManager::add(VarnTimer& timer) {
  const CancellationGuard closed;
  const VarnCriticalSection guard(m_oListLock, true);
  addImpl(timer);
  armLocked(false);
}

void VarnTimerManager::remove(VarnTimer& timer) {
  const CancellationGuard closed;
  const VarnCriticalSection guard(m_oListLock, true);
  unlinkLocked(timer);
  if (m_vTimers.empty())
    cancelTimer();
  else
    armLocked(false);
}

void VarnTimerManager::addImpl(VarnTimer& timer) {
  if (m_bExiting)
    return;
  if (isOnThreadStack(&timer))
    m_pState->stackTimers.emplace_back(&timer, pthread_self());
  try {
    insertLocked(timer);
  } catch (const std::bad_alloc&) {
    unlinkLocked(timer);
    throw;
  }
}

void VarnTimerManager::reset(bool inSignal) {
  const CancellationGuard closed;
  const VarnCriticalSection guard(m_oListLock, true);
  if (inSignal)
    m_pState->armRequested = false;
  armLocked(inSignal);
}

void VarnTimerManager::elapsed() {
  const CancellationGuard closed;
  const VarnCriticalSection guard(m_oPassLock, true);
  const Pass pass(*this);
  if (!pass.hasBegun())
    return;
  // Callbacks that take longer than a period leave more to do: another round, not another level.
  bool overdue = true;
  while (overdue && !m_bExiting) {
    {
      const VarnCriticalSection list(m_oListLock, true);
      for (VarnTimer* const timer : m_vTimers)
        timer->m_bVisited = false;
    }
    while (setNextDue()) {
    }
    const VarnCriticalSection list(m_oListLock, true);
    overdue = !m_vTimers.empty() && isOverdueLocked();
  }
}

void VarnTimerManager::timeout() {
  const CancellationGuard closed;
  const VarnCriticalSection guard(m_oListLock, true);
  m_pState->armedUntil = 0;
  startPassLocked();
}

void VarnTimerManager::cancelTimer() {
  const CancellationGuard closed;
  m_bCancel = true;
  {
    const VarnCriticalSection guard(m_oListLock, true);
    EventAccess::raise(m_oEvent);
  }
  m_bCancel = false;
}

// Sets the first timer that is due and was not visited in this round; false when there is none.
bool VarnTimerManager::setNextDue() {
  std::optional<TimerCallback> callback;
  VarnTimer* timer = nullptr;
  {
    const VarnCriticalSection guard(m_oListLock, true);
    timer = takeDueLocked();
    if (timer == nullptr)
      return false;
    callback.emplace(*timer);
  }
  // From here on the timer may be gone as soon as set() has returned.
  try {
    timer->set();
  } catch (...) {
    if (std::current_exception() == nullptr)
      throw;
  }
  return true;
}

// Takes the timer that setNextDue() is to set out of the list, and puts a periodic one back.
VarnTimer* VarnTimerManager::takeDueLocked() {
  if (m_bExiting)
    return nullptr;
  VarnTimer::TimeInterval now;
  now.seconds = static_cast<std::int32_t>(nowLocked());
  for (VarnTimer* const timer : m_vTimers) {
    if (timer->m_bVisited)
      continue;
    timer->m_bVisited = true;
    if (!(timer->m_oDeadline <= now))
      continue;
    if (timer->m_bOneShot) {
      unlinkLocked(*timer);
    } else {
      std::erase(m_vTimers, timer);
      insertLocked(*timer);
    }
    return timer;
  }
  return nullptr;
}

void VarnTimerManager::insertLocked(VarnTimer& timer) {
  timer.m_oDeadline.seconds = static_cast<std::int32_t>(nowLocked() + timer.m_oInterval.seconds);
  timer.m_oDeadline.milliseconds = timer.m_oInterval.milliseconds;
  const auto position =
      std::find_if(m_vTimers.begin(), m_vTimers.end(),
                   [&](const VarnTimer* other) { return timer.m_oDeadline <= other->m_oDeadline; });
  m_vTimers.insert(position, &timer);
  timer.m_bActive = true;
}

void VarnTimerManager::unlinkLocked(VarnTimer& timer) {
  std::erase_if(m_pState->stackTimers, [&](const auto& entry) { return entry.first == &timer; });
  std::erase(m_vTimers, &timer);
  timer.m_bActive = false;
}

// The wall-clock time. When that clock was set, all deadlines move with it: a timer measures how
// much time passes, as the interval timer does.
std::time_t VarnTimerManager::nowLocked() {
  const std::time_t now = std::time(nullptr);
  const std::time_t offset = now - monotonicMilliseconds() / 1000;
  const std::time_t step = offset - m_pState->clockOffset;
  if (std::abs(step) >= kClockStepSeconds || m_vTimers.empty()) {
    for (VarnTimer* const timer : m_vTimers)
      timer->m_oDeadline.seconds += static_cast<std::int32_t>(step);
    m_pState->clockOffset = offset;
  }
  return now;
}

// Looks at the first deadline, which must exist, and notes how far away it is.
bool VarnTimerManager::isOverdueLocked() {
  const std::time_t now = nowLocked();
  const VarnTimer::TimeInterval& first = m_vTimers.front()->m_oDeadline;
  m_oNextExpiry.seconds = static_cast<std::int32_t>(first.seconds - now);
  m_oNextExpiry.milliseconds = first.milliseconds;
  return m_oNextExpiry.seconds < 0 ||
         (m_oNextExpiry.seconds == 0 && m_oNextExpiry.milliseconds <= 0);
}

void VarnTimerManager::armLocked(bool inSignal) {
  if (m_bBusy || m_vTimers.empty() || m_bExiting)
    return;
  State& state = *m_pState;
  if (isOverdueLocked()) {
    startPassLocked();
  } else if (inSignal) {
    setIntervalTimerLocked();
  } else if (!state.armRequested &&
             (state.armedUntil == 0 || state.armedUntil > nextExpiryLocked())) {
    SignalRelay::rememberCallersMask();
    state.armRequested = SignalRelay::ensureRunning();
    kill(getpid(), SIGUSR1);
    SignalRelay::post(SIGUSR1);
  }
}

// One pass that is yet to begin is enough, however many signals come. If there is no thread to be
// had, the interval timer tries again.
void VarnTimerManager::startPassLocked() {
  if (m_pState->passRequested)
    return;
  m_pState->passRequested = VarnTimerThread::launchFor(*this);
  if (!m_pState->passRequested) {
    m_oNextExpiry.set(1, 0);
    setIntervalTimerLocked();
  }
}

std::int64_t VarnTimerManager::nextExpiryLocked() const {
  return monotonicMilliseconds() + std::int64_t{m_oNextExpiry.seconds} * 1000 +
         (m_oNextExpiry.milliseconds > 0 ? 1 : 0);
}

// Arms the interval timer for the next expiry. The milliseconds are used as microseconds: expiries
// fall on whole seconds, and callers rely on it.
void VarnTimerManager::setIntervalTimerLocked() {
  itimerval value{};
  value.it_value.tv_sec = m_oNextExpiry.seconds;
  value.it_value.tv_usec = std::max(m_oNextExpiry.milliseconds, 0);
  setitimer(ITIMER_REAL, &value, nullptr);
  SignalRelay::expectWithin(SIGALRM, m_oNextExpiry.seconds * 1000L + kLostSignalMilliseconds);
  m_pState->armedUntil = nextExpiryLocked();
}

VarnTimerThread::VarnTimerThread(VarnTimerManager& manager) : m_oManager(manager) {
  ++m_oManager.m_pState->users;
}

VarnTimerThread::~VarnTimerThread() { --m_oManager.m_pState->users; }

int VarnTimerThread::run() {
  const CancellationGuard closed;
  ++t_nOwnUses;  // for the rest of this thread
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
  const VarnCriticalSection guard(m_oListLock, true);
  m_pState->passRequested = false;
  armLocked(false);
}

void ForkHandlers::prepareTimers() {
  lockedForFork = VarnTimerManager::m_pThis;
  if (lockedForFork != nullptr)
    lockedForFork->m_oListLock.lock();
  TimerCallback::lockList();
}

void ForkHandlers::releaseTimers(tSide side) {
  if (side == CHILD) {
    while (VarnTimer* const timer = TimerCallback::dropLost())
      renew(*timer);
    if (lockedForFork != nullptr)
      renew(*lockedForFork);
    else if (theManager != nullptr)
      leaveManagerBehind();
  }
  TimerCallback::unlockList();
  if (lockedForFork != nullptr)
    lockedForFork->m_oListLock.unlock();
}

// Another thread made the manager after prepareTimers(), and may have been changing it.
void ForkHandlers::leaveManagerBehind() {
  keepForever(theManager);
  theManager = nullptr;
  VarnTimerManager::m_pThis = nullptr;
}

// A child has no interval timer. One that it set at once would survive an exec, so the relay looks
// after the first expiry; from then on all is as usual.
void ForkHandlers::renew(VarnTimerManager& manager) {
  if (renewIfLost(manager.m_oPassLock))
    manager.m_bBusy = false;
  VarnTimerManager::State& state = *manager.m_pState;
  const auto isGone = [](const auto& entry) {
    return pthread_equal(entry.second, pthread_self()) == 0;
  };
  for (const auto& entry : state.stackTimers) {
    if (isGone(entry))
      std::erase(manager.m_vTimers, entry.first);
  }
  std::erase_if(state.stackTimers, isGone);
  state.armedUntil = 0;
  state.armRequested = false;
  state.passRequested = false;
  state.users = t_nOwnUses;
  if (!manager.m_bBusy && !manager.m_vTimers.empty()) {
    const bool overdue = manager.isOverdueLocked();
    SignalRelay::expectWithin(SIGALRM, overdue ? 0 : manager.m_oNextExpiry.seconds * 1000L);
  }
}

void VSUPTInitVarnTimer() {
  SignalRelay::route(SIGALRM, [](int) {
    try {
      VarnTimerManager::getInstance().timeout();
    } catch (const VarnException&) {
      // The timers have been shut down.
    }
  });
  SignalRelay::route(SIGUSR1, [](int) {
    try {
      VarnTimerManager::getInstance().reset(true);
    } catch (const VarnException&) {
      // The timers have been shut down.
    }
  });
}

void VSUPTFinitVarnTimer() {
  VarnTimerManager::deleteInstance();
  VarnTimerManager::m_bExiting = true;
}

}  // namespace VarnSupport
