// Handlers of the exit run in the reverse order of their registration, and so do destructors of
// static objects. To know of the exit before the destructor of an object runs, the handler must be
// younger than that object: it is renewed when threads and timers have been made since, at the
// next of their operations. An exit() that another thread begins in the middle of that misses it;
// who is about to wait inside of exit() finds out by its own frames.
//
// In the child of a fork the platform's list of handlers may be locked for ever: by a thread that
// the child does not have, and that was registering a handler or unloading a library. A thread that
// exists for nothing else finds out, as it may never come back.
#include "runtime/ProcessExit.h"

#include <pthread.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <mutex>
#include <utility>

#include "runtime/Cancellation.h"
#include "runtime/Fork.h"
#include "runtime/SignalSet.h"
#include "runtime/SystemThreads.h"
#include "runtime/UnwindCheck.h"

// As the C++ binary interface has them. std::atexit() cannot take a handler back.
extern "C" int __cxa_atexit(void (*function)(void*), void* argument, void* handle);
extern "C" void __cxa_finalize(void* handle);

namespace VarnSupport {

namespace {

constexpr useconds_t kPauseMicroseconds = 1000;
constexpr useconds_t kLookMicroseconds = 50;
constexpr std::chrono::milliseconds kTimeToComeBack{100};

constinit std::atomic<MonotonicTime> begin{MonotonicTime::min()};
constinit std::mutex renewing;
constinit std::atomic<pthread_t> renewer{0};
constinit std::atomic<void (*)()> atBegin{nullptr};
// Their addresses are names of handlers: of ours, in turns, and of none.
constinit char names[2]{};
constinit char nobody = 0;
constinit char* name = nullptr;  // of the handler there is; guarded by the mutex

// By the number of forks before them, processes whose list of handlers has been found usable, and
// asked about; the latter is guarded by the mutex.
constinit std::atomic<std::uint32_t> usableIn{0};
constinit std::uint32_t askedAbout = 0;
constinit std::atomic<pid_t> asking{0};  // the thread

// Whether whoever uses the list of handlers comes back. Waits for the answer once in a process, and
// then for the very end of the thread that has asked: the next fork may be near.
// Requires: the mutex is held.
bool isListUsable() {
  if (usableIn == g_nForks)
    return true;
  if (std::exchange(askedAbout, g_nForks) == g_nForks)
    return false;
  const auto ask = [] {
    asking = gettid();
    __cxa_finalize(&nobody);
    usableIn = g_nForks.load();
  };
  asking = 0;
  const sigset_t mask = allSignals();
  if (startDetached("vsupt-exit", ask, &mask) != 0) {
    askedAbout = 0;
    return true;  // to do without a handler is the greater risk
  }
  const NoCancellation whole;
  const MonotonicTime latest = monotonicNow() + kTimeToComeBack;
  const auto hasEnded = [] { return asking != 0 && tgkill(getpid(), asking, 0) != 0; };
  while (!hasEnded() && monotonicNow() < latest)
    usleep(kLookMicroseconds);
  return usableIn == g_nForks;
}

void handleExit(void*);

bool addNext() {
  char* const next = name == &names[0] ? &names[1] : &names[0];
  if (__cxa_atexit(&handleExit, nullptr, next) != 0)
    return false;
  name = next;
  return true;
}

// Whoever takes a handler out goes on in memory that exit() may have freed during the call, but
// begins anew where the call has added one. When exit() has done all of them no more can be added,
// and the process ends.
void replace() {
  const NoCancellation whole;
  while (!addNext())
    usleep(kPauseMicroseconds);
}

void noteBegin() {
  MonotonicTime never = MonotonicTime::min();
  begin.compare_exchange_strong(never, monotonicNow());
}

void handleExit(void*) {
  if (renewer == pthread_self()) {
    replace();
    return;
  }
  noteBegin();
  if (void (*const function)() = atBegin.exchange(nullptr))
    function();
}

}  // namespace

constinit std::atomic<bool> ProcessExit::m_bOutdated{true};

// Takes the older handler out, which calls it: the list of handlers must not grow.
void ProcessExit::renewHandler() {
  const std::lock_guard guard(renewing);
  if (!m_bOutdated || hasBegun() || !isListUsable())
    return;
  m_bOutdated = false;
  if (name == nullptr) {
    m_bOutdated = !addNext();  // the next who begins something tries again
    return;
  }
  renewer = pthread_self();
  __cxa_finalize(name);
  renewer = 0;
}

bool ProcessExit::addHandler(void (*function)()) {
  const std::lock_guard guard(renewing);
  return isListUsable() && std::atexit(function) == 0;
}

void ProcessExit::callAtBegin(void (*function)()) { atBegin = function; }

bool ProcessExit::hasBegun() { return begin.load() != MonotonicTime::min(); }

bool ProcessExit::hasBegunHere() {
  if (!hasBegun() && UnwindCheck::isInsideExit())
    noteBegin();
  return hasBegun();
}

MonotonicTime ProcessExit::latestEnd() {
  return (hasBegunHere() ? begin.load() : monotonicNow()) + kPatience;
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
