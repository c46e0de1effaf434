// There is one interval timer in a process, for the first deadline alone. Whoever changes the
// schedule does not set it: the relay does, told by SIGUSR1, and only if it is not armed or armed
// for later than needed. When it expires, SIGALRM has the relay start a thread for the pass, since
// callbacks are code of users and take as long as they like. At the end of a pass the timer is
// armed again.
//
// Signals get lost: programs block them, replace the handlers, or set the interval timer
// themselves. The relay therefore also expects an expiry, and acts a second late without one.
#include "time/TimerState.h"

#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <csignal>
#include <cstdlib>
#include <limits>

#include "runtime/SignalRelay.h"

namespace VarnSupport {

namespace {

// Differences below this between the wall clock and the monotonic one are drift, not a clock that
// was set.
constexpr std::time_t kClockStepSeconds = 2;
// An expiry whose SIGALRM has not come after this long is handled without it.
constexpr long kLostSignalMilliseconds = 1000;

// Coarse: no more than one tick of the system behind, and cheap.
std::int64_t coarseMilliseconds() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  return std::int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

}  // namespace

// The timer keeps its slot where its deadline would be.
void VarnTimerManager::State::insert(VarnTimer& timer, const Moment& now) {
  assert(!timer.m_bActive);
  if (!manager.m_bBusy)
    timer.m_bVisited = false;
  timer.m_oDeadline.seconds =
      schedule.insert(timer, now.wall + timer.m_oInterval.seconds, timer.m_bVisited);
  timer.m_bActive = true;
}

// A shut-down has emptied the schedule.
void VarnTimerManager::State::remove(VarnTimer& timer) {
  if (!timer.m_bActive)
    return;
  if (!m_bExiting)
    schedule.remove(timer.m_oDeadline.seconds);
  timer.m_bActive = false;
}

VarnTimer* VarnTimerManager::State::takeDue() {
  if (m_bExiting)
    return nullptr;
  const Moment now = look();
  VarnTimer* const timer = schedule.firstDue(now.wall);
  if (timer == nullptr)
    return nullptr;
  timer->m_bVisited = true;
  if (timer->m_bOneShot)
    remove(*timer);
  else
    schedule.repeat(timer->m_oDeadline.seconds, now.wall + timer->m_oInterval.seconds);
  return timer;
}

void VarnTimerManager::State::endRound() {
  schedule.endRound([](VarnTimer& timer) { timer.m_bVisited = false; });
}

// When the wall clock was set, all deadlines move with it: a timer measures how much time passes,
// as the interval timer does.
VarnTimerManager::State::Moment VarnTimerManager::State::look() {
  const Moment now{std::time(nullptr), coarseMilliseconds()};
  const std::time_t offset = now.wall - now.monotonic / 1000;
  const std::time_t step = offset - m_nClockOffset;
  if (std::abs(step) >= kClockStepSeconds || schedule.isEmpty()) {
    schedule.moveBy(step);
    m_nClockOffset = offset;
  }
  return now;
}

bool VarnTimerManager::State::isOverdue(const Moment& now) {
  constexpr std::int64_t farthest = std::numeric_limits<std::int32_t>::max();
  const std::int64_t left = schedule.firstDeadline() - now.wall;
  VarnTimer::TimeInterval& expiry = manager.m_oNextExpiry;
  expiry.seconds = static_cast<std::int32_t>(std::clamp(left, -farthest, farthest));
  expiry.milliseconds = schedule.first().m_oInterval.milliseconds;
  return left < 0 || (left == 0 && expiry.milliseconds <= 0);
}

void VarnTimerManager::State::arm(const Moment& now, bool inSignal) {
  if (manager.m_bBusy || schedule.isEmpty() || m_bExiting)
    return;
  if (isOverdue(now)) {
    startPass();
  } else if (inSignal) {
    setIntervalTimer();
  } else if (!armRequested && (armedUntil == 0 || armedUntil > nextExpiry(now.monotonic))) {
    SignalRelay::rememberCallersMask();
    armRequested = SignalRelay::ensureRunning();
    kill(getpid(), SIGUSR1);
    SignalRelay::post(SIGUSR1);
  }
}

// One pass that is yet to begin is enough, however many signals come. If there is no thread to be
// had, the interval timer tries again.
void VarnTimerManager::State::startPass() {
  if (passRequested)
    return;
  SignalRelay::rememberCallersMask();
  passRequested = VarnTimerThread::launchFor(manager);
  if (!passRequested) {
    manager.m_oNextExpiry.set(1, 0);
    setIntervalTimer();
  }
}

std::int64_t VarnTimerManager::State::nextExpiry(std::int64_t now) const {
  const VarnTimer::TimeInterval& expiry = manager.m_oNextExpiry;
  return now + std::int64_t{expiry.seconds} * 1000 + (expiry.milliseconds > 0 ? 1 : 0);
}

// Arms the interval timer for the next expiry. The milliseconds are used as microseconds: expiries
// fall on whole seconds, and callers rely on it.
void VarnTimerManager::State::setIntervalTimer() {
  const VarnTimer::TimeInterval& expiry = manager.m_oNextExpiry;
  itimerval value{};
  value.it_value.tv_sec = expiry.seconds;
  value.it_value.tv_usec = std::max(expiry.milliseconds, 0);
  setitimer(ITIMER_REAL, &value, nullptr);
  SignalRelay::expectWithin(SIGALRM, expiry.seconds * 1000L + kLostSignalMilliseconds);
  armedUntil = nextExpiry(coarseMilliseconds());
}

// An interval timer that the child set at once would survive an exec, so the relay looks after the
// first expiry; from then on all is as usual.
void VarnTimerManager::State::renew() {
  armedUntil = 0;
  armRequested = false;
  passRequested = false;
  users.forgetOthers(TimerUse::countHere());
  if (!manager.m_bBusy && !schedule.isEmpty())
    SignalRelay::expectWithin(SIGALRM,
                              isOverdue(look()) ? 0 : manager.m_oNextExpiry.seconds * 1000L);
}

}  // namespace VarnSupport
