// Whether the process is on its way out.
#ifndef SUPPORT_PROCESSEXIT_H
#define SUPPORT_PROCESSEXIT_H

#include <chrono>

#include "System.h"

namespace VarnSupport {

// While a process exits, the destructors of its static objects must not wait for ever: who could
// end what they wait for may be gone.
class ProcessExit {
 public:
  // How long anything may hold up the end of the process.
  static constexpr std::chrono::seconds kPatience{3};

  // From here on the beginning of exit() is noticed before static objects that exist already are
  // destroyed. May be called any number of times.
  static void watch();
  static bool hasBegun();
  // Until when all destructors together may wait. Requires: hasBegun().
  static MonotonicTime latestEnd();
};

}  // namespace VarnSupport

#endif
