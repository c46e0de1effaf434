#include "ForkHandlers.h"

#include <pthread.h>

#include <mutex>
#include <vector>

#include "BriefHold.h"
#include "Cancellation.h"
#include "SignalRelay.h"

namespace VarnSupport {

constinit thread_local bool t_bChildWillExec = false;
constinit std::atomic<std::uint32_t> g_nForks{0};

void ForkHandlers::install() {
  static std::once_flag once;
  std::call_once(once, [] {
    // A fork cannot throw: the locks that may be unused until then are made now.
    prepareFactory();
    releaseFactory(PARENT);
    prepareThreads();
    releaseThreads(PARENT);
    pthread_atfork([] { prepare(); }, [] { release(PARENT); }, [] { release(CHILD); });
  });
}

// In lock order; the global section is the last that anything takes.
void ForkHandlers::prepare() {
  if (t_bChildWillExec)
    return;
  closeCancellation();
  SignalRelay::settle();
  prepareFactory();
  prepareThreads();
  prepareTimers();
  prepareLog();
  prepareLocalTime();
  SignalRelay::prepareFork();
  globalSection().lock();
}

void ForkHandlers::release(tSide side) {
  if (t_bChildWillExec)
    return;
  if (side == CHILD)
    ++g_nForks;
  globalSection().unlock();
  if (side == CHILD)
    SignalRelay::childAfterFork();
  else
    SignalRelay::parentAfterFork();
  releaseLocalTime();
  releaseLog(side);
  releaseTimers(side);
  releaseThreads(side);
  releaseFactory(side);
  openCancellationQuietly();
}

void ForkHandlers::keepForever(const void* object) {
  static auto& kept = *new std::vector<const void*>;
  kept.push_back(object);
}

}  // namespace VarnSupport
