// The text of a record while it is built, and the line that comes of it.
#ifndef SUPPORT_LOG_RECORDTEXT_H
#define SUPPORT_LOG_RECORDTEXT_H

#include <cassert>
#include <cstddef>
#include <string>
#include <string_view>

namespace VarnSupport {

// Keeps room in front of the text, so that the header of the line, which is made last, needs no
// other place. Keeps its memory for the next record, unless that is much.
class RecordText {
 public:
  RecordText() : m_sBuffer(kRoom, ' ') {}

  bool isEmpty() const { return m_sBuffer.size() == m_nBegin; }
  std::string_view text() const { return std::string_view(m_sBuffer).substr(m_nBegin); }

  void append(std::string_view value) { m_sBuffer += value; }
  // Puts `value` before what there is.
  void lead(std::string_view value) { m_sBuffer.insert(m_nBegin, value); }

  // Ends the text before its first NUL, and makes sure that a label and one byte more will fit.
  void finish(std::string_view label) {
    const std::size_t nul = m_sBuffer.find('\0', m_nBegin);
    if (nul != std::string::npos)
      m_sBuffer.resize(nul);
    m_sBuffer.reserve(m_sBuffer.size() + label.size() + 1);
  }
  // Makes the text begin `length` bytes earlier. The caller fills these bytes.
  char* extendFront(std::size_t length) {
    if (length > m_nBegin) {
      m_sBuffer.insert(0, length - m_nBegin, ' ');
      m_nBegin = length;
    }
    m_nBegin -= length;
    assert(m_nBegin + length <= m_sBuffer.size());
    return &m_sBuffer[m_nBegin];
  }

  void clear() {
    m_sBuffer.resize(kRoom);
    m_nBegin = kRoom;
    if (m_sBuffer.capacity() > kKept)
      m_sBuffer.shrink_to_fit();
  }

 private:
  static constexpr std::size_t kRoom = 64;  // for all of a header but its label
  static constexpr std::size_t kKept = std::size_t{64} * 1024;

  std::string m_sBuffer;
  std::size_t m_nBegin = kRoom;
};

}  // namespace VarnSupport

#endif
