// When a zone changes, as the file says that the system reads it from: what lies between two
// changes has one local time. Not safe from several threads. Callers keep cancellation closed.
#ifndef SUPPORT_TIME_ZONECHANGES_H
#define SUPPORT_TIME_ZONECHANGES_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

namespace VarnSupport {

class ZoneChanges {
 public:
  static constexpr std::size_t kMost = 400;
  // What between() gives where it finds no stretch.
  static constexpr int kUnknown = -1;
  static constexpr int kChange = -2;

  // Reads the changes of the zone that a value of TZ, or null, names. Where they cannot be known
  // all is unknown: without memory or a file of 64-bit times, or with a file that counts leap
  // seconds, has more changes than kMost, or was replaced since this process began, as the system
  // then may have another.
  void read(const char* name) noexcept;

  // The number of the stretch, below kMost + 1, that all of [from, to] lies in.
  int between(std::int64_t from, std::int64_t to) const;
  // The first second of a stretch and of the next; false for the first stretch, the last, and any
  // other number.
  bool bounds(int stretch, std::int64_t& begin, std::int64_t& end) const;

 private:
  void tryToRead(const char* name);
  bool take(const std::string& file);

  std::array<std::int64_t, kMost> m_aTimes{};
  std::size_t m_nCount = 0;
  bool m_bKnown = false;
  bool m_bEnds = false;  // no change comes after the last
};

}  // namespace VarnSupport

#endif
