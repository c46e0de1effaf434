// What splitting a text into tokens looks at for each character.
#ifndef SUPPORT_TEXT_DELIMITERSET_H
#define SUPPORT_TEXT_DELIMITERSET_H

#include <array>
#include <cassert>

namespace VarnSupport {

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
