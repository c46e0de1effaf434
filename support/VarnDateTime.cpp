#include "VarnSupport/VarnDateTime.h"

#include <cstring>
#include <cwchar>
#include <iterator>
#include <limits>
#include <memory>
#include <optional>
#include <sstream>
#include <string_view>
#include <tuple>
#include <typeinfo>

#include "Cancellation.h"
#include "LocalTime.h"
#include "VarnSupport/VarnLocaleFactory.h"

namespace VarnSupport {

namespace {

constexpr char kInvalid[] = "Input does not compute to a valid DateTime object";
constexpr char kIncorrectRfc[] = "Incorrect RFC1123 DateTime format";
constexpr char kIncorrect[] = "Incorrect DateTime format";
constexpr std::size_t kRfcLength = 29;
constexpr std::size_t kNumericLength = 19;
constexpr std::size_t kNamedLength = 25;
constexpr int kFirstYear = 1900;  // of a broken-down time
constexpr int kSystemDecides = -1;
constexpr int kNoDaylightSaving = 0;
constexpr wchar_t kDateAndTime[] = L"%c";

bool fits(std::int64_t value) {
  return value >= std::numeric_limits<std::int32_t>::min() &&
         value <= std::numeric_limits<std::int32_t>::max();
}

// A time as texts and callers give it: month from 0, full year.
struct Parts {
  std::int64_t day = 0;
  std::int64_t month = 0;
  std::int64_t year = 0;
  std::int64_t hour = 0;
  std::int64_t minute = 0;
  std::int64_t second = 0;
};

// Nothing when a part is beyond what a broken-down time can hold.
std::optional<std::tm> brokenDown(const Parts& parts, int daylightSaving) {
  const std::int64_t year = parts.year - kFirstYear;
  for (const std::int64_t value :
       {parts.day, parts.month, year, parts.hour, parts.minute, parts.second}) {
    if (!fits(value))
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

// Reads a text as scanf() does, up to its first NUL, but independently of the locale; numbers
// beyond 32 bits do not match.
class Scanner {
 public:
  explicit Scanner(const std::string& text) : m_pText(text.c_str()) {}

  // White space, then a word; what is longer than nine characters is left.
  bool word(std::string_view& word) {
    skipBlanks();
    std::size_t length = 0;
    while (length < kLongest && m_pText[length] != '\0' && !isBlank(m_pText[length]))
      ++length;
    word = {m_pText, length};
    m_pText += length;
    return length > 0;
  }

  // White space, a sign if there is one, digits.
  bool number(std::int64_t& number) {
    skipBlanks();
    const bool negative = *m_pText == '-';
    if (negative || *m_pText == '+')
      ++m_pText;
    const char* const digits = m_pText;
    std::int64_t value = 0;
    for (; *m_pText >= '0' && *m_pText <= '9'; ++m_pText) {
      value = value * 10 + (*m_pText - '0');
      if (!fits(-value))
        return false;
    }
    value = negative ? -value : value;
    if (m_pText == digits || !fits(value))
      return false;
    number = value;
    return true;
  }

  bool literal(char c) {
    if (*m_pText != c)
      return false;
    ++m_pText;
    return true;
  }

  // hour:minute:second. Parts before the first that does not match are set.
  bool timeOfDay(Parts& parts) {
    return number(parts.hour) && literal(':') && number(parts.minute) && literal(':') &&
           number(parts.second);
  }

 private:
  static constexpr std::size_t kLongest = 9;

  static bool isBlank(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

  void skipBlanks() {
    while (isBlank(*m_pText))
      ++m_pText;
  }

  const char* m_pText;
};

int monthIndex(std::string_view name) {
  constexpr std::size_t length = 3;  // of all names
  for (int i = 0; i < 12 && name.size() == length; ++i) {
    if (std::memcmp(name.data(), VarnDateTime::abbrevMonthNames[i], length) == 0)
      return i;
  }
  return 0;
}

// The three readers return what is wrong with the text, or null.

const char* readRfcText(const std::string& text, Parts& parts) {
  Scanner scanner(text);
  std::string_view weekday;
  std::string_view month;
  std::string_view zone;
  if (text.size() > kRfcLength ||
      !(scanner.word(weekday) && scanner.number(parts.day) && scanner.word(month) &&
        scanner.number(parts.year) && scanner.timeOfDay(parts) && scanner.word(zone)))
    return kIncorrectRfc;
  parts.month = monthIndex(month);
  return nullptr;
}

const char* readNumericText(const std::string& text, Parts& parts) {
  if (text.size() > kNumericLength)
    return kIncorrectRfc;  // the other form's message; callers rely on it
  Scanner scanner(text);
  if (!(scanner.number(parts.day) && scanner.literal('/') && scanner.number(parts.month) &&
        scanner.literal('/') && scanner.number(parts.year)))
    return kIncorrect;
  --parts.month;
  static_cast<void>(scanner.timeOfDay(parts));
  return nullptr;
}

const char* readNamedText(const std::string& text, Parts& parts) {
  Scanner scanner(text);
  std::string_view weekday;
  std::string_view month;
  if (text.size() > kNamedLength ||
      !(scanner.word(weekday) && scanner.word(month) && scanner.number(parts.day) &&
        scanner.timeOfDay(parts) && scanner.number(parts.year)))
    return kIncorrect;
  parts.month = monthIndex(month);
  return nullptr;
}

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

auto numbersOf(const std::tm& time) {
  return std::tie(time.tm_sec, time.tm_min, time.tm_hour, time.tm_mday, time.tm_mon, time.tm_year,
                  time.tm_wday, time.tm_yday, time.tm_isdst, time.tm_gmtoff);
}

// What formats times in one locale. The last one is kept, with the text of its last second: making
// it costs more than formatting, and formatting more than all the rest.
class Formatter {
 public:
  explicit Formatter(const std::locale& locale)
      : m_oLocale(locale),
        m_oFacet(std::use_facet<std::time_put<wchar_t>>(m_oLocale)),
        m_bStandard(typeid(m_oFacet) == typeid(std::time_put<wchar_t>) &&
                    typeid(std::use_facet<std::ctype<wchar_t>>(m_oLocale)) ==
                        typeid(std::ctype<wchar_t>)) {
    m_oStream.imbue(locale);
  }

  bool isFor(const std::locale& locale) const { return m_oLocale == locale; }

  // Only a locale that lives as long as the process, with a facet that leaves the stream as it is.
  bool mayBeKept() const {
    return m_bStandard &&
           (isFor(std::locale::classic()) || isFor(VarnLocaleFactory::m_oDefaultLocale));
  }

  std::wstring text(const std::tm& time, const wchar_t* format) {
    if (format != kDateAndTime)
      return formatted(time, format);
    const std::string_view zone = time.tm_zone != nullptr ? time.tm_zone : "";
    if (m_sText.empty() || numbersOf(time) != numbersOf(m_oTextTime) || zone != m_sTextZone) {
      m_sText = formatted(time, format);
      m_oTextTime = time;
      m_sTextZone = zone;
    }
    return m_sText;
  }

 private:
  std::wstring formatted(const std::tm& time, const wchar_t* format) {
    const std::wstring nothing;
    m_oStream.str(nothing);  // keeps its memory
    std::optional<ZoneUse> use;
    if (m_bStandard)
      use.emplace();
    m_oFacet.put(std::ostreambuf_iterator<wchar_t>(m_oStream), m_oStream, L' ', &time, format,
                 format + std::wcslen(format));
    return m_oStream.str();
  }

  std::locale m_oLocale;
  const std::time_put<wchar_t>& m_oFacet;
  const bool m_bStandard;  // no facet that is called is a user's, which may do anything
  std::wostringstream m_oStream;
  std::wstring m_sText;
  std::tm m_oTextTime{};
  std::string m_sTextZone;
};

constinit std::atomic<Formatter*> spareFormatter{nullptr};

}  // namespace

const char* const VarnDateTime::abbrevMonthNames[12] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                        "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
constinit std::atomic<std::uint32_t> VarnDateTime::m_objectCounter{0};

VarnDateTime::VarnDateTime() : m_oLocale(VarnLocaleFactory::getDefaultLocale(true)) {
  const CancellationGuard closed;
  std::tm now{};
  if (toLocalTime(std::time(nullptr), now) && fits(std::int64_t{now.tm_year} + kFirstYear))
    store(now);
  adjustInstanceId();
}

VarnDateTime::VarnDateTime(const VarnDateTime& source) { *this = source; }

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
  const Parts parts{day,   std::int64_t{month} - 1, std::int64_t{year} + kFirstYear, hour, minute,
                    second};
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
  Parts parts;
  const char* problem = nullptr;
  const bool isRfc = text.find(',') != std::string::npos;
  if (isRfc)
    problem = readRfcText(text, parts);
  else if (text.find('/') != std::string::npos)
    problem = readNumericText(text, parts);
  else
    problem = readNamedText(text, parts);
  if (problem != nullptr) {
    error = problem;
    return false;
  }
  std::optional<std::tm> time = brokenDown(parts, kSystemDecides);
  if (!time)
    throw VarnInvalidDateException(kInvalid);
  if (!isRfc) {
    *this = *time;
    return true;
  }
  // This form is normalised first, which leaves nothing else to refuse.
  if (fromLocalTime(*time) == -1 || !fits(std::int64_t{time->tm_year} + kFirstYear))
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
  std::tm time = localTime();
  const std::int64_t shifted = std::int64_t{time.*members[field]} + amount;
  if (fits(shifted)) {
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
  if (!fits(counted)) {
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

bool VarnDateTime::validateDateTime(const std::tm& time, std::string& error) {
  const CancellationGuard closed;
  std::tm copy = time;
  if (fits(std::int64_t{time.tm_year} + kFirstYear) && fromLocalTime(copy) != -1 &&
      copy.tm_mday == time.tm_mday && copy.tm_mon == time.tm_mon && copy.tm_year == time.tm_year &&
      copy.tm_hour == time.tm_hour && copy.tm_min == time.tm_min && copy.tm_sec == time.tm_sec)
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
  std::tm time = fields();
  return fromLocalTime(time);
}

int VarnDateTime::day() const { return localTime().tm_yday + 1; }

int VarnDateTime::getWeekday() const { return localTime().tm_wday; }

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
  const auto product = static_cast<std::uint32_t>(getTime()) * 41358U + m_nInstanceId;
  const auto value = static_cast<long double>(product);
  return static_cast<unsigned int>(value - value / 28 * 28);  // the quotient keeps its fraction
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
  const std::tm time = localTime();
  return constructTimeString(&time, locale, kDateAndTime);
}

std::wstring VarnDateTime::toGMTString() const {
  const CancellationGuard closed;
  const std::time_t time = getTime();
  std::tm utc = fields();
  toUniversalTime(time, utc);
  return constructTimeString(&utc, m_oLocale, kDateAndTime);
}

std::wstring VarnDateTime::constructTimeString(const std::tm* time, const std::locale& locale,
                                               const wchar_t* format) {
  const CancellationGuard closed;
  std::unique_ptr<Formatter> formatter(spareFormatter.exchange(nullptr));
  if (formatter == nullptr || !formatter->isFor(locale))
    formatter = std::make_unique<Formatter>(locale);
  std::wstring text = formatter->text(*time, format);
  if (formatter->mayBeKept())
    formatter.reset(spareFormatter.exchange(formatter.release()));
  return text;
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

// The same with weekday, day of the year and zone.
std::tm VarnDateTime::localTime() const {
  const CancellationGuard closed;
  std::tm time = fields();
  static_cast<void>(fromLocalTime(time));
  return time;
}

// Requires: the time is valid.
void VarnDateTime::store(const std::tm& time) {
  m_nDay = static_cast<std::uint32_t>(time.tm_mday);
  m_nMonth = time.tm_mon;
  m_nYear = time.tm_year + kFirstYear;
  m_nHour = time.tm_hour;
  m_nMinute = time.tm_min;
  m_nSecond = time.tm_sec;
}

}  // namespace VarnSupport
