// Dates of the Gregorian calendar and their seconds since 1 January 1970, without any zone.
#ifndef SUPPORT_TIME_CALENDAR_H
#define SUPPORT_TIME_CALENDAR_H

#include <cstdint>
#include <ctime>

namespace VarnSupport {

constexpr std::int64_t kDay = 86400;  // in seconds

// The broken-down fields of `seconds`. Leaves those of the zone alone. Requires: the year fits.
void breakDown(std::int64_t seconds, std::tm& fields);

// What fields stand for that need not be normal.
class CalendarTime {
 public:
  explicit CalendarTime(const std::tm& fields);

  std::int64_t seconds() const { return m_nSeconds; }
  // Makes these fields what breakDown() of the seconds is. Requires: the year fits.
  void normalise(std::tm& fields) const;

 private:
  std::int64_t m_nDays;  // since 1 January 1970
  std::int64_t m_nSeconds;
  std::uint32_t m_nYearOfEra;
  std::uint32_t m_nMonthBegin;
};

inline std::int64_t secondsOf(const std::tm& fields) { return CalendarTime(fields).seconds(); }

}  // namespace VarnSupport

#endif
