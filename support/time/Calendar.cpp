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

// Days since 1 January 1970.
std::int64_t daysOf(std::int64_t year, std::uint32_t month, std::int64_t dayOfMonth) {
  assert(month < 12);
  const std::int64_t marchYear = year - (month < 2 ? 1 : 0);
  const std::int64_t era =
      (marchYear >= 0 ? marchYear : marchYear - (kYearsOfEra - 1)) / kYearsOfEra;
  const auto yearOfEra = static_cast<std::uint32_t>(marchYear - era * kYearsOfEra);
  const std::uint32_t monthBegin = (153 * (month < 2 ? month + 10 : month - 2) + 2) / 5;
  const std::uint32_t yearBegin = yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100;
  return era * kDaysOfEra + yearBegin + monthBegin + dayOfMonth - 1 - kEpoch;
}

}  // namespace

void breakDown(std::int64_t seconds, std::tm& fields) {
  const std::int64_t days = (seconds >= 0 ? seconds : seconds - (kDay - 1)) / kDay;
  const auto secondOfDay = static_cast<std::uint32_t>(seconds - days * kDay);
  const std::int64_t shifted = days + kEpoch;
  const std::int64_t era = (shifted >= 0 ? shifted : shifted - (kDaysOfEra - 1)) / kDaysOfEra;
  const auto dayOfEra = static_cast<std::uint32_t>(shifted - era * kDaysOfEra);
  const std::uint32_t yearOfEra =
      (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
  const std::uint32_t dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
  const std::uint32_t month = (5 * dayOfYear + 2) / 153;
  const bool isNextYear = dayOfYear >= kJanuary;
  const bool isLeapYear = yearOfEra % 4 == 0 && (yearOfEra % 100 != 0 || yearOfEra == 0);
  assert(month < 12 && yearOfEra < kYearsOfEra);
  fields.tm_year = static_cast<int>(yearOfEra + era * kYearsOfEra + (isNextYear ? 1 : 0) - 1900);
  fields.tm_mon = static_cast<int>(isNextYear ? month - 10 : month + 2);
  fields.tm_mday = static_cast<int>(dayOfYear - (153 * month + 2) / 5 + 1);
  fields.tm_hour = static_cast<int>(secondOfDay / 3600);
  fields.tm_min = static_cast<int>(secondOfDay / 60 % 60);
  fields.tm_sec = static_cast<int>(secondOfDay % 60);
  fields.tm_wday = static_cast<int>((dayOfEra + 3) % 7);  // an era has whole weeks
  fields.tm_yday = static_cast<int>(
      isNextYear ? dayOfYear - kJanuary : dayOfYear + kMarchOfCommonYear + (isLeapYear ? 1 : 0));
}

std::int64_t secondsOf(const std::tm& fields) {
  const int months = fields.tm_mon % 12 + (fields.tm_mon % 12 < 0 ? 12 : 0);
  const std::int64_t year =
      std::int64_t{1900} + fields.tm_year + (std::int64_t{fields.tm_mon} - months) / 12;
  return daysOf(year, static_cast<std::uint32_t>(months), fields.tm_mday) * kDay +
         std::int64_t{fields.tm_hour} * 3600 + std::int64_t{fields.tm_min} * 60 + fields.tm_sec;
}

}  // namespace VarnSupport
