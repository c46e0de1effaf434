// Which of many names somebody may have meant.
#ifndef SUPPORT_TEXT_NEARTEXT_H
#define SUPPORT_TEXT_NEARTEXT_H

#include <cstddef>
#include <string_view>

namespace VarnSupport {

// A letter of ASCII in the lower case, and any other character as it is.
constexpr char folded(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

// The number of characters to insert, remove, replace or swap with their neighbour that lead from
// one text to the other; more than `most` counts as `most` + 1. Letters of ASCII match in either
// case.
std::size_t distanceOf(std::string_view a, std::string_view b, std::size_t most);

// Keeps the nearest of the names that it is told; the first one of several. A third of the longer
// text may differ.
class NearText {
 public:
  // Requires: the text outlives the object.
  explicit NearText(std::string_view text) : m_sText(text) {}

  // True when `name` is nearer than all before.
  bool isNearer(std::string_view name);

 private:
  std::string_view m_sText;
  std::size_t m_nNearest = kMost + 1;

  static constexpr std::size_t kMost = 3;
};

}  // namespace VarnSupport

#endif
