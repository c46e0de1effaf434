// Calls of the system as the library makes them.
#ifndef SUPPORT_RUNTIME_SYSTEM_H
#define SUPPORT_RUNTIME_SYSTEM_H

#include <cerrno>
#include <chrono>
#include <ctime>

namespace VarnSupport {

// A time of CLOCK_MONOTONIC, which std::chrono's steady clock is on Linux.
using MonotonicTime = std::chrono::steady_clock::time_point;

inline MonotonicTime monotonicNow() { return std::chrono::steady_clock::now(); }

inline timespec toTimespec(MonotonicTime time) {
  const auto sinceStart = time.time_since_epoch();
  const auto seconds = std::chrono::floor<std::chrono::seconds>(sinceStart);
  const std::chrono::nanoseconds rest = sinceStart - seconds;
  return {static_cast<std::time_t>(seconds.count()), static_cast<long>(rest.count())};
}

// Calls until a signal no longer interrupts, and returns the result.
template <typename Call>
auto retrying(Call call) -> decltype(call()) {
  auto result = call();
  while (result == -1 && errno == EINTR)
    result = call();
  return result;
}

}  // namespace VarnSupport

#endif
