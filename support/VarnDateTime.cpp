// The six fields of an object are what it stores; zone, weekday and daylight saving are asked of
// the system each time. Every change takes one way: a broken-down time is made, validateDateTime()
// sees whether the system's own normalising leaves it alone, and store() takes it over. Two changes
// differ in what they normalise first: texts of the RFC form, and modifyDate(), whose sum need not
// exist.
//
// A number outside of an int never gets to the system, whose sums would overflow: see fitsInt().
#include "VarnSupport/VarnDateTime.h"

#include <cassert>
#include <iterator>
#include <optional>
#include <string_view>

#include "VarnSupport/VarnLocaleFactory.h"
#include "runtime/Cancellation.h"
#include "runtime/GlobalLocale.h"
#include "time/DateText.h"
#include "time/LocalTime.h"

namespace VarnSupport {

namespace {

constexpr char kInvalid[] = "Input does not compute to a valid DateTime object";
constexpr int kFirstYear = 1900;  // of a broken-down time
constexpr int kSystemDecides = -1;
constexpr int kNoDaylightSaving = 0;

// The parts as a broken-down time, or nothing when one of them is beyond what that can hold.
std::optional<std::tm> brokenDown(const DateParts& parts, int daylightSaving) {
  const std::int64_t year = parts.year - kFirstYear;
  for (const std::int64_t value :
       {parts.day, parts.month, year, parts.hour, parts.minute, parts.second}) {
    if (!fitsInt(value))
      return std::nullopt;
  }
  std::tm time{};
  time.tm_mday = static_cast<int>(parts.day);
  time.tm_mon = static_cast<int>(parts.month);
  time.tm_year = static_cast<int>(year);
  time.tm_hour = static_cast<int>(parts.hour);
  time.tm_min = static_cast<int>(parts.minute);
  time.tm_sec = static_cast<int>(parts.second);
  time.tm_isdst = daylightSaving;
  return time;
}

// Puts the text of the exception, which has a prefix, into `error`.
bool refuse(const std::string& message, std::string& error) {
  error = VarnInvalidDateException(message).getText();
  return false;
}

// The message of a shift that fails: its end depends on field and amount, and callers rely on it.
std::string shiftMessage(std::int64_t fieldAndAmount) {
  constexpr std::string_view with = " with ";
  std::string message = "Subtracting does not compute to a valid Date. Trying to subtract field,";
  if (fieldAndAmount >= 0 && fieldAndAmount <= std::ssize(with))
    message += with.substr(static_cast<std::size_t>(fieldAndAmount));
  return message;
}

}  // namespace

constinit std::atomic<std::uint32_t> VarnDateTime::m_objectCounter{0};

// A present time that no object can hold, as the year is beyond 32 bits, leaves 1 January 1970.
VarnDateTime::VarnDateTime() : m_oLocale(VarnLocaleFactory::getDefaultLocale()) {
  const CancellationGuard closed;
  std::tm now{};
  if (toLocalTime(std::time(nullptr), now) && fitsInt(std::int64_t{now.tm_year} + kFirstYear))
    store(now);
  adjustInstanceId();
}

VarnDateTime::VarnDateTime(const VarnDateTime& source) : m_oLocale(globalLocale()) {
  *this = source;
}

VarnDateTime& VarnDateTime::operator=(const VarnDateTime& source) {
  m_nDay = source.m_nDay;
  m_nMonth = source.m_nMonth;
  m_nYear = source.m_nYear;
  m_nHour = source.m_nHour;
  m_nMinute = source.m_nMinute;
  m_nSecond = source.m_nSecond;
  m_nInstanceId = source.m_nInstanceId;
  return *this;
}

VarnDateTime::~VarnDateTime() = default;

VarnDateTime& VarnDateTime::operator=(const std::tm& time) {
  const CancellationGuard closed;
  std::string message;
  if (!operatorImpl(time, message))
    throw VarnInvalidDateException(message);
  return *this;
}

bool VarnDateTime::setDateTimeFromTmImpl(const std::tm& time, std::string& error) {
  const CancellationGuard closed;
  std::string message;
  return operatorImpl(time, message) || refuse(message, error);
}

bool VarnDateTime::setDateImpl(unsigned int day, unsigned int month, unsigned int year,
                               std::string& error) {
  return setDateTimeImpl(day, month, year, 0, 0, 0, error);
}

bool VarnDateTime::setDateTimeImpl(unsigned int day, unsigned int month, unsigned int year,
                                   unsigned int hour, unsigned int minute, unsigned int second,
                                   std::string& error) {
  const CancellationGuard closed;
  const DateParts parts{
      day, std::int64_t{month} - 1, std::int64_t{year} + kFirstYear, hour, minute, second};
  const std::optional<std::tm> time = brokenDown(parts, kNoDaylightSaving);
  if (!time)
    return refuse(kInvalid, error);
  if (!setDateTimeFromTmImpl(*time, error))
    return false;
  adjustInstanceId();
  return true;
}

bool VarnDateTime::setDateTime(const std::string& text, std::string& error) {
  const CancellationGuard closed;
  DateParts parts;
  DateForm form{};
  if (const char* const problem = readDate(text, form, parts)) {
    error = problem;
    return false;
  }
  std::optional<std::tm> time = brokenDown(parts, kSystemDecides);
  if (!time)
    throw VarnInvalidDateException(kInvalid);
  if (form != DateForm::RFC1123) {
    *this = *time;
    return true;
  }
  // The RFC form is normalised first, which leaves nothing else to refuse.
  if (fromLocalTime(*time) == -1 || !fitsInt(std::int64_t{time->tm_year} + kFirstYear))
    throw VarnInvalidDateException(kInvalid);
  store(*time);
  adjustInstanceId();
  return true;
}

bool VarnDateTime::setDateTimeFromStrImpl(const std::string& text, std::string& error) {
  const CancellationGuard closed;
  try {
    if (!setDateTime(text, error))
      return false;
  } catch (const VarnInvalidDateException& invalid) {
    error = invalid.getText();
    return false;
  }
  adjustInstanceId();
  return true;
}

// The first normalising finds out whether the sum exists at all; what comes of it is then validated
// as any other time, under the daylight-saving rule that the system has found.
bool VarnDateTime::modifyDate(FieldId_t field, int amount, std::string& error) {
  static constexpr int std::tm::*members[] = {&std::tm::tm_mon,  &std::tm::tm_mday,
                                              &std::tm::tm_year, &std::tm::tm_hour,
                                              &std::tm::tm_min,  &std::tm::tm_sec};
  if (amount == 0)
    return false;
  const CancellationGuard closed;
  if (field >= std::size(members)) {
    error = "Invalid Field : Exceeds 5";
    return false;
  }
  std::tm time = fields();
  std::int64_t shifted = std::int64_t{time.*members[field]} + amount;
  if (fitsInt(shifted) && shiftLocalTime(time, members[field], static_cast<int>(shifted))) {
    store(time);
    adjustInstanceId();
    return true;
  }
  time = localTime();
  shifted = std::int64_t{time.*members[field]} + amount;
  if (fitsInt(shifted)) {
    time.*members[field] = static_cast<int>(shifted);
    if (fromLocalTime(time) != -1)
      return setDateTimeFromTmImpl(time, error);
  }
  error = shiftMessage(std::int64_t{field} + amount);
  return false;
}

bool VarnDateTime::setYearImpl(unsigned int year, std::string& error) const {
  const CancellationGuard closed;
  std::tm time = fields();
  const std::int64_t counted = std::int64_t{year} - kFirstYear;
  if (!fitsInt(counted)) {
    error = kInvalid;
    return false;
  }
  time.tm_year = static_cast<int>(counted);
  return validateDateTime(time, error);
}

bool VarnDateTime::setMonthImpl(unsigned int month, std::string& error) const {
  const CancellationGuard closed;
  if (month < 1 || month > 12) {
    error = "Invalid Month : Exceeds 12";
    return false;
  }
  std::tm time = fields();
  time.tm_mon = static_cast<int>(month) - 1;
  return validateDateTime(time, error);
}

bool VarnDateTime::setDayImpl(unsigned int day, std::string& error) const {
  const CancellationGuard closed;
  if (day < 1 || day > 31) {
    error = "Invalid Day : Exceeds 31";
    return false;
  }
  std::tm time = fields();
  time.tm_mday = static_cast<int>(day);
  return validateDateTime(time, error);
}

// A year that only the system's counting from 1900 can hold would overflow in store().
bool VarnDateTime::validateDateTime(const std::tm& time, std::string& error) {
  const CancellationGuard closed;
  if (fitsInt(std::int64_t{time.tm_year} + kFirstYear) && isLocalTime(time))
    return true;
  error = kInvalid;
  return false;
}

bool VarnDateTime::operatorImpl(const std::tm& time, std::string& error) {
  if (!validateDateTime(time, error))
    return false;
  store(time);
  adjustInstanceId();
  return true;
}

std::time_t VarnDateTime::getTime() const {
  const CancellationGuard closed;
  return timeOfLocal(fields());
}

int VarnDateTime::day() const { return localTime().tm_yday + 1; }

int VarnDateTime::getWeekday() const { return localTime().tm_wday; }

// Asks the system for 29 February, which becomes 1 March in a common year.
bool VarnDateTime::isLeapYear() const {
  const CancellationGuard closed;
  constexpr int february = 1;
  std::tm time = fields();
  time.tm_mday = 29;
  time.tm_mon = february;
  static_cast<void>(fromLocalTime(time));
  return time.tm_mday == 29 || time.tm_mon == february;
}

unsigned int VarnDateTime::hash() const {
  return 0;  // callers rely on it
}

int VarnDateTime::getMonthForRFCName(const std::string& name) { return monthIndex(name); }

void VarnDateTime::adjustInstanceId() {
  m_nInstanceId = m_objectCounter.fetch_add(1, std::memory_order_relaxed);
}

std::wstring VarnDateTime::monthName(const std::locale& locale) const {
  const std::tm time = localTime();
  return constructTimeString(&time, locale, L"%B");
}

std::wstring VarnDateTime::weekdayName(const std::locale& locale) const {
  const std::tm time = localTime();
  return constructTimeString(&time, locale, L"%A");
}

std::wstring VarnDateTime::dateToString(const std::locale& locale) const {
  const std::tm time = localTime();
  return constructTimeString(&time, locale, L"%X");
}

std::wstring VarnDateTime::timeToString(const std::locale& locale) const {
  const std::tm time = localTime();
  return constructTimeString(&time, locale, L"%x");
}

std::wstring VarnDateTime::toString(const std::locale& locale) const {
  const CancellationGuard closed;
  return formatDateAndTime(localTime(), locale);
}

// Where the year of UTC does not fit, the local fields are what is formatted.
std::wstring VarnDateTime::toGMTString() const {
  const CancellationGuard closed;
  const std::time_t time = getTime();
  std::tm utc = fields();
  toUniversalTime(time, utc);
  return formatDateAndTime(utc, m_oLocale);
}

std::wstring VarnDateTime::constructTimeString(const std::tm* time, const std::locale& locale,
                                               const wchar_t* format) {
  const CancellationGuard closed;
  return formatTime(*time, locale, format);
}

// The stored fields as they are, with whatever daylight-saving rule the system finds for them.
std::tm VarnDateTime::fields() const {
  std::tm time{};
  time.tm_mday = static_cast<int>(m_nDay);
  time.tm_mon = m_nMonth;
  time.tm_year = static_cast<int>(std::int64_t{m_nYear} - kFirstYear);
  time.tm_hour = m_nHour;
  time.tm_min = m_nMinute;
  time.tm_sec = m_nSecond;
  time.tm_isdst = kSystemDecides;
  return time;
}

// The stored fields with weekday, day of the year and zone. Fields that do not exist any more, as
// TZ has changed, come out normalised.
std::tm VarnDateTime::localTime() const {
  const CancellationGuard closed;
  std::tm time = fields();
  static_cast<void>(fromLocalTime(time));
  return time;
}

// Requires: the time is one that the system has made or left as it is.
void VarnDateTime::store(const std::tm& time) {
  assert(time.tm_mon >= 0 && time.tm_mon < static_cast<int>(std::size(abbrevMonthNames)));
  assert(time.tm_mday >= 1 && time.tm_mday <= 31 && time.tm_hour >= 0 && time.tm_hour < 24);
  assert(time.tm_min >= 0 && time.tm_min < 60 && time.tm_sec >= 0 && time.tm_sec <= 60);
  assert(fitsInt(std::int64_t{time.tm_year} + kFirstYear));
  m_nDay = static_cast<std::uint32_t>(time.tm_mday);
  m_nMonth = time.tm_mon;
  m_nYear = time.tm_year + kFirstYear;
  m_nHour = time.tm_hour;
  m_nMinute = time.tm_min;
  m_nSecond = time.tm_sec;
}

}  // namespace VarnSupport
