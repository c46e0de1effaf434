// Tokens are split by one function for all forms, which differ in what ends a token and in what
// becomes of its delimiter. Hexadecimal digits are worked out without tables or branches, so that
// the compiler can do many at once; what is no digit gives some nibble, as there is no test for it.
#include "VarnSupport/VarnStringUtilities.h"

#include <algorithm>
#include <atomic>
#include <cassert>
#include <climits>
#include <cstdint>
#include <cstring>
#include <exception>
#include <type_traits>
#include <typeinfo>
#include <utility>

#include "VarnSupport/VarnException.h"
#include "runtime/Cancellation.h"
#include "text/DelimiterSet.h"
#include "text/TextSearch.h"

namespace VarnSupport {

namespace {

// Runs a conversion and reports what it throws. The text is widened by hand: converting it in the
// usual way could fail in the same way, without end.
template <typename Conversion>
auto converted(const char* failure, Conversion conversion) {
  try {
    return conversion();
  } catch (const VarnException&) {
    throw;
  } catch (const std::exception& error) {
    std::wstring text;
    for (const char c : std::string(failure) + error.what())
      text += static_cast<signed char>(c) < 0 ? L' ' : static_cast<wchar_t>(c);
    throw VarnException(text, 0);
  } catch (...) {
    passOnCancellation();
    std::terminate();
  }
}

using Facet = std::ctype<wchar_t>;

// Never destroyed, so that its address tells it from all others. Each thread that comes early finds
// it by itself: the child of a fork would wait for ever for one that it does not have.
const Facet& classicFacet() {
  static constinit std::atomic<const Facet*> kept{nullptr};
  const Facet* facet = kept.load(std::memory_order_relaxed);
  if (facet == nullptr) {
    facet = &std::use_facet<Facet>(std::locale::classic());
    kept.store(facet, std::memory_order_relaxed);
  }
  return *facet;
}

// Copies characters; false if not all of them are ASCII, which narrow and wide text share.
template <typename From, typename To>
bool copyAscii(const From* text, std::size_t length, To* to) {
  std::make_unsigned_t<From> all = 0;
  for (std::size_t i = 0; i < length; ++i) {
    all |= static_cast<std::make_unsigned_t<From>>(text[i]);
    to[i] = static_cast<To>(text[i]);
  }
  return all < 0x80;
}

// What `convert` makes of `text`, up to the first NUL. The standard facet makes one character of
// each, and NUL of NUL alone, so it can write into the result. Others get room for four of each.
template <typename Result, typename Text, typename Conversion>
Result upToNul(const Text& text, const Facet& facet, Conversion convert) {
  using CharT = typename Result::value_type;
  if (typeid(facet) != typeid(Facet)) {
    std::vector<CharT> buffer((text.size() + 1) * 4);
    convert(text.data(), text.data() + text.size(), buffer.data());
    return Result(buffer.data());
  }
  const std::size_t length = Text::traits_type::length(text.c_str());
  Result result(length, CharT());
  if (&facet != &classicFacet() || !copyAscii(text.data(), length, result.data()))
    convert(text.data(), text.data() + length, result.data());
  return result;
}

// How many tokens to make room for when there are `found` in [begin, text): what there will be if
// [text, end) goes on like that, but not too much for a guess.
std::size_t expectedTokens(std::size_t found, const char* begin, const char* text,
                           const char* end) {
  assert(begin <= text && text <= end);
  constexpr std::size_t first = 8;
  constexpr std::size_t mostGrowth = 16;
  if (found == 0)
    return first;
  const auto read = static_cast<std::size_t>(text - begin);
  const auto left = static_cast<std::size_t>(end - text);
  const std::size_t rest = left / std::max<std::size_t>(read / found, 1) + 1;
  return found + std::min(rest, found * mostGrowth);
}

// The first of one delimiter in [text, end), else the end. Most tokens are short: a call is worth
// its price behind their first characters alone.
template <typename CharT>
CharT* endOfToken(CharT* text, CharT* end, SingleDelimiter delimiter) {
  constexpr std::size_t near = kLanes<char>;
  if (static_cast<std::size_t>(end - text) < near)
    return std::find(text, end, delimiter.get());
  const std::size_t lane = firstLane<char>(load<char>(text) == delimiter.get());
  if (lane < near)
    return text + lane;
  const auto left = static_cast<std::size_t>(end - text) - near;
  const void* const far = std::memchr(text + near, delimiter.get(), left);
  return far == nullptr ? end : text + (static_cast<const char*>(far) - text);
}

// The first of several.
template <typename CharT>
CharT* endOfToken(CharT* text, CharT* end, const DelimiterSet& delimiters) {
  return std::find_if(text, end, [&](char c) { return delimiters.holds(c); });
}

// Appends the token that ends at `tokenEnd`, in a text that goes on to `end`. Characters of a
// number that is known, and takes no memory, are copied without a call.
void appendToken(const char* text, const char* tokenEnd, const char* end,
                 std::vector<std::string>& tokens) {
  constexpr std::ptrdiff_t shortToken = 15;
  if (tokenEnd - text <= shortToken && end - text >= shortToken)
    tokens.emplace_back(text, shortToken).resize(static_cast<std::size_t>(tokenEnd - text));
  else
    tokens.emplace_back(text, tokenEnd);
}

// Appends the tokens of [begin, end) and calls `ended` with each delimiter that ends one.
template <typename CharT, typename Delimiters, typename Ended>
void splitTokens(CharT* begin, CharT* end, const Delimiters& delimiters,
                 std::vector<std::string>& tokens, Ended ended) {
  CharT* text = begin;
  while (true) {
    text = std::find_if_not(text, end, [&](char c) { return delimiters.holds(c); });
    if (text == end)
      return;
    CharT* const tokenEnd = endOfToken(text, end, delimiters);
    if (tokens.size() == tokens.capacity())
      tokens.reserve(expectedTokens(tokens.size(), begin, text, end));
    appendToken(text, tokenEnd, end, tokens);
    if (tokenEnd == end)
      return;
    ended(tokenEnd);
    text = tokenEnd + 1;
  }
}

// The tokens of a NUL-terminated text.
template <typename CharT, typename Ended>
std::vector<std::string> tokensOf(CharT* text, const char* delimiters, Ended ended) {
  std::vector<std::string> tokens;
  CharT* const end = text + std::strlen(text);
  if (std::strlen(delimiters) == 1)
    splitTokens(text, end, SingleDelimiter(*delimiters), tokens, ended);
  else
    splitTokens(text, end, DelimiterSet(delimiters), tokens, ended);
  return tokens;
}

// Hexadecimal digits in arithmetic of eight bits, which the compiler turns into vectors.
std::uint8_t lowNibbleOf(char digit) {
  const auto value = static_cast<std::int8_t>(digit);
  const std::uint8_t letter = value >= 'A' ? 'A' - '9' - 1 : 0;
  const std::uint8_t small = value >= 'a' ? 'a' - 'A' : 0;
  return static_cast<std::uint8_t>(value - '0' - letter - small);
}

// The same, but only its lower four bits count.
std::uint8_t highNibbleOf(char digit) {
  const auto value = static_cast<std::int8_t>(digit);
  return static_cast<std::uint8_t>(value + (value >= 'A' ? 9 : 0));
}

char digitOf(int nibble) {
  assert(nibble >= 0 && nibble <= 0x0F);
  const auto value = static_cast<std::int8_t>(nibble);
  return static_cast<char>(value + '0' + (value > 9 ? 'A' - '9' - 1 : 0));
}

}  // namespace

UnconvertingCtype::UnconvertingCtype(unsigned int references) : std::ctype<wchar_t>(references) {}

UnconvertingCtype::~UnconvertingCtype() = default;

// Conversions of ranges return where they began, as though nothing had to be written.
const char* UnconvertingCtype::do_widen(const char* low, const char*, wchar_t*) const {
  return low;
}

char UnconvertingCtype::do_narrow(wchar_t, char fallback) const { return fallback; }

const wchar_t* UnconvertingCtype::do_narrow(const wchar_t* low, const wchar_t*, char, char*) const {
  return low;
}

wchar_t UnconvertingCtype::do_widen(char, wchar_t fallback) const { return fallback; }

ansi_ctype::ansi_ctype(unsigned int references) : UnconvertingCtype(references) {}

ansi_ctype::~ansi_ctype() = default;

utf8_ctype::utf8_ctype(unsigned int references) : UnconvertingCtype(references) {}

utf8_ctype::~utf8_ctype() = default;

// Where no other character is found, npos + 1 is an end of 0, which leaves nothing.
template <typename StringT>
StringT VarnStringUtilities::trim(const StringT& text, const StringT& chars, tTrimOption option) {
  const CancellationGuard closed;
  // To look for one character is faster than for any of a text of one.
  const auto range = [&](const auto& wanted) {
    const bool isLeft = option == TRIM_LEFT || option == TRIM_BOTH;
    const bool isRight = option == TRIM_RIGHT || option == TRIM_BOTH;
    return std::pair(isLeft ? std::min(text.find_first_not_of(wanted), text.size()) : 0,
                     isRight ? text.find_last_not_of(wanted) + 1 : text.size());
  };
  const auto [begin, end] = chars.size() == 1 ? range(chars.front()) : range(chars);
  return begin < end ? text.substr(begin, end - begin) : StringT();
}

template VSUPT_EXPORT std::string VarnStringUtilities::trim(const std::string&, const std::string&,
                                                            tTrimOption);
template VSUPT_EXPORT std::wstring VarnStringUtilities::trim(const std::wstring&,
                                                             const std::wstring&, tTrimOption);

std::string VarnStringUtilities::narrow(const std::wstring& text, std::locale locale) {
  const CancellationGuard closed;
  return converted(
      "VarnStringUtilities::narrow: ctype facet cannot be created for the locale - ", [&] {
        const auto& facet = std::use_facet<Facet>(locale);
        return upToNul<std::string>(
            text, facet, [&](auto low, auto high, auto to) { facet.narrow(low, high, ' ', to); });
      });
}

std::wstring VarnStringUtilities::widen(const std::string& text, std::locale locale) {
  const CancellationGuard closed;
  return converted(
      "VarnStringUtilities::widen: ctype facet cannot be created for the locale - ", [&] {
        const auto& facet = std::use_facet<Facet>(locale);
        return upToNul<std::wstring>(
            text, facet, [&](auto low, auto high, auto to) { facet.widen(low, high, to); });
      });
}

void VarnTokenizer(char* list, std::vector<std::string>& tokens) {
  const CancellationGuard closed;
  std::vector<std::string> found;
  for (const char* member = list; member != nullptr && *member != '\0';
       member += found.back().size() + 1)
    found.emplace_back(member);
  tokens = std::move(found);
}

// Two NULs: one for the last string, one for the list.
void VarnTokenizer(const std::string& list, std::vector<std::string>& tokens) {
  const CancellationGuard closed;
  std::string closedList(list);
  closedList.append(2, '\0');
  VarnTokenizer(closedList.data(), tokens);
}

void VarnTokenizer(char* text, const std::string& delimiters, std::vector<std::string>& tokens) {
  const CancellationGuard closed;
  if (text == nullptr)
    tokens.clear();
  else
    tokens = tokensOf(text, delimiters.c_str(), [](char* delimiter) { *delimiter = '\0'; });
}

void VarnTokenizer(const std::string& text, const std::string& delimiters,
                   std::vector<std::string>& tokens) {
  const CancellationGuard closed;
  tokens = tokensOf(text.c_str(), delimiters.c_str(), [](const char*) {});
}

std::string VarnExtractFirstString(const std::string& line, std::string& rest) {
  const CancellationGuard closed;
  const bool quoted = !line.empty() && line[0] == '"';
  const std::size_t begin = quoted ? 1 : 0;
  const std::size_t end = quoted ? line.find('"', begin) : line.find_first_of(" \t");
  std::string first = line.substr(begin, end - begin);
  if (end != std::string::npos)
    rest = line.substr(end + 1);
  else if (quoted)
    rest = first;  // the position after a missing quote wraps; callers rely on it
  else
    rest.clear();
  return first;
}

int VarnHexToBytes(char* out, const std::string& hex) {
  const std::size_t count = std::min<std::size_t>(hex.size() / 2, INT_MAX);
  assert(count == 0 || out != nullptr);
  const char* const digits = hex.data();
  for (std::size_t i = 0; i < count; ++i)
    out[i] = static_cast<char>(highNibbleOf(digits[2 * i]) << 4 | lowNibbleOf(digits[2 * i + 1]));
  return static_cast<int>(count);
}

std::string VarnBytesToHex(const char* bytes, int length) {
  const CancellationGuard closed;
  const std::size_t count = length > 0 ? static_cast<std::size_t>(length) : 0;
  std::string hex(2 * count, '\0');
  char* const digits = hex.data();
  for (std::size_t i = 0; i < count; ++i) {
    const auto byte = static_cast<unsigned char>(bytes[i]);
    digits[2 * i] = digitOf(byte >> 4);
    digits[2 * i + 1] = digitOf(byte & 0x0F);
  }
  return hex;
}

// A negative size is a huge one here, and passes; callers rely on it.
char* VarnStringToChar(const std::string& text, char* buffer, int size) {
  if (buffer == nullptr || static_cast<std::size_t>(size) <= text.size())
    return nullptr;
  std::memcpy(buffer, text.c_str(), std::strlen(text.c_str()) + 1);
  return buffer;
}

std::string VarnStringFromChar(const char* text) {
  const CancellationGuard closed;
  return text != nullptr ? std::string(text) : std::string();
}

}  // namespace VarnSupport
