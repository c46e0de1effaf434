// A handler sets the flag of its signal and posts the semaphore on which the relay waits; a signal
// that comes again before its flag was taken adds nothing. The relay takes all flags that are set,
// and the signals that were expected and have not come, and runs their routines.
//
// What the handlers use is constant-initialised and never destroyed, and has no lock. The rest is
// guarded by a mutex that is held for a few instructions, and across a fork.
//
// Routines run on the relay one by one and must not wait: for a signal that is handled late,
// timers and stops of the whole process are late. It has no cancellation and every other signal
// blocked. When the main thread has ended by pthread_exit(), the relay must not keep the process
// alive, and ends as soon as it is alone.
#include "runtime/SignalRelay.h"

#include <pthread.h>
#include <semaphore.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <bitset>
#include <cassert>
#include <cerrno>
#include <cstdint>
#include <ctime>
#include <mutex>

#include "runtime/AlternateStack.h"
#include "runtime/Cancellation.h"
#include "runtime/Fork.h"
#include "runtime/SignalSet.h"
#include "runtime/System.h"
#include "runtime/SystemThreads.h"

namespace VarnSupport {

namespace {

constexpr MonotonicTime kNever = MonotonicTime::max();

struct Route {
  std::atomic<SignalRelay::Routine> routine{nullptr};
  std::atomic<SignalRelay::Routine> listener{nullptr};
  std::atomic<bool> pending{false};
  std::atomic<std::uint64_t> deliveries{0};
  // Guarded by the mutex.
  MonotonicTime expectedUntil = kNever;
  struct sigaction previous {};  // what the listener displaced
};

static_assert(std::atomic<std::uint64_t>::is_always_lock_free, "the signal handler uses it");

constexpr std::size_t kSignals = 65;  // with the real-time ones

constexpr std::chrono::milliseconds kLookAlone{100};
constexpr int kLooksToSettle = 100;
constexpr useconds_t kLookMicroseconds = 50;

// Constant-initialised and trivially destroyed: threads may use it while the process exits.
struct RelayState {
  std::array<Route, kSignals> routes;
  std::atomic<bool> busy{false};
  std::atomic<bool> mainHasEnded{false};
  sem_t semaphore{};
  std::mutex mutex;
  // Guarded by mutex.
  bool prepared = false;
  bool mainIsWatched = false;
  bool running = false;
  bool ranInParent = false;  // when this process was forked
  bool isHeldBack = false;   // in the child of a fork, until all of the library is whole
  pthread_t thread{};
  sigset_t callersMask{};
};

constinit RelayState relay;

Route& routeOf(int signal) {
  assert(signal > 0 && static_cast<std::size_t>(signal) < kSignals);
  return relay.routes[static_cast<std::size_t>(signal)];
}

// SIGUSR2 also interrupts threads that are killed.
void onSignal(int signal) {
  const int savedErrno = errno;
  routeOf(signal).deliveries.fetch_add(1);
  if (signal != SIGUSR2 || t_pCancellation == nullptr || !t_pCancellation->handleSignal())
    SignalRelay::post(signal);
  errno = savedErrno;
}

// When the first signal that is expected counts as lost.
MonotonicTime firstExpectation() {
  const std::lock_guard guard(relay.mutex);
  MonotonicTime first = kNever;
  for (const Route& route : relay.routes)
    first = std::min(first, route.expectedUntil);
  return first;
}

// Waits for a signal, or until one that is expected counts as lost, or for a moment once the main
// thread has ended.
void awaitWork() {
  MonotonicTime until = firstExpectation();
  if (relay.mainHasEnded)
    until = std::min(until, monotonicNow() + kLookAlone);
  const timespec time = toTimespec(until);
  retrying([&] {
    return until == kNever ? sem_wait(&relay.semaphore)
                           : sem_clockwait(&relay.semaphore, CLOCK_MONOTONIC, &time);
  });
}

// The signals that have come, or have not come in time.
std::bitset<kSignals> takeDue() {
  const std::lock_guard guard(relay.mutex);
  const MonotonicTime now = monotonicNow();
  std::bitset<kSignals> due;
  for (std::size_t signal = 0; signal < kSignals; ++signal) {
    Route& route = relay.routes[signal];
    const bool isLost = route.expectedUntil <= now;
    if (!route.pending.exchange(false) && !isLost)
      continue;
    route.expectedUntil = kNever;
    due.set(signal);
  }
  return due;
}

void runDue() {
  const std::bitset<kSignals> due = takeDue();
  for (std::size_t signal = 1; signal < kSignals; ++signal) {
    if (!due.test(signal))
      continue;
    for (const auto* const action :
         {&relay.routes[signal].routine, &relay.routes[signal].listener}) {
      if (const SignalRelay::Routine routine = *action)
        routine(static_cast<int>(signal));
    }
  }
}

// True when the relay is to end, and the process with it.
bool isLast() {
  if (!relay.mainHasEnded || !isAlone())
    return false;
  const std::lock_guard guard(relay.mutex);
  relay.running = false;
  return true;
}

void* runRelay(void*) {
  pthread_setname_np(pthread_self(), "vsupt-signals");
  const sigset_t ours = signalSet({SIGALRM, SIGUSR1, SIGUSR2});
  pthread_sigmask(SIG_UNBLOCK, &ours, nullptr);
  const AlternateStack stack;
  relay.busy = false;
  while (!isLast()) {
    awaitWork();
    relay.busy = true;
    runDue();
    relay.busy = false;
  }
  return nullptr;
}

// Has the relay told when the calling thread ends by pthread_exit(), if that is the main one: only
// that thread itself can have this told.
void watchMainThreadLocked() {
  if (relay.mainIsWatched || gettid() != getpid())
    return;
  relay.mainIsWatched = true;
  static pthread_key_t key;
  static const bool hasKey = pthread_key_create(&key, [](void*) {
                               relay.mainHasEnded = true;
                               sem_post(&relay.semaphore);
                             }) == 0;
  if (hasKey)
    pthread_setspecific(key, &relay);
}

// Starts the relay with every signal blocked, so that none of the program's handlers runs on it.
void startLocked() {
  watchMainThreadLocked();
  if (relay.running || relay.isHeldBack)
    return;
  const sigset_t all = allSignals();
  sigset_t previous;
  pthread_sigmask(SIG_SETMASK, &all, &previous);
  relay.busy = true;  // until it has begun
  relay.running = startOnOwnStack(relay.thread, runRelay);
  if (!relay.running)
    relay.busy = false;
  pthread_sigmask(SIG_SETMASK, &previous, nullptr);
}

bool hasWork() {
  return relay.busy || std::any_of(relay.routes.begin(), relay.routes.end(),
                                   [](const Route& route) { return route.pending.load(); });
}

// What is needed before a handler is installed.
void prepareLocked() {
  watchMainThreadLocked();
  if (relay.prepared)
    return;
  sem_init(&relay.semaphore, 0, 0);
  relay.prepared = true;
}

bool isRelayLocked() { return relay.running && pthread_equal(relay.thread, pthread_self()) != 0; }

}  // namespace

void SignalRelay::route(int number, Routine routine) {
  {
    const std::lock_guard guard(relay.mutex);
    prepareLocked();
    routeOf(number).routine.store(routine);
  }
  ::signal(number, onSignal);
}

bool SignalRelay::listen(int number, Routine listener) {
  const std::lock_guard guard(relay.mutex);
  prepareLocked();
  Route& route = routeOf(number);
  route.listener.store(listener);
  struct sigaction ours {};
  ours.sa_handler = onSignal;
  ours.sa_flags = SA_RESTART;
  if (sigaction(number, &ours, &route.previous) == 0)
    return true;
  route.listener.store(nullptr);
  return false;
}

void SignalRelay::stopListening(int number) {
  const std::lock_guard guard(relay.mutex);
  Route& route = routeOf(number);
  route.listener.store(nullptr);
  struct sigaction now {};
  if (route.routine == nullptr && sigaction(number, nullptr, &now) == 0 &&
      now.sa_handler == onSignal)
    sigaction(number, &route.previous, nullptr);
}

std::uint64_t SignalRelay::deliveries(int signal) { return routeOf(signal).deliveries; }

bool SignalRelay::ensureRunning() {
  const std::lock_guard guard(relay.mutex);
  startLocked();
  return relay.running;
}

void SignalRelay::post(int signal) {
  if (!routeOf(signal).pending.exchange(true))
    sem_post(&relay.semaphore);
}

void SignalRelay::raise(int signal) {
  {
    const std::lock_guard guard(relay.mutex);
    startLocked();
    if (relay.running)
      pthread_kill(relay.thread, signal);
    else
      kill(getpid(), signal);
  }
  post(signal);
}

bool SignalRelay::isRelay() {
  const std::lock_guard guard(relay.mutex);
  return isRelayLocked();
}

void SignalRelay::runPending() {
  while (sem_trywait(&relay.semaphore) == 0) {
  }
  runDue();
}

void SignalRelay::expectWithin(int signal, long milliseconds) {
  assert(milliseconds >= 0);
  const std::lock_guard guard(relay.mutex);
  routeOf(signal).expectedUntil = monotonicNow() + std::chrono::milliseconds(milliseconds);
  startLocked();
  if (!isRelayLocked())
    sem_post(&relay.semaphore);  // it may be waiting for longer
}

void SignalRelay::rememberCallersMask() {
  const std::lock_guard guard(relay.mutex);
  if (!isRelayLocked())
    pthread_sigmask(SIG_BLOCK, nullptr, &relay.callersMask);
}

sigset_t SignalRelay::callersMask() {
  const std::lock_guard guard(relay.mutex);
  return relay.callersMask;
}

void SignalRelay::adoptCallersMask() {
  const sigset_t mask = callersMask();
  pthread_sigmask(SIG_SETMASK, &mask, nullptr);
}

void SignalRelay::settle() {
  {
    const std::lock_guard guard(relay.mutex);
    if (!relay.running || isRelayLocked())
      return;
  }
  const NoCancellation settling;
  for (int look = 0; look < kLooksToSettle && hasWork(); ++look)
    usleep(kLookMicroseconds);
}

void SignalRelay::resumeInChild() {
  const auto isAny = [](auto is) {
    return std::any_of(relay.routes.begin(), relay.routes.end(), is);
  };
  const auto isExpected = [](const Route& route) { return route.expectedUntil != kNever; };
  const auto isListenedFor = [](const Route& route) { return route.listener.load() != nullptr; };
  const auto isRouted = [](int signal) { return routeOf(signal).routine.load() != nullptr; };
  const std::lock_guard guard(relay.mutex);
  relay.isHeldBack = false;
  if (isAny(isExpected) ||
      (relay.ranInParent && (isRouted(SIGTERM) || isRouted(SIGINT) || isAny(isListenedFor))))
    startLocked();
}

namespace {

void prepareRelay() { relay.mutex.lock(); }

// A signal that the parent has noted is the parent's. The semaphore is made anew first: what is
// noted from then on is posted again.
void releaseRelay(ForkSide side) {
  if (side == ForkSide::CHILD) {
    relay.ranInParent = relay.running;
    relay.running = isRelayLocked();
    relay.busy = relay.running;
    relay.isHeldBack = true;
    relay.mainHasEnded = false;
    sem_init(&relay.semaphore, 0, 0);
    for (Route& route : relay.routes) {
      route.pending.store(false);
      route.expectedUntil = kNever;
    }
    relay.mainIsWatched = false;
    watchMainThreadLocked();
  }
  relay.mutex.unlock();
}

}  // namespace

constinit const ForkPart relayFork{&prepareRelay, &releaseRelay};

}  // namespace VarnSupport
