// Numbers in texts.
#ifndef SUPPORT_TEXT_NUMBERTEXT_H
#define SUPPORT_TEXT_NUMBERTEXT_H

#include <array>
#include <cassert>
#include <charconv>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>

namespace VarnSupport {

// All of the text as a decimal number, as std::from_chars() reads it. Nothing for any other text,
// and for a number that the type cannot hold.
template <typename Number>
std::optional<Number> numberIn(std::string_view text) {
  Number number{};
  const char* const end = text.data() + text.size();
  const auto result = std::from_chars(text.data(), end, number);
  if (result.ec != std::errc() || result.ptr != end)
    return std::nullopt;
  return number;
}

// The shortest text that reads back as the same number.
template <typename Number>
std::string textOfNumber(Number number) {
  std::array<char, 32> digits;
  const auto [end, error] = std::to_chars(digits.data(), digits.data() + digits.size(), number);
  assert(error == std::errc());
  return {digits.data(), end};
}

}  // namespace VarnSupport

#endif
