// What the timer manager does under its list lock.
#ifndef SUPPORT_TIME_TIMERSTATE_H
#define SUPPORT_TIME_TIMERSTATE_H

#include <cstdint>
#include <ctime>

#include "VarnSupport/VarnTimer.h"
#include "runtime/CallUnderWay.h"
#include "runtime/ThreadScope.h"
#include "runtime/Uses.h"
#include "time/TimerSchedule.h"

namespace VarnSupport {

// A timer's set() that a pass has called.
using TimerCall = CallUnderWay<const VarnTimer*>;

// A pass, or the thread for one, that the calling thread is inside of. Each counts as a user of the
// manager, which cannot wait for the pass that it is shut down from.
class TimerUse : public ThreadScopeOf<TimerUse> {
 public:
  static int countHere() {
    int count = 0;
    for (const TimerUse* use = innermost(); use != nullptr; use = use->outer())
      ++count;
    return count;
  }
};

// The schedule, and the interval timer that is armed for its first deadline. All but the count of
// users is guarded by the list lock of the manager.
//
// A life of a timer: start() puts it into the schedule and has the interval timer armed, on the
// relay: SIGUSR1 -> reset(true). SIGALRM -> timeout() starts a VarnTimerThread, whose pass calls
// set() of what is due, round by round, and arms the interval timer for the rest.
struct VSUPT_LOCAL VarnTimerManager::State {
  // What the clocks say: the wall clock in seconds, the monotonic one in milliseconds.
  struct Moment {
    std::time_t wall;
    std::int64_t monotonic;
  };

  explicit State(VarnTimerManager& owner) : manager(owner) {}

  // For the steps of one operation, as the clocks are a good part of its price.
  Moment look();

  void insert(VarnTimer& timer, const Moment& now) VSUPT_UNCHECKED;
  void remove(VarnTimer& timer);
  // Takes the first timer that is due and was not taken in this round out of the schedule, or gives
  // a periodic one its next deadline; null when there is none.
  VarnTimer* takeDue();
  void endRound();

  // Sees to it that the interval timer is armed for the first deadline, by a signal unless it is
  // armed already; on the relay, for such a signal, directly. A deadline that has passed starts a
  // pass.
  void arm(const Moment& now, bool inSignal = false) VSUPT_UNCHECKED;
  void arm(bool inSignal = false) VSUPT_UNCHECKED { arm(look(), inSignal); }
  // Notes how far away the first deadline is; true when it has passed. Requires: there is one.
  bool isOverdue(const Moment& now) VSUPT_UNCHECKED;
  void startPass() VSUPT_UNCHECKED;

  // For the child of a fork, which has no interval timer.
  void renew() VSUPT_UNCHECKED;

  VarnTimerManager& manager;
  TimerSchedule schedule;
  // Passes under way and VarnTimerThreads.
  Uses users;
  // A VarnTimerThread has been started and has not come to its pass.
  bool passRequested = false;
  // SIGUSR1 has been sent and not been answered: whatever is first then will be armed.
  bool armRequested = false;
  // When the interval timer expires, in monotonic milliseconds; 0 while it is not armed.
  std::int64_t armedUntil = 0;

 private:
  void setIntervalTimer() VSUPT_UNCHECKED;
  std::int64_t nextExpiry(std::int64_t now) const VSUPT_UNCHECKED;

  // Wall-clock seconds minus monotonic seconds when they were last compared.
  std::time_t m_nClockOffset = 0;
};

}  // namespace VarnSupport

#endif
