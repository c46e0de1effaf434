#include "SignalRelay.h"

#include <pthread.h>
#include <semaphore.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <ctime>
#include <mutex>

namespace VarnSupport {

namespace {

struct Route {
  std::atomic<SignalRelay::Routine> routine{nullptr};
  std::atomic<bool> pending{false};
};

static_assert(std::atomic<bool>::is_always_lock_free, "the signal handler uses it");

constexpr std::size_t kSignals = 32;  // real-time signals are not routed

// Constant-initialised and trivially destroyed: threads may use it while the process exits.
struct RelayState {
  std::array<Route, kSignals> routes;
  sem_t semaphore{};
  std::mutex mutex;
  // Guarded by mutex.
  bool prepared = false;
  bool running = false;
  pthread_t thread{};
  sigset_t callersMask{};
  int laterSignal = 0;  // a routine to run without a signal; 0: none
  timespec laterTime{};
};

constinit RelayState relay;

Route& routeOf(int signal) { return relay.routes[static_cast<std::size_t>(signal)]; }

void onSignal(int signal) {
  const int savedErrno = errno;
  if (!routeOf(signal).pending.exchange(true))
    sem_post(&relay.semaphore);
  errno = savedErrno;
}

bool isAfter(const timespec& left, const timespec& right) {
  return left.tv_sec != right.tv_sec ? left.tv_sec > right.tv_sec : left.tv_nsec > right.tv_nsec;
}

// Waits for a signal, or for the time of a routine that is to run without one.
void awaitWork() {
  std::unique_lock guard(relay.mutex);
  const int later = relay.laterSignal;
  const timespec time = relay.laterTime;
  guard.unlock();
  if (later == 0) {
    while (sem_wait(&relay.semaphore) != 0 && errno == EINTR) {
    }
    return;
  }
  while (sem_clockwait(&relay.semaphore, CLOCK_MONOTONIC, &time) != 0 && errno == EINTR) {
  }
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  if (isAfter(time, now))
    return;
  guard.lock();
  relay.laterSignal = 0;
  routeOf(later).pending.store(true);
}

void* runRelay(void*) {
  pthread_setname_np(pthread_self(), "vsupt-signals");
  sigset_t ours;
  sigemptyset(&ours);
  for (const int signal : {SIGALRM, SIGUSR1, SIGUSR2})
    sigaddset(&ours, signal);
  pthread_sigmask(SIG_UNBLOCK, &ours, nullptr);
  while (true) {
    awaitWork();
    for (int signal = 1; signal < static_cast<int>(kSignals); ++signal) {
      if (routeOf(signal).pending.exchange(false))
        routeOf(signal).routine.load()(signal);
    }
  }
}

// Starts the relay with every signal blocked, so that none of the program's handlers runs on it.
void startLocked() {
  if (relay.running)
    return;
  sigset_t all;
  sigset_t previous;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &previous);
  relay.running = pthread_create(&relay.thread, nullptr, runRelay, nullptr) == 0;
  if (relay.running)
    pthread_detach(relay.thread);
  pthread_sigmask(SIG_SETMASK, &previous, nullptr);
}

bool isRelayLocked() { return relay.running && pthread_equal(relay.thread, pthread_self()) != 0; }

}  // namespace

void SignalRelay::route(int number, Routine routine) {
  {
    const std::lock_guard guard(relay.mutex);
    if (!relay.prepared) {
      sem_init(&relay.semaphore, 0, 0);
      relay.prepared = true;
    }
    routeOf(number).routine.store(routine);
  }
  ::signal(number, onSignal);
}

bool SignalRelay::ensureRunning() {
  const std::lock_guard guard(relay.mutex);
  startLocked();
  return relay.running;
}

void SignalRelay::runLater(int signal, long seconds) {
  const std::lock_guard guard(relay.mutex);
  clock_gettime(CLOCK_MONOTONIC, &relay.laterTime);
  relay.laterTime.tv_sec += seconds;
  relay.laterSignal = signal;
  startLocked();
}

void SignalRelay::rememberCallersMask() {
  const std::lock_guard guard(relay.mutex);
  if (!isRelayLocked())
    pthread_sigmask(SIG_BLOCK, nullptr, &relay.callersMask);
}

void SignalRelay::adoptCallersMask() {
  const std::lock_guard guard(relay.mutex);
  pthread_sigmask(SIG_SETMASK, &relay.callersMask, nullptr);
}

void SignalRelay::prepareFork() { relay.mutex.lock(); }

void SignalRelay::parentAfterFork() { relay.mutex.unlock(); }

// A signal that the parent has noted is the parent's.
void SignalRelay::childAfterFork() {
  relay.running = isRelayLocked();
  relay.laterSignal = 0;
  for (Route& route : relay.routes)
    route.pending.store(false);
  sem_init(&relay.semaphore, 0, 0);
  relay.mutex.unlock();
}

}  // namespace VarnSupport
