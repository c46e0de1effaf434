// Texts are read without the locale. A duration is a sum of parts whose units shrink, so that one
// text means one thing: "1h30m" is read, "30m1h" and "1h30" are not. Sums and products that do not
// fit are no values, rather than others.
#include "settings/ValueText.h"

#include <algorithm>
#include <cmath>
#include <iterator>
#include <limits>

#include "text/NearText.h"
#include "text/NumberText.h"
#include "text/TextColumns.h"

namespace VarnSupport {

namespace {

struct Unit {
  std::string_view name;
  long long size;
};

// The larger first, each a multiple of the next.
constexpr Unit kDurations[] = {
    {"d", 86400000}, {"h", 3600000}, {"m", 60000}, {"s", 1000}, {"ms", 1}};
constexpr std::string_view kSizes = "KMGTP";
constexpr std::size_t kMostShown = 60;  // bytes

bool isDigit(char c) { return c >= '0' && c <= '9'; }

// The digits at the front of `text`, which are taken off it.
std::optional<long long> takeNumber(std::string_view& text) {
  const auto end = std::find_if_not(text.begin(), text.end(), isDigit);
  const auto length = static_cast<std::size_t>(end - text.begin());
  const std::optional<long long> number = wholeNumberIn(text.substr(0, length));
  text.remove_prefix(length);
  return number;
}

// The number of bytes that a unit stands for.
std::optional<long long> sizeOfUnit(std::string_view unit) {
  if (unit.empty() || unit == "B")
    return 1;
  const std::size_t power = kSizes.find(unit.front() == 'k' ? 'K' : unit.front());
  const std::string_view rest = unit.substr(1);
  if (power == kSizes.npos || (!rest.empty() && rest != "iB" && rest != "B"))
    return std::nullopt;
  long long size = 1;
  for (std::size_t i = 0; i <= power; ++i)
    size *= rest == "B" ? 1000 : 1024;
  return size;
}

}  // namespace

std::optional<long long> wholeNumberIn(std::string_view text) { return numberIn<long long>(text); }

std::optional<double> realNumberIn(std::string_view text) {
  const std::optional<double> number = numberIn<double>(text);
  return number && std::isfinite(*number) ? number : std::nullopt;
}

// Without regard to the case of ASCII letters.
std::optional<bool> flagIn(std::string_view text) {
  std::string given(text);
  std::transform(given.begin(), given.end(), given.begin(), folded);
  for (const std::string_view word : {"true", "yes", "on", "1"}) {
    if (given == word)
      return true;
  }
  for (const std::string_view word : {"false", "no", "off", "0"}) {
    if (given == word)
      return false;
  }
  return std::nullopt;
}

std::optional<long long> millisecondsIn(std::string_view text) {
  if (text.empty())
    return std::nullopt;
  long long sum = 0;
  long long above = std::numeric_limits<long long>::max();  // the last unit
  while (!text.empty()) {
    const bool isWhole = above == std::numeric_limits<long long>::max();
    const std::optional<long long> number = takeNumber(text);
    if (!number)
      return std::nullopt;
    const auto end = std::find_if(text.begin(), text.end(), isDigit);
    const auto name = text.substr(0, static_cast<std::size_t>(end - text.begin()));
    text.remove_prefix(name.size());
    const auto* const unit = std::find_if(
        std::begin(kDurations), std::end(kDurations),
        [&](const Unit& each) { return each.name == (name.empty() && isWhole ? "s" : name); });
    long long part = 0;
    if (unit == std::end(kDurations) || unit->size >= above ||
        __builtin_mul_overflow(*number, unit->size, &part) ||
        __builtin_add_overflow(sum, part, &sum))
      return std::nullopt;
    above = unit->size;
  }
  return sum;
}

std::optional<long long> bytesIn(std::string_view text) {
  const std::optional<long long> number = takeNumber(text);
  const std::optional<long long> unit = sizeOfUnit(text);
  long long bytes = 0;
  if (!number || !unit || __builtin_mul_overflow(*number, *unit, &bytes))
    return std::nullopt;
  return bytes;
}

std::string durationText(long long milliseconds) {
  std::string text;
  for (const Unit& unit : kDurations) {
    if (const long long count = milliseconds / unit.size; count != 0)
      text.append(std::to_string(count)).append(unit.name);
    milliseconds %= unit.size;
  }
  return text.empty() ? "0s" : text;
}

// In the largest unit of which it is a multiple, so that reading it gives the same number.
std::string bytesText(long long bytes) {
  std::size_t power = 0;
  for (; bytes != 0 && bytes % 1024 == 0 && power < kSizes.size(); ++power)
    bytes /= 1024;
  const std::string unit = power > 0 ? std::string(1, kSizes[power - 1]) + "iB" : "";
  return std::to_string(bytes) + unit;
}

std::string shownValue(std::string_view text) {
  return std::string(1, '\'').append(shownText(text, kMostShown)) += '\'';
}

}  // namespace VarnSupport
