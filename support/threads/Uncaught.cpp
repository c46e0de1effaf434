// Where the last exception of a function goes that the library has called on a thread of its own:
// into a record, and to the handler of the program. Texts are asked for only when there is a reader
// for them.
#include "threads/Uncaught.h"

#include <atomic>
#include <cassert>
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

// There is nobody to tell of a failure in here, nor below.
void Uncaught::tell(const tText& origin) noexcept {
  assert(std::current_exception() != nullptr);
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

void Uncaught::report(const tText& origin) noexcept {
  report(origin, [&] {
    std::string text = "An exception left the function of ";
    return text.append(origin()).append(": ").append(VarnWhat(std::current_exception()));
  });
}

void Uncaught::report(const tText& origin, const tText& record) noexcept {
  assert(std::current_exception() != nullptr);
  {
    const QuietCancellationGuard closed;
    const NoCancellation whole;
    try {
      OwnRecords::write(OwnRecords::FAILURE, record());
    } catch (...) {
    }
  }
  tell(origin);
}

}  // namespace VarnSupport
