// Blanks around a text.
#ifndef SUPPORT_TEXT_BLANKS_H
#define SUPPORT_TEXT_BLANKS_H

#include <algorithm>
#include <string_view>

namespace VarnSupport {

// The text without those of the characters `blanks` that it begins or ends with.
inline std::string_view withoutBlanks(std::string_view text, std::string_view blanks = " ") {
  text.remove_prefix(std::min(text.find_first_not_of(blanks), text.size()));
  text.remove_suffix(text.size() - (text.find_last_not_of(blanks) + 1));
  return text;
}

}  // namespace VarnSupport

#endif
