// Reading: the forms are those of a scanf() format each, but that function follows the locale, and
// takes numbers without a limit. A scanner with the same steps reads them here, so that a text
// means the same in every process. Month names are English for the same reason.
//
// Writing: a locale's facet does it. To make the stream that the facet writes to costs more than to
// format, and to format more than all the rest. So one formatter is kept for the next call, with
// the last text of its date and time. Threads take it, and put it back, by an exchange; a thread
// that finds none makes its own.
#include "time/DateText.h"

#include <atomic>
#include <cassert>
#include <cstring>
#include <cwchar>
#include <iterator>
#include <memory>
#include <optional>
#include <sstream>
#include <tuple>
#include <typeinfo>

#include "VarnSupport/VarnDateTime.h"
#include "VarnSupport/VarnLocaleFactory.h"
#include "runtime/BriefGate.h"
#include "time/LocalTime.h"

namespace VarnSupport {

// Defined here, where the compiler can make constants of what monthIndex() compares with.
const char* const VarnDateTime::abbrevMonthNames[12] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                        "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

namespace {

constexpr char kIncorrectRfc[] = "Incorrect RFC1123 DateTime format";
constexpr char kIncorrect[] = "Incorrect DateTime format";
constexpr std::size_t kRfcLength = 29;
constexpr std::size_t kNumericLength = 19;
constexpr std::size_t kNamedLength = 25;
constexpr wchar_t kDateAndTime[] = L"%c";

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
      if (!fitsInt(-value))
        return false;
    }
    value = negative ? -value : value;
    if (m_pText == digits || !fitsInt(value))
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
  bool timeOfDay(DateParts& parts) {
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

// The three readers return what is wrong with the text, or null.

const char* readRfcText(const std::string& text, DateParts& parts) {
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

const char* readNumericText(const std::string& text, DateParts& parts) {
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

const char* readNamedText(const std::string& text, DateParts& parts) {
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

auto numbersOf(const std::tm& time) {
  return std::tie(time.tm_sec, time.tm_min, time.tm_hour, time.tm_mday, time.tm_mon, time.tm_year,
                  time.tm_wday, time.tm_yday, time.tm_isdst, time.tm_gmtoff);
}

// What formats times in one locale.
class Formatter {
 public:
  explicit Formatter(const std::locale& locale)
      : m_oLocale(locale),
        m_oFacet(std::use_facet<std::time_put<wchar_t>>(m_oLocale)),
        m_bStandard(hasStandard<std::time_put<wchar_t>>(locale) &&
                    hasStandard<std::ctype<wchar_t>>(locale)) {
    m_oStream.imbue(locale);
  }

  bool isFor(const std::locale& locale) const { return m_oLocale == locale; }

  // Only a locale that lives as long as the process, with a facet that leaves the stream as it is.
  bool mayBeKept() const {
    return m_bStandard &&
           (isFor(std::locale::classic()) || isFor(VarnLocaleFactory::m_oDefaultLocale));
  }

  std::wstring text(const std::tm& time, const wchar_t* format) {
    // A standard facet writes to the stream's buffer alone.
    assert(!m_bStandard || (m_oStream.good() && m_oStream.flags() == kPlainFlags));
    const std::wstring nothing;
    m_oStream.str(nothing);  // keeps its memory
    std::optional<ZoneUse> use;
    if (m_bStandard)
      use.emplace();
    m_oFacet.put(std::ostreambuf_iterator<wchar_t>(m_oStream), m_oStream, L' ', &time, format,
                 format + std::wcslen(format));
    return m_oStream.str();
  }

  // Two times have the same text when they agree in all that a format can ask for.
  std::wstring dateAndTime(const std::tm& time) {
    const std::string_view zone = time.tm_zone != nullptr ? time.tm_zone : "";
    if (m_sText.empty() || numbersOf(time) != numbersOf(m_oTextTime) || zone != m_sTextZone) {
      m_sText = text(time, kDateAndTime);
      m_oTextTime = time;
      m_oTextTime.tm_zone = nullptr;  // belongs to whoever gave the time
      m_sTextZone = zone;
    }
    return m_sText;
  }

 private:
  template <typename Facet>
  static bool hasStandard(const std::locale& locale) {
    const auto& facet = std::use_facet<Facet>(locale);
    return typeid(facet) == typeid(Facet);
  }

  [[maybe_unused]] static constexpr std::ios_base::fmtflags kPlainFlags =
      std::ios_base::skipws | std::ios_base::dec;

  std::locale m_oLocale;
  const std::time_put<wchar_t>& m_oFacet;
  const bool m_bStandard;  // no facet that is called is a user's, which may do anything
  // It takes the lock of the global locale.
  std::wostringstream m_oStream = BriefGate::inside([] { return std::wostringstream(); });
  std::wstring m_sText;  // of m_oTextTime in the zone m_sTextZone
  std::tm m_oTextTime{};
  std::string m_sTextZone;
};

constinit std::atomic<Formatter*> spareFormatter{nullptr};

// Runs `step` with a formatter for the locale: the spare one if that is free and fits. A formatter
// that may not be kept goes at once, and so does a spare one that another thread has put back
// meanwhile.
template <typename Step>
std::wstring withFormatter(const std::locale& locale, Step step) {
  std::unique_ptr<Formatter> formatter(spareFormatter.exchange(nullptr));
  if (formatter == nullptr || !formatter->isFor(locale))
    formatter = std::make_unique<Formatter>(locale);
  std::wstring text = step(*formatter);
  if (formatter->mayBeKept())
    formatter.reset(spareFormatter.exchange(formatter.release()));
  return text;
}

}  // namespace

int monthIndex(std::string_view name) {
  constexpr std::size_t length = 3;  // of all names
  constexpr int count = std::size(VarnDateTime::abbrevMonthNames);
  for (int i = 0; i < count && name.size() == length; ++i) {
    if (std::memcmp(name.data(), VarnDateTime::abbrevMonthNames[i], length) == 0)
      return i;
  }
  return 0;
}

const char* readDate(const std::string& text, DateForm& form, DateParts& parts) {
  if (text.find(',') != std::string::npos) {
    form = DateForm::RFC1123;
    return readRfcText(text, parts);
  }
  if (text.find('/') != std::string::npos) {
    form = DateForm::NUMERIC;
    return readNumericText(text, parts);
  }
  form = DateForm::NAMED;
  return readNamedText(text, parts);
}

std::wstring formatTime(const std::tm& time, const std::locale& locale, const wchar_t* format) {
  return withFormatter(locale, [&](Formatter& formatter) { return formatter.text(time, format); });
}

std::wstring formatDateAndTime(const std::tm& time, const std::locale& locale) {
  return withFormatter(locale, [&](Formatter& formatter) { return formatter.dateAndTime(time); });
}

}  // namespace VarnSupport
