// The date and time that begin the records of the log.
#ifndef SUPPORT_LOG_SECONDTEXT_H
#define SUPPORT_LOG_SECONDTEXT_H

#include <array>
#include <cassert>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <string_view>

#include "time/LocalTime.h"

namespace VarnSupport {

// The text of a second, kept until another one is asked for or the time zone changes. Not for
// several threads at once.
class SecondText {
 public:
  // "20240131_23:59:59" for the current local time; all zeros for a time that no calendar reaches.
  std::string_view now() {
    const std::time_t second = std::time(nullptr);
    const char* const zone = std::getenv("TZ");
    const bool zoneKept = zone != nullptr ? m_bZoneSet && m_sZone == zone : !m_bZoneSet;
    if (second == m_nSecond && zoneKept)
      return {m_aText.data(), m_nLength};
    m_nSecond = second;
    m_bZoneSet = zone != nullptr;
    m_sZone = zone != nullptr ? zone : "";
    std::tm time{};
    std::int64_t year = 0;
    if (toLocalTime(second, time)) {
      year = std::int64_t{time.tm_year} + 1900;
      ++time.tm_mon;
    } else {
      time = {};
    }
    const int length = std::snprintf(m_aText.data(), m_aText.size(), "%04jd%02d%02d_%02d:%02d:%02d",
                                     std::intmax_t{year}, time.tm_mon, time.tm_mday, time.tm_hour,
                                     time.tm_min, time.tm_sec);
    assert(length > 0 && static_cast<std::size_t>(length) < m_aText.size());
    m_nLength = static_cast<std::size_t>(length);
    return {m_aText.data(), m_nLength};
  }

 private:
  std::time_t m_nSecond = -1;
  bool m_bZoneSet = false;
  std::string m_sZone;
  std::array<char, 80> m_aText{};
  std::size_t m_nLength = 0;
};

}  // namespace VarnSupport

#endif
