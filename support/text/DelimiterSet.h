// What splitting a text into tokens looks at for each character.
#ifndef SUPPORT_TEXT_DELIMITERSET_H
#define SUPPORT_TEXT_DELIMITERSET_H

#include <array>
#include <cassert>

namespace VarnSupport {

// One delimiter alone, which needs no table.
class SingleDelimiter {
 public:
  explicit SingleDelimiter(char delimiter) : m_cDelimiter(delimiter) {}
  bool holds(char c) const { return c == m_cDelimiter; }
  char get() const { return m_cDelimiter; }

 private:
  char m_cDelimiter;
};

// The delimiters that a NUL-terminated set holds, by byte value.
class DelimiterSet {
 public:
  explicit DelimiterSet(const char* delimiters) {
    assert(delimiters != nullptr);
    for (; *delimiters != '\0'; ++delimiters)
      m_aHolds[static_cast<unsigned char>(*delimiters)] = true;
  }
  bool holds(char c) const { return m_aHolds[static_cast<unsigned char>(c)]; }

 private:
  std::array<bool, 256> m_aHolds{};
};

}  // namespace VarnSupport

#endif
