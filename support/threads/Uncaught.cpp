#include "threads/Uncaught.h"

#include <atomic>
#include <exception>

#include "VarnSupport/VarnFunctions.h"
#include "log/OwnRecords.h"
#include "runtime/Cancellation.h"

namespace VarnSupport {

namespace {

constinit std::atomic<tUncaughtHandler> theHandler{nullptr};

}  // namespace

tUncaughtHandler VarnSetUncaughtHandler(tUncaughtHandler handler) noexcept {
  return theHandler.exchange(handler);
}

// There is nobody to tell of a failure in here.
void Uncaught::tell(const tOrigin& origin) noexcept {
  const tUncaughtHandler handler = theHandler;
  if (handler == nullptr)
    return;
  const QuietCancellationGuard closed;
  const NoCancellation whole;
  try {
    handler(origin(), std::current_exception());
  } catch (...) {
  }
}

void Uncaught::report(const tOrigin& origin) noexcept {
  {
    const QuietCancellationGuard closed;
    const NoCancellation whole;
    try {
      OwnRecords::write(OwnRecords::FAILURE, "An exception left the function of ", origin(), ": ",
                        VarnWhat(std::current_exception()));
    } catch (...) {
    }
  }
  tell(origin);
}

}  // namespace VarnSupport
