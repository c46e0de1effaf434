// A program is made in two steps: readPattern() appends the tokens, and finish() notes what a
// search may look for before it walks. A walk that comes to the end has matched every firm literal
// behind its beginning, even one whose match a later token took back: a text without that literal
// needs no walk. Where only single matches stand between a first character and a literal, the two
// are looked for together.
//
// Sets answer from a table of the first 256 characters. Wide sets keep other members as disjoint
// ranges, which are searched by halves.
#include "pattern/PatternProgram.h"

#include <algorithm>
#include <cassert>
#include <iterator>

namespace VarnSupport {

namespace {

void include(CharacterMap& map, std::size_t low, std::size_t high) {
  assert(low <= high && high < map.size());
  std::fill(map.begin() + low, map.begin() + high + 1, true);
}

void invert(CharacterMap& map) {
  for (bool& accepted : map)
    accepted = !accepted;
}

// Sorts ranges and merges those that overlap.
void makeDisjoint(std::vector<CharacterRange>& ranges) {
  std::sort(
      ranges.begin(), ranges.end(),
      [](const CharacterRange& left, const CharacterRange& right) { return left.low < right.low; });
  std::size_t kept = 0;
  for (const CharacterRange& range : ranges) {
    if (kept > 0 && range.low <= ranges[kept - 1].high)
      ranges[kept - 1].high = std::max(ranges[kept - 1].high, range.high);
    else
      ranges[kept++] = range;
  }
  ranges.resize(kept);
}

}  // namespace

// A narrow range is either negative or positive, and so without a gap among the unsigned values.
NarrowSet::NarrowSet(const CharacterRange* members, std::size_t count, bool negated) {
  for (std::size_t i = 0; i < count; ++i)
    include(m_aMap, static_cast<unsigned char>(members[i].low),
            static_cast<unsigned char>(members[i].high));
  if (negated)
    invert(m_aMap);
}

WideSet::WideSet(const CharacterRange* members, std::size_t count, bool negated)
    : m_bNegated(negated) {
  constexpr std::int32_t firstBeyond = std::tuple_size_v<CharacterMap>;
  for (std::size_t i = 0; i < count; ++i) {
    const auto [low, high] = members[i];
    if (low < 0) {
      m_vBeyond.push_back(members[i]);
      continue;
    }
    if (low < firstBeyond)
      include(m_aMap, static_cast<std::size_t>(low),
              static_cast<std::size_t>(std::min(high, firstBeyond - 1)));
    if (high >= firstBeyond)
      m_vBeyond.push_back({std::max(low, firstBeyond), high});
  }
  if (negated)
    invert(m_aMap);
  makeDisjoint(m_vBeyond);
}

bool WideSet::acceptsBeyondMap(std::int32_t value) const {
  assert(value < 0 || static_cast<std::size_t>(value) >= m_aMap.size());
  const auto behind = std::upper_bound(
      m_vBeyond.begin(), m_vBeyond.end(), value,
      [](std::int32_t wanted, const CharacterRange& range) { return wanted < range.low; });
  const bool isMember = behind != m_vBeyond.begin() && value <= std::prev(behind)->high;
  return isMember != m_bNegated;
}

template <typename StringType>
PatternProgram<StringType>::PatternProgram() = default;

template <typename StringType>
PatternProgram<StringType>::PatternProgram(const PatternProgram& source)
    : ProgramMemory(),
      pattern(source.pattern),
      texts(source.texts),
      first(source.first),
      required(source.required),
      second(source.second),
      farthest(source.farthest) {
  members = source.members;
  tokens = source.tokens;
  for (Token& token : tokens) {
    assert(token.isSet() == (token.set != nullptr));
    if (token.isSet())
      token.set = &sets.emplace_front(*token.set);
  }
}

template <typename StringType>
PatternProgram<StringType>::~PatternProgram() = default;

// Matches between the first token and a literal may be given back, which brings the literal closer
// to the beginning, but never farther away.
template <typename StringType>
void PatternProgram<StringType>::finish() {
  assert(first == 0 && required == kNone && second == kNone);
  first = !tokens.empty() && tokens.front().type == ExpressionToken::BEGIN ? 1 : 0;
  bool isClose = first < tokens.size() && isFirmLiteral(tokens[first]) && tokens[first].length == 1;
  std::size_t reach = 1;
  for (std::size_t i = first + 1; i < tokens.size(); ++i) {
    const Token& token = tokens[i];
    if (isFirmLiteral(token)) {
      required = i;
      if (isClose) {
        second = i;
        farthest = reach;
      }
      isClose = false;
    }
    ++reach;
    isClose = isClose && !token.mayRepeat() && reach <= kClose;
  }
  if (required == kNone)
    requireSet();
}

// Behind a literal, which is found faster, to look for a set would take longer than it spares.
template <typename StringType>
void PatternProgram<StringType>::requireSet() {
  if (first == tokens.size() || tokens[first].type == ExpressionToken::LITERAL_SEGMENT)
    return;
  for (std::size_t i = first + 1; i < tokens.size() && required == kNone; ++i) {
    if (tokens[i].isSet() && !tokens[i].mayBeAbsent())
      required = i;
  }
}

template <typename StringType>
bool PatternProgram<StringType>::areAlike(const Token& left, const Token& right) const {
  assert(left.type == right.type && left.length == right.length);
  if (!left.isSet())
    return textOf(left) == textOf(right);
  return std::equal(members.data() + left.begin, members.data() + left.begin + left.length,
                    members.data() + right.begin);
}

template <typename StringType>
auto PatternProgram<StringType>::list() const -> std::vector<ExpressionToken> {
  std::vector<ExpressionToken> listed;
  for (const Token& token : tokens) {
    assert(token.begin + token.length <= (token.isSet() ? members.size() : texts.size()));
    ExpressionToken& entry = listed.emplace_back(ExpressionToken{token.type, token.factor, {}});
    if (!token.isSet()) {
      entry.segment = textOf(token);
      continue;
    }
    for (std::size_t i = token.begin; i < token.begin + token.length; ++i) {
      for (std::int64_t value = members[i].low;
           value <= members[i].high && entry.segment.size() < kListedMembers; ++value)
        entry.segment += static_cast<CharT>(value);
    }
  }
  return listed;
}

template struct PatternProgram<std::string>;
template struct PatternProgram<std::wstring>;

}  // namespace VarnSupport
