// An active timer has a deadline in the heap of the loop, but while it is being called, or waits
// for that: it goes back when the call has ended, with the next deadline of its row. Deadlines that
// passed meanwhile make one call, which is told their number.
#include "VarnSupport/VarnMonotonicTimer.h"

#include <cassert>
#include <optional>
#include <utility>

#include "VarnSupport/VarnException.h"
#include "loop/Callee.h"
#include "loop/EventLoop.h"
#include "runtime/Cancellation.h"
#include "runtime/ProcessExit.h"

namespace VarnSupport {

namespace {

constexpr const char* kKind = "VarnMonotonicTimer";

using std::chrono::nanoseconds;

}  // namespace

struct VSUPT_LOCAL VarnMonotonicTimer::State final : Callee {
  State(nanoseconds itsInterval, Function itsFunction, const VarnCallbackPool* pool)
      : Callee(kKind, itsFunction != nullptr, pool),
        interval(itsInterval),
        function(std::move(itsFunction)) {}

  void start(std::optional<nanoseconds> given, bool isPeriodic);
  void stopLocked();

  void beginCall(MonotonicTime now) override;
  void makeCall() override;
  void endCall() override;

  bool isOneShot = false;
  bool isActive = false;  // means nothing while it is not enlisted
  MonotonicTime deadline{};
  nanoseconds interval;
  const Function function;
  std::uint64_t missed = 0;  // of the call that is under way
};

// Without `given` the timer's own interval is the first. A refused start changes nothing.
void VarnMonotonicTimer::State::start(std::optional<nanoseconds> given, bool isPeriodic) {
  const CancellationGuard closed;
  ProcessExit::watch();
  const MonotonicTime now = monotonicNow();
  const LoopLock lock;
  const nanoseconds first = given.value_or(interval);
  if (isPeriodic && first <= nanoseconds::zero())
    throw VarnException("VarnMonotonicTimer::start: the interval is not above 0", 0);
  enlist();
  unpend();
  isOneShot = !isPeriodic;
  isActive = true;
  if (isPeriodic)
    interval = first;
  deadline = sumOf(now, first);
  if (!isRunning())
    setDeadline(deadline);
}

void VarnMonotonicTimer::State::stopLocked() {
  assert(LoopLock::isHeld());
  if (!isEnlisted())
    return;
  unpend();
  clearDeadline();
  isActive = false;
}

// The row of deadlines is kept: the next is a whole number of intervals behind the one before,
// however late the call is.
void VarnMonotonicTimer::State::beginCall(MonotonicTime now) {
  missed = 0;
  if (isOneShot) {
    isActive = false;
    return;
  }
  assert(interval > nanoseconds::zero());
  if (now > deadline)
    missed = static_cast<std::uint64_t>((now - deadline) / interval);
  deadline = sumOf(deadline + interval * static_cast<std::int64_t>(missed), interval);
}

void VarnMonotonicTimer::State::makeCall() {
  guarded([this] { function(missed); });
}

void VarnMonotonicTimer::State::endCall() {
  assert(LoopLock::isHeld());
  if (isActive)
    setDeadline(deadline);
}

VarnMonotonicTimer::VarnMonotonicTimer(Interval interval, Function function, VarnCallbackPool* pool)
    : m_pState(std::make_shared<State>(interval.get(), std::move(function), pool)) {}

VarnMonotonicTimer::~VarnMonotonicTimer() {
  const QuietCancellationGuard closed;
  m_pState->withdraw();
}

void VarnMonotonicTimer::start() { m_pState->start({}, true); }

void VarnMonotonicTimer::start(Interval interval) { m_pState->start(interval.get(), true); }

void VarnMonotonicTimer::startOnce() { m_pState->start({}, false); }

void VarnMonotonicTimer::startOnce(Interval delay) { m_pState->start(delay.get(), false); }

void VarnMonotonicTimer::stop() {
  const QuietCancellationGuard closed;
  const LoopLock lock;
  m_pState->stopLocked();
}

// A call may start the timer again.
void VarnMonotonicTimer::stopAndWait() {
  const QuietCancellationGuard closed;
  do {
    stop();
    m_pState->awaitCalls();
  } while (!ProcessExit::hasBegun() && isActive());
}

bool VarnMonotonicTimer::isActive() const {
  const QuietCancellationGuard closed;
  const LoopLock lock;
  return m_pState->isEnlisted() && m_pState->isActive;
}

}  // namespace VarnSupport
