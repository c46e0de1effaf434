// Calls of the system as the library makes them.
#ifndef SUPPORT_RUNTIME_SYSTEM_H
#define SUPPORT_RUNTIME_SYSTEM_H

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>
#include <string_view>

#include "runtime/BriefGate.h"

namespace VarnSupport {

// A time of CLOCK_MONOTONIC, which std::chrono's steady clock is on Linux.
using MonotonicTime = std::chrono::steady_clock::time_point;

inline MonotonicTime monotonicNow() { return std::chrono::steady_clock::now(); }

// A sum that no clock reaches is never.
inline MonotonicTime sumOf(MonotonicTime time, std::chrono::nanoseconds span) {
  return span < MonotonicTime::max() - time ? time + span : MonotonicTime::max();
}

inline timespec toTimespec(std::chrono::nanoseconds span) {
  const auto seconds = std::chrono::floor<std::chrono::seconds>(span);
  const std::chrono::nanoseconds rest = span - seconds;
  return {static_cast<std::time_t>(seconds.count()), static_cast<long>(rest.count())};
}

inline timespec toTimespec(MonotonicTime time) { return toTimespec(time.time_since_epoch()); }

// How long it is until `deadline`; no time at all once that has passed.
inline timespec timeLeft(MonotonicTime deadline) {
  return toTimespec(std::max(deadline - monotonicNow(), MonotonicTime::duration::zero()));
}

// The platform looks for a translation, under its lock of the locales.
inline const char* errorText(int error) {
  return BriefGate::inside([error] { return std::strerror(error); });
}

inline bool isSameFile(const struct stat& one, const struct stat& other) {
  return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

// Whether the system would see the beginning of the text only.
inline bool hasNul(std::string_view text) { return text.find('\0') != text.npos; }

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
