// One line of a property file: a key, a separator, a value.
#ifndef SUPPORT_TEXT_PROPERTYLINE_H
#define SUPPORT_TEXT_PROPERTYLINE_H

#include <algorithm>
#include <cassert>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>

#include "text/SoughtKey.h"

namespace VarnSupport {

// A line taken apart into views of it. There is no key when the line holds no property.
template <typename StringType>
struct PropertyLine {
  using CharT = typename StringType::value_type;
  using tView = std::basic_string_view<CharT>;
  using tKey = std::basic_string_view<CharT, typename StringType::traits_type>;

  PropertyLine(tView line, CharT separator);

  static std::size_t positionOf(CharT separator, tView line);
  static tView valueBehind(std::size_t position, tView line);

  // By the keys. The numbers spare most calls that compare texts.
  bool operator<(const PropertyLine& other) const {
    return head != other.head ? head < other.head : key < other.key;
  }

  tKey key;
  tView value;
  std::uint64_t head = 0;  // of a narrow key whose case counts
};

template <typename StringType>
PropertyLine<StringType>::PropertyLine(tView line, CharT separator) {
  if (line.empty() || line.front() == CharT('#'))
    return;
  const std::size_t position = positionOf(separator, line);
  key = tKey(line.data(), std::min(position, line.size()));
  if constexpr (std::is_same_v<StringType, std::string>)
    head = headOf(key);
  if (position != line.npos)
    value = valueBehind(position, line);
}

// Case-insensitive sets find a separator in either case; what comes before the letters has but one.
template <typename StringType>
std::size_t PropertyLine<StringType>::positionOf(CharT separator, tView line) {
  return separator < CharT('A') ? line.find(separator)
                                : tKey(line.data(), line.size()).find(separator);
}

// The value ends at the line's first carriage return, or else at its first line feed. Where that
// stands before the separator, it runs to the end of the line; callers rely on it.
template <typename StringType>
auto PropertyLine<StringType>::valueBehind(std::size_t position, tView line) -> tView {
  assert(position < line.size());
  std::size_t end = line.find(CharT('\r'));
  if (end == line.npos)
    end = line.find(CharT('\n'));
  if (end > position)
    line = line.substr(0, end);
  return line.substr(std::min(line.find_first_not_of(CharT(' '), position + 1), line.size()));
}

}  // namespace VarnSupport

#endif
