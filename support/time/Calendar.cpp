#include "time/Calendar.h"

#include <cassert>

namespace VarnSupport {

namespace {

// Years begin in March here, so that the leap day is their last, and come in eras of 400, which all
// have the same length.
constexpr std::int64_t kYearsOfEra = 400;
constexpr std::int64_t kDaysOfEra = 146097;
constexpr std::int64_t kEpoch = 719468;           // days from 1 March 0
constexpr std::uint32_t kJanuary = 306;           // days from 1 March
constexpr std::uint32_t kMarchOfCommonYear = 59;  // days from 1 January

// A day by its year in an era, and its place in that year.
struct DayOfEra {
  std::uint32_t year;
  std::uint32_t day;
};

std::int64_t quotientOf(std::int64_t number, std::int64_t divisor) {
  return (number >= 0 ? number : number - (divisor - 1)) / divisor;
}

// The day of a year that begins in March, in one that begins in January.
int dayOfYear(DayOfEra day) {
  if (day.day >= kJanuary)
    return static_cast<int>(day.day - kJanuary);
  const bool isLeapYear = day.year % 4 == 0 && (day.year % 100 != 0 || day.year == 0);
  return static_cast<int>(day.day + kMarchOfCommonYear + (isLeapYear ? 1 : 0));
}

// Whether all months have such a day, and the others are in their ranges as well.
bool areNormal(const std::tm& fields) {
  const auto isWithin = [](int value, int first, int last) {
    return value >= first && value <= last;
  };
  return isWithin(fields.tm_mon, 0, 11) && isWithin(fields.tm_mday, 1, 28) &&
         isWithin(fields.tm_hour, 0, 23) && isWithin(fields.tm_min, 0, 59) &&
         isWithin(fields.tm_sec, 0, 59);
}

}  // namespace

// The years of an era, and the months of a year, come from multiplications: see Neri and Schneider,
// Euclidean affine functions and their application to calendar algorithms.
void breakDown(std::int64_t seconds, std::tm& fields) {
  const std::int64_t days = quotientOf(seconds, kDay);
  const auto secondOfDay = static_cast<std::uint32_t>(seconds - days * kDay);
  const std::int64_t shifted = days + kEpoch;
  const std::int64_t era = quotientOf(shifted, kDaysOfEra);
  const auto dayOfEra = static_cast<std::uint32_t>(shifted - era * kDaysOfEra);
  const std::uint32_t century = (4 * dayOfEra + 3) / kDaysOfEra;
  const std::uint32_t quartersOfCentury = (4 * dayOfEra + 3) % kDaysOfEra | 3;
  const std::uint64_t years = std::uint64_t{2939745} * quartersOfCentury;  // and a fraction
  const auto yearOfCentury = static_cast<std::uint32_t>(years >> 32);
  const DayOfEra day{100 * century + yearOfCentury,
                     static_cast<std::uint32_t>(years) / 2939745 / 4};
  const std::uint32_t months = 2141 * day.day + 197913;  // from January, and a fraction
  const bool isNextYear = day.day >= kJanuary;
  assert(day.year < kYearsOfEra && day.day < 366);
  fields.tm_year = static_cast<int>(day.year + era * kYearsOfEra + (isNextYear ? 1 : 0) - 1900);
  fields.tm_mon = static_cast<int>((months >> 16) - (isNextYear ? 13 : 1));
  fields.tm_mday = static_cast<int>((months & 0xFFFF) / 2141 + 1);
  fields.tm_hour = static_cast<int>(secondOfDay / 3600);
  fields.tm_min = static_cast<int>(secondOfDay / 60 % 60);
  fields.tm_sec = static_cast<int>(secondOfDay % 60);
  fields.tm_wday = static_cast<int>((dayOfEra + 3) % 7);  // an era has whole weeks
  fields.tm_yday = dayOfYear(day);
}

CalendarTime::CalendarTime(const std::tm& fields) {
  const int month = fields.tm_mon % 12 + (fields.tm_mon % 12 < 0 ? 12 : 0);
  const std::int64_t year = std::int64_t{1900} + fields.tm_year +
                            (std::int64_t{fields.tm_mon} - month) / 12 - (month < 2 ? 1 : 0);
  const std::int64_t era = quotientOf(year, kYearsOfEra);
  m_nYearOfEra = static_cast<std::uint32_t>(year - era * kYearsOfEra);
  m_nMonthBegin = (153 * static_cast<std::uint32_t>(month < 2 ? month + 10 : month - 2) + 2) / 5;
  const std::uint32_t yearBegin = m_nYearOfEra * 365 + m_nYearOfEra / 4 - m_nYearOfEra / 100;
  m_nDays = era * kDaysOfEra + yearBegin + m_nMonthBegin + fields.tm_mday - 1 - kEpoch;
  m_nSeconds = m_nDays * kDay + std::int64_t{fields.tm_hour} * 3600 +
               std::int64_t{fields.tm_min} * 60 + fields.tm_sec;
}

void CalendarTime::normalise(std::tm& fields) const {
  if (!areNormal(fields)) {
    breakDown(m_nSeconds, fields);
    return;
  }
  const std::int64_t fromSunday = m_nDays + 4;
  fields.tm_wday = static_cast<int>(fromSunday - 7 * quotientOf(fromSunday, 7));
  fields.tm_yday =
      dayOfYear({m_nYearOfEra, m_nMonthBegin + static_cast<std::uint32_t>(fields.tm_mday - 1)});
}

}  // namespace VarnSupport
