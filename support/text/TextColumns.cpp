// Widths are those of Unicode's East Asian Width and of its combining marks, in ranges that are as
// coarse as a terminal's own: they do not depend on the locale, which a program may not have set.
#include "text/TextColumns.h"

#include <algorithm>
#include <cassert>
#include <iterator>

#include "runtime/Utf8.h"
#include "text/NumberText.h"

namespace VarnSupport {

namespace {

constexpr std::size_t kLineColumns = 80;

struct CodeRange {
  char32_t first;
  char32_t last;
};

constexpr CodeRange kCombining[] = {
    {0x0300, 0x036f}, {0x0483, 0x0489}, {0x0591, 0x05bd}, {0x0610, 0x061a}, {0x064b, 0x065f},
    {0x093c, 0x093c}, {0x0941, 0x0948}, {0x0e31, 0x0e31}, {0x0e34, 0x0e3a}, {0x0e47, 0x0e4e},
    {0x200b, 0x200f}, {0x202a, 0x202e}, {0x2060, 0x2064}, {0x20d0, 0x20f0}, {0x302a, 0x302d},
    {0x3099, 0x309a}, {0xfe00, 0xfe0f}, {0xfe20, 0xfe2f}, {0xfeff, 0xfeff}, {0xe0100, 0xe01ef}};
constexpr CodeRange kWide[] = {
    {0x1100, 0x115f},   {0x231a, 0x231b},   {0x2e80, 0x303e},   {0x3041, 0xa4cf},  {0xa960, 0xa97c},
    {0xac00, 0xd7a3},   {0xf900, 0xfaff},   {0xfe30, 0xfe6f},   {0xff00, 0xff60},  {0xffe0, 0xffe6},
    {0x1f300, 0x1f64f}, {0x1f680, 0x1f6ff}, {0x1f900, 0x1f9ff}, {0x20000, 0x3fffd}};

template <std::size_t count>
bool isIn(const CodeRange (&ranges)[count], char32_t code) {
  const auto range =
      std::lower_bound(std::begin(ranges), std::end(ranges), code,
                       [](const CodeRange& one, char32_t wanted) { return one.last < wanted; });
  return range != std::end(ranges) && range->first <= code;
}

// 0 for a control or combining character, 2 for a wide one.
std::size_t columnsOf(Utf8Character character) {
  if (character.isControl() || isIn(kCombining, character.code))
    return 0;
  return isIn(kWide, character.code) ? 2 : 1;
}

bool isSeparator(Utf8Character character) { return character.code == ' ' || character.isControl(); }

// What must stay on one line: a wide character, or others up to a blank or a wide one, and the
// marks that belong to them.
std::string_view firstWord(std::string_view text) {
  std::size_t length = 0;
  bool isOfWide = false;
  while (length < text.size()) {
    const Utf8Character next = firstCharacter(text.substr(length));
    const std::size_t columns = columnsOf(next);
    const bool isMark = columns == 0 && !isSeparator(next);
    if (isSeparator(next) || (length > 0 && !isMark && (isOfWide || columns == 2)))
      break;
    isOfWide = isOfWide || columns == 2;
    length += next.length;
  }
  return text.substr(0, length);
}

}  // namespace

std::size_t columnsOf(std::string_view text) {
  std::size_t columns = 0;
  while (!text.empty()) {
    const Utf8Character next = firstCharacter(text);
    columns += columnsOf(next);
    text.remove_prefix(next.length);
  }
  return columns;
}

// Independent of the locale: what is thrown before a program has set one keeps its characters.
std::wstring wideText(std::string_view text) {
  std::wstring wide;
  while (!text.empty()) {
    const Utf8Character next = firstCharacter(text);
    wide += static_cast<wchar_t>(next.code);
    text.remove_prefix(next.length);
  }
  return wide;
}

std::string escapedText(std::string_view text) {
  std::string escaped;
  while (!text.empty()) {
    const Utf8Character next = firstCharacter(text);
    const std::string_view bytes = text.substr(0, next.length);
    if (!next.isBroken() && !next.isControl())
      escaped += bytes;
    else
      for (const char byte : bytes)
        appendHex(escaped += "\\x", static_cast<unsigned char>(byte), 2);
    text.remove_prefix(next.length);
  }
  return escaped;
}

std::string shownText(std::string_view text, std::size_t most) {
  const std::string_view beginning = wholeCharacters(text, most);
  std::string shown = escapedText(beginning);
  return beginning.size() < text.size() ? shown.append("...") : shown;
}

void WrappedText::indent(std::size_t columns) {
  m_nIndent = columns;
  if (m_nColumn < columns) {
    m_sText.append(columns - m_nColumn, ' ');
    m_nColumn = columns;
  }
}

void WrappedText::put(std::string_view text) {
  assert(text.find('\n') == text.npos);
  m_sText += text;
  m_nColumn += columnsOf(text);
}

void WrappedText::endLine() {
  while (!m_sText.empty() && m_sText.back() == ' ')
    m_sText.pop_back();
  if (!m_sText.empty() && m_nColumn > 0)
    m_sText += '\n';
  m_nColumn = 0;
}

void WrappedText::putWord(std::string_view word, bool afterBlank) {
  assert(!word.empty());
  const std::size_t columns = columnsOf(word);
  const std::size_t blank = afterBlank && m_nColumn > m_nIndent ? 1 : 0;
  if (m_nColumn + blank + columns <= kLineColumns) {
    m_sText.append(blank, ' ');
    m_nColumn += blank;
    put(word);
    return;
  }
  if (m_nColumn > m_nIndent) {
    endLine();
    indent(m_nIndent);
  }
  while (!word.empty()) {  // more than a line is broken anywhere
    const Utf8Character next = firstCharacter(word);
    if (m_nColumn + columnsOf(next) > kLineColumns) {
      endLine();
      indent(m_nIndent);
    }
    put(word.substr(0, next.length));
    word.remove_prefix(next.length);
  }
}

// Runs of blanks become one, and line feeds of the text stay.
void WrappedText::wrap(std::string_view text) {
  bool afterBlank = true;
  while (!text.empty()) {
    const Utf8Character next = firstCharacter(text);
    if (!isSeparator(next)) {
      const std::string_view word = firstWord(text);
      putWord(word, afterBlank);
      text.remove_prefix(word.size());
      afterBlank = false;
      continue;
    }
    if (next.code == '\n') {
      endLine();
      indent(m_nIndent);
    }
    afterBlank = true;
    text.remove_prefix(next.length);
  }
}

}  // namespace VarnSupport
