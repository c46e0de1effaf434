// The texts of dates: the three forms that are read, and the formats of locales that are written.
// Safe from any thread. Callers keep cancellation closed.
#ifndef SUPPORT_TIME_DATETEXT_H
#define SUPPORT_TIME_DATETEXT_H

#include <cstdint>
#include <ctime>
#include <limits>
#include <locale>
#include <string>
#include <string_view>

namespace VarnSupport {

// A time as texts and callers give it: the month counts from 0, the year is the full one, and no
// part need be in its range.
struct DateParts {
  std::int64_t day = 0;
  std::int64_t month = 0;
  std::int64_t year = 0;
  std::int64_t hour = 0;
  std::int64_t minute = 0;
  std::int64_t second = 0;
};

// The forms of VarnDateTime::setDateTime().
enum class DateForm { RFC1123, NUMERIC, NAMED };

// Whether a member of a broken-down time can hold a number.
inline bool fitsInt(std::int64_t value) {
  return value >= std::numeric_limits<std::int32_t>::min() &&
         value <= std::numeric_limits<std::int32_t>::max();
}

// Reads `text` in the form that a comma, or else a slash, anywhere in it tells. Returns what is
// wrong with the text, or null. Each number of `parts` fits 32 bits, but for a month of the numeric
// form, which may be one less.
const char* readDate(const std::string& text, DateForm& form, DateParts& parts);

// The index of a name in VarnDateTime::abbrevMonthNames, exactly as written there; 0, January, for
// any other.
int monthIndex(std::string_view name);

// What the locale's std::time_put facet makes of a time.
std::wstring formatTime(const std::tm& time, const std::locale& locale, const wchar_t* format);

// The locale's own date and time, "%c". Remembers the last text: programs ask for the present time
// many times within a second, to stamp what they send or store.
std::wstring formatDateAndTime(const std::tm& time, const std::locale& locale);

}  // namespace VarnSupport

#endif
