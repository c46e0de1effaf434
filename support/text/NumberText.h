// Numbers in texts.
#ifndef SUPPORT_TEXT_NUMBERTEXT_H
#define SUPPORT_TEXT_NUMBERTEXT_H

#include <charconv>
#include <optional>
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

}  // namespace VarnSupport

#endif
