// Widths are those of Unicode's East Asian Width and of its combining marks, in ranges that are as
// coarse as a terminal's own: they do not depend on the locale, which a program may not have set.
#include "text/TextColumns.h"

#include <algorithm>
#include <array>
#include <cassert>
#include <cstdio>
#include <iterator>

namespace VarnSupport {

namespace {

constexpr std::size_t kLineColumns = 80;
constexpr std::size_t kMostShown = 200;  // bytes
constexpr char32_t kNoCharacter = 0xfffd;

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

bool isControl(char32_t code) { return code < 0x20 || (code >= 0x7f && code < 0xa0); }

int columnsOfCode(char32_t code) {
  if (isControl(code) || isIn(kCombining, code))
    return 0;
  return isIn(kWide, code) ? 2 : 1;
}

bool isSeparator(char32_t code) { return code == ' ' || isControl(code); }

// What must stay on one line: a wide character, or others up to a blank or a wide one, and the
// marks that belong to them.
std::string_view firstWord(std::string_view text) {
  std::size_t length = 0;
  bool isOfWide = false;
  while (length < text.size()) {
    const TextCharacter next = firstCharacter(text.substr(length));
    const bool isMark = next.columns == 0 && !isSeparator(next.code);
    if (isSeparator(next.code) || (length > 0 && !isMark && (isOfWide || next.columns == 2)))
      break;
    isOfWide = isOfWide || next.columns == 2;
    length += next.length;
  }
  return text.substr(0, length);
}

}  // namespace

TextCharacter firstCharacter(std::string_view text) {
  assert(!text.empty());
  const auto first = static_cast<unsigned char>(text[0]);
  if (first < 0x80)
    return {first, 1, columnsOfCode(first)};
  constexpr TextCharacter none{kNoCharacter, 1, 1};
  if (first < 0xc2 || first > 0xf4)
    return none;
  const std::size_t length = first < 0xe0 ? 2 : first < 0xf0 ? 3 : 4;
  if (text.size() < length)
    return none;
  char32_t code = first & (0x7fu >> length);
  for (std::size_t i = 1; i < length; ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    if ((byte & 0xc0) != 0x80)
      return none;
    code = code << 6 | (byte & 0x3f);
  }
  constexpr char32_t kLeast[] = {0x80, 0x800, 0x10000};  // that needs so many bytes
  if (code < kLeast[length - 2] || code > 0x10ffff || (code >= 0xd800 && code <= 0xdfff))
    return none;
  return {code, length, columnsOfCode(code)};
}

std::size_t columnsOf(std::string_view text) {
  std::size_t columns = 0;
  while (!text.empty()) {
    const TextCharacter next = firstCharacter(text);
    columns += static_cast<std::size_t>(next.columns);
    text.remove_prefix(next.length);
  }
  return columns;
}

std::wstring wideText(std::string_view text) {
  std::wstring wide;
  while (!text.empty()) {
    const TextCharacter next = firstCharacter(text);
    wide += static_cast<wchar_t>(next.code);
    text.remove_prefix(next.length);
  }
  return wide;
}

std::string shownText(std::string_view text) {
  std::string shown;
  while (!text.empty()) {
    if (shown.size() >= kMostShown)
      return shown + "...";
    const TextCharacter next = firstCharacter(text);
    const bool isWhole = next.code != kNoCharacter || next.length > 1;
    if (isWhole && !isControl(next.code)) {
      shown += text.substr(0, next.length);
    } else {
      for (const char c : text.substr(0, next.length)) {
        std::array<char, 8> digits{};
        std::snprintf(digits.data(), digits.size(), "\\x%02x",
                      static_cast<unsigned>(static_cast<unsigned char>(c)));
        shown += digits.data();
      }
    }
    text.remove_prefix(next.length);
  }
  return shown;
}

void WrappedText::indent(std::size_t columns) {
  m_nIndent = columns;
  if (m_nColumn < columns) {
    m_sText.append(columns - m_nColumn, ' ');
    m_nColumn = columns;
  }
}

void WrappedText::put(std::string_view text) {
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
    const TextCharacter next = firstCharacter(word);
    if (m_nColumn + static_cast<std::size_t>(next.columns) > kLineColumns) {
      endLine();
      indent(m_nIndent);
    }
    put(word.substr(0, next.length));
    word.remove_prefix(next.length);
  }
}

void WrappedText::wrap(std::string_view text) {
  bool afterBlank = true;
  while (!text.empty()) {
    const TextCharacter next = firstCharacter(text);
    if (!isSeparator(next.code)) {
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
