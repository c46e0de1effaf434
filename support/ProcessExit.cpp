#include "ProcessExit.h"

#include <atomic>
#include <cstdlib>

namespace VarnSupport {

namespace {

constinit std::atomic<bool> begun{false};

}  // namespace

void ProcessExit::watch() {
  static_cast<void>(std::atexit([] { begun = true; }));
}

bool ProcessExit::hasBegun() { return begun; }

}  // namespace VarnSupport
