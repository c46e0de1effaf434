// The keys of a path through a tree, one at a time and without a copy of each.
#ifndef SUPPORT_TEXT_TREEPATH_H
#define SUPPORT_TEXT_TREEPATH_H

#include <cassert>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "text/Blanks.h"
#include "text/DelimiterSet.h"

namespace VarnSupport {

// The keys of a path that is one text, which must outlive the path, split as VarnTokenizer() does.
class TextPath {
 public:
  TextPath(const std::string& text, const char* delimiters)
      : m_pAt(text.c_str()), m_oDelimiters(delimiters != nullptr ? delimiters : "") {}

  // The next key, or nothing at the end.
  std::optional<std::string_view> next() {
    while (m_oDelimiters.holds(*m_pAt))
      ++m_pAt;
    const char* const begin = m_pAt;
    while (*m_pAt != '\0' && !m_oDelimiters.holds(*m_pAt))
      ++m_pAt;
    if (m_pAt == begin)
      return std::nullopt;
    return withoutBlanks({begin, static_cast<std::size_t>(m_pAt - begin)});
  }

 private:
  const char* m_pAt;
  DelimiterSet m_oDelimiters;
};

// The keys of a path that is a list, which must outlive the path.
class ListPath {
 public:
  explicit ListPath(const std::vector<std::string>& keys) : m_vKeys(keys) {}

  std::optional<std::string_view> next() {
    assert(m_nUsed <= m_vKeys.size());
    if (m_nUsed == m_vKeys.size())
      return std::nullopt;
    return withoutBlanks(m_vKeys[m_nUsed++]);
  }
  // How many keys were asked for.
  std::size_t used() const { return m_nUsed; }

 private:
  const std::vector<std::string>& m_vKeys;
  std::size_t m_nUsed = 0;
};

}  // namespace VarnSupport

#endif
