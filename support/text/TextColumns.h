// UTF-8 on a terminal: how wide it is, where lines break, and what must not reach it.
#ifndef SUPPORT_TEXT_TEXTCOLUMNS_H
#define SUPPORT_TEXT_TEXTCOLUMNS_H

#include <cstddef>
#include <string>
#include <string_view>

namespace VarnSupport {

// A character at the beginning of a text. A byte that begins none is one of itself, U+FFFD.
struct TextCharacter {
  char32_t code;
  std::size_t length;
  int columns;  // 0 for a control or combining character, 2 for a wide one
};

// Requires: the text is not empty.
TextCharacter firstCharacter(std::string_view text);

std::size_t columnsOf(std::string_view text);

// As wide characters.
std::wstring wideText(std::string_view text);

// Control characters as "\x1b", and bytes that are no UTF-8 likewise. Of a long text the beginning
// and "...".
std::string shownText(std::string_view text);

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
