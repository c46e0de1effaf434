// Which bytes are characters.
#ifndef SUPPORT_LOG_UTF8_H
#define SUPPORT_LOG_UTF8_H

#include <cstddef>
#include <string_view>

namespace VarnSupport {

struct Utf8Character {
  char32_t code = 0;
  std::size_t length = 0;  // 0 where the bytes are no character
};

// The first character of a text that is not empty. Surrogates and forms that are longer than need
// be are none.
inline Utf8Character firstCharacter(std::string_view text) {
  const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char lead = byte(0);
  if (lead < 0x80)
    return {lead, 1};
  const std::size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
  if (lead < 0xC2 || lead > 0xF4 || text.size() < length)
    return {};
  char32_t code = lead & (0x7FU >> length);
  for (std::size_t i = 1; i < length; ++i) {
    if ((byte(i) & 0xC0) != 0x80)
      return {};
    code = code << 6 | (byte(i) & 0x3F);
  }
  constexpr char32_t lowest[] = {0, 0, 0x80, 0x800, 0x10000};
  if (code < lowest[length] || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF))
    return {};
  return {code, length};
}

}  // namespace VarnSupport

#endif
