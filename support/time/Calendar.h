// Dates of the Gregorian calendar and their seconds since 1 January 1970, without any zone.
#ifndef SUPPORT_TIME_CALENDAR_H
#define SUPPORT_TIME_CALENDAR_H

#include <cstdint>
#include <ctime>

namespace VarnSupport {

constexpr std::int64_t kDay = 86400;  // in seconds

// The broken-down fields of `seconds`. Leaves those of the zone alone. Requires: the year fits.
void breakDown(std::int64_t seconds, std::tm& fields);

// The seconds of fields that need not be normalised.
std::int64_t secondsOf(const std::tm& fields);

}  // namespace VarnSupport

#endif
