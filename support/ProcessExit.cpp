#include "ProcessExit.h"

#include <atomic>
#include <cassert>
#include <cstdlib>

namespace VarnSupport {

namespace {

constinit std::atomic<MonotonicTime> begin{MonotonicTime::min()};

void noteBegin() {
  MonotonicTime never = MonotonicTime::min();
  begin.compare_exchange_strong(never, monotonicNow());
}

}  // namespace

void ProcessExit::watch() { static_cast<void>(std::atexit(&noteBegin)); }

bool ProcessExit::hasBegun() { return begin.load() != MonotonicTime::min(); }

MonotonicTime ProcessExit::latestEnd() {
  assert(hasBegun());
  return begin.load() + kPatience;
}

}  // namespace VarnSupport
