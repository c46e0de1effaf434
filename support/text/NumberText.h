// Numbers in texts.
#ifndef SUPPORT_TEXT_NUMBERTEXT_H
#define SUPPORT_TEXT_NUMBERTEXT_H

#include <array>
#include <cassert>
#include <charconv>
#include <cstdint>
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

// Appends the last `digits` hexadecimal digits, in small letters.
inline void appendHex(std::string& to, std::uint32_t number, int digits) {
  while (digits-- > 0)
    to += "0123456789abcdef"[number >> 4 * digits & 0xF];
}

}  // namespace VarnSupport

#endif
