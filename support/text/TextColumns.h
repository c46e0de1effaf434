// UTF-8 on a terminal: how wide it is, where lines break, and what must not reach it.
#ifndef SUPPORT_TEXT_TEXTCOLUMNS_H
#define SUPPORT_TEXT_TEXTCOLUMNS_H

#include <cstddef>
#include <string>
#include <string_view>

namespace VarnSupport {

std::size_t columnsOf(std::string_view text);

// As wide characters. Bytes that are no UTF-8 become U+FFFD, each one.
std::wstring wideText(std::string_view text);

// Control characters as "\x1b", and bytes that are no UTF-8 likewise.
std::string escapedText(std::string_view text);
// The same for a message: of more than `most` bytes the beginning and "...".
std::string shownText(std::string_view text, std::size_t most = 200);

// A text in lines of at most 80 columns.
class WrappedText {
 public:
  // The following lines begin with `columns` blanks, and so does this one, which goes on if it is
  // shorter than that.
  void indent(std::size_t columns);
  // As it is, on the same line. Requires: there is no line feed in it.
  void put(std::string_view text);
  // Words, between which lines may break, as they may beside wide characters. Blanks and control
  // characters separate words; a line feed ends the line.
  void wrap(std::string_view text);
  // Ends a line that has begun.
  void endLine();

  std::size_t column() const { return m_nColumn; }
  const std::string& text() const { return m_sText; }
  std::string& text() { return m_sText; }

 private:
  void putWord(std::string_view word, bool afterBlank);

  std::string m_sText;
  std::size_t m_nColumn = 0;
  std::size_t m_nIndent = 0;
};

}  // namespace VarnSupport

#endif
