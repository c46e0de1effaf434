// Timers with the resolution of the system, on the monotonic clock.
//
//   VarnMonotonicTimer flush(std::chrono::milliseconds(250), [&] { buffer.flush(); });
//   flush.start();
//
// They use no signal and no interval timer: one thread of the library ("vsupt-loop") waits for the
// first deadline of all, and makes the calls, one after the other; with a VarnCallbackPool its
// threads make them. A clock that is set does not matter. Hundreds of thousands may be active.
//
// Safe from any thread, from their own functions too. What a function throws is written to the log
// at level 1, and a function that runs for more than a second is told there as well. In the child
// of a fork every timer is stopped, and start() begins it there. When the process exits, no call
// begins any more.
#ifndef VARNSUPPORT_VARNMONOTONICTIMER_H
#define VARNSUPPORT_VARNMONOTONICTIMER_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <utility>

#include "VarnSupport/VarnCallbackPool.h"
#include "VarnSupport/VarnExport.h"

namespace VarnSupport {

class VSUPT_EXPORT VarnMonotonicTimer {
 public:
  // Any duration of std::chrono. What is beyond some 292 years is that long.
  class Interval {
   public:
    template <typename Count, typename Period>
    Interval(std::chrono::duration<Count, Period> duration)
        : m_oNanoseconds(secondsOf(duration) >= kLongestSeconds ? std::chrono::nanoseconds::max()
                         : secondsOf(duration) > -kLongestSeconds
                             ? std::chrono::duration_cast<std::chrono::nanoseconds>(duration)
                             : -std::chrono::nanoseconds::max()) {}

    std::chrono::nanoseconds get() const { return m_oNanoseconds; }

   private:
    static constexpr double kLongestSeconds = 9.2e9;

    template <typename Duration>
    static double secondsOf(Duration duration) {
      return std::chrono::duration<double>(duration).count();
    }

    std::chrono::nanoseconds m_oNanoseconds;
  };

  // Gets the number of periods that passed without a call since the one before: the calls and these
  // numbers together are the periods since start(). Always 0 for a one-shot.
  using Function = std::function<void(std::uint64_t missed)>;

  // A timer that is stopped. `pool` must outlive it; null is the thread of the loop. Throws
  // VarnException when there is no function. What takes any arguments, as the result of std::bind()
  // does, fits both forms, which does not compile: a lambda fits one.
  VarnMonotonicTimer(Interval interval, Function function, VarnCallbackPool* pool = nullptr);
  VarnMonotonicTimer(Interval interval, std::function<void()> function,
                     VarnCallbackPool* pool = nullptr)
      : VarnMonotonicTimer(interval, withoutNumber(std::move(function)), pool) {}
  // Neither copied nor moved: its function may know its address.
  VarnMonotonicTimer(const VarnMonotonicTimer&) = delete;
  VarnMonotonicTimer& operator=(const VarnMonotonicTimer&) = delete;
  // Stops the timer, and waits for a call that is under way on another thread. No call runs
  // afterwards, but for one that it is called from.
  ~VarnMonotonicTimer();

  // (Re)starts the timer, with another interval if one is given, which stays. Its n-th deadline is
  // n intervals from now, however late the calls are. Throws VarnException for an interval that is
  // not above 0, and when the system refuses the thread of the loop.
  void start();
  void start(Interval interval);
  // (Re)starts it for one call: after its interval, or after `delay`, which may be 0. Throws
  // VarnException when the system refuses the thread of the loop.
  void startOnce();
  void startOnce(Interval delay);
  // Stops the timer; a call may be under way on another thread.
  void stop();
  // Stops the timer, and when it returns no call is under way, unless it is called from one.
  void stopAndWait();
  // Whether a call is to come. False inside the call of a one-shot.
  bool isActive() const;

 private:
  static Function withoutNumber(std::function<void()> function) {
    if (!function)
      return {};
    return [function = std::move(function)](std::uint64_t) { function(); };
  }

  struct State;

  const std::shared_ptr<State> m_pState;
};

}  // namespace VarnSupport

#endif
