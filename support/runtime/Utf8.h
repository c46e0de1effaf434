// Which bytes are characters of UTF-8.
#ifndef SUPPORT_RUNTIME_UTF8_H
#define SUPPORT_RUNTIME_UTF8_H

#include <cassert>
#include <cstddef>
#include <string_view>

namespace VarnSupport {

// A character, or a byte that begins none, which counts as U+FFFD.
struct Utf8Character {
  bool isBroken() const { return code == kReplacement && length == 1; }
  bool isControl() const { return code < 0x20 || (code >= 0x7F && code < 0xA0); }

  static constexpr char32_t kReplacement = 0xFFFD;

  char32_t code = kReplacement;
  std::size_t length = 1;  // in bytes
};

// The first character of a text. Surrogates and forms that are longer than need be are broken.
// Requires: the text is not empty.
inline Utf8Character firstCharacter(std::string_view text) {
  assert(!text.empty());
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

// The beginning of a text, of `most` bytes at most, that ends with no part of a character.
inline std::string_view wholeCharacters(std::string_view text, std::size_t most) {
  constexpr std::size_t longest = 4;
  if (text.size() <= most)
    return text;
  for (std::size_t cut = most; cut > 0 && most - cut < longest; --cut) {
    if ((static_cast<unsigned char>(text[cut]) & 0xC0) != 0x80)
      return text.substr(0, cut);
  }
  return text.substr(0, most);  // in the middle of bytes that are no characters
}

}  // namespace VarnSupport

#endif
