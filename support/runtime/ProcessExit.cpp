// Handlers of the exit run in the reverse order of their registration, and so do destructors of
// static objects. To know of the exit before the destructor of an object runs, the handler must be
// younger than that object: it is renewed when threads and timers have been made since, at the
// next of their operations.
#include "runtime/ProcessExit.h"

#include <unistd.h>

#include <mutex>

#include "runtime/Cancellation.h"
#include "runtime/Fork.h"

// As the C++ binary interface has them. std::atexit() cannot take a handler back.
extern "C" int __cxa_atexit(void (*function)(void*), void* argument, void* handle);
extern "C" void __cxa_finalize(void* handle);

namespace VarnSupport {

namespace {

constexpr useconds_t kPauseMicroseconds = 1000;

constinit std::atomic<MonotonicTime> begin{MonotonicTime::min()};
constinit std::mutex renewing;
constinit std::atomic<bool> isRenewed{false};
constinit std::atomic<void (*)()> atBegin{nullptr};
constinit char handle = 0;  // its address is the name of the handler

void noteBegin(void*) {
  if (isRenewed)
    return;
  MonotonicTime never = MonotonicTime::min();
  if (!begin.compare_exchange_strong(never, monotonicNow()))
    return;
  if (void (*const function)() = atBegin)
    function();
}

}  // namespace

constinit std::atomic<bool> ProcessExit::m_bOutdated{true};

// Takes the older handler out, which calls it: the list of handlers must not grow.
void ProcessExit::renewHandler() {
  const std::lock_guard guard(renewing);
  if (!m_bOutdated.exchange(false) || hasBegun())
    return;
  isRenewed = true;
  __cxa_finalize(&handle);
  isRenewed = false;
  if (__cxa_atexit(&noteBegin, nullptr, &handle) != 0)
    m_bOutdated = true;  // the next who begins something tries again
}

void ProcessExit::callAtBegin(void (*function)()) { atBegin = function; }

bool ProcessExit::hasBegun() { return begin.load() != MonotonicTime::min(); }

MonotonicTime ProcessExit::latestEnd() {
  return (hasBegun() ? begin.load() : monotonicNow()) + kPatience;
}

bool ProcessExit::pause() {
  if (monotonicNow() >= latestEnd())
    return false;
  const NoCancellation whole;
  usleep(kPauseMicroseconds);
  return true;
}

// The platform's list of handlers is whole in the child.
constinit const ForkPart exitFork{[] { renewing.lock(); }, [](ForkSide) { renewing.unlock(); }};

}  // namespace VarnSupport
