// What a pattern is compiled to: a list of tokens, the texts of its literals, the members of its
// sets. A program is built once and never changes, so that searches share it.
#ifndef SUPPORT_PATTERN_PATTERNPROGRAM_H
#define SUPPORT_PATTERN_PATTERNPROGRAM_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <forward_list>
#include <memory_resource>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "VarnSupport/VarnRegularExpression.h"

namespace VarnSupport {

// Successive characters, as signed values whatever the platform's characters are.
struct CharacterRange {
  std::int32_t low;
  std::int32_t high;

  bool operator==(const CharacterRange&) const = default;
};

inline std::int32_t signedValue(char c) { return static_cast<signed char>(c); }
inline std::int32_t signedValue(wchar_t c) { return static_cast<std::int32_t>(c); }

// What a set token accepts, by the value of the first 256 characters.
using CharacterMap = std::array<bool, 256>;

// The sets below are made of `count` ranges in any order, none of which holds 0.
class NarrowSet {
 public:
  NarrowSet(const CharacterRange* members, std::size_t count, bool negated);

  bool accepts(char c) const { return m_aMap[static_cast<unsigned char>(c)]; }

 private:
  CharacterMap m_aMap{};
};

class WideSet {
 public:
  WideSet(const CharacterRange* members, std::size_t count, bool negated);

  bool accepts(wchar_t c) const {
    const std::int32_t value = signedValue(c);
    const auto index = static_cast<std::uint32_t>(value);
    return index < m_aMap.size() ? m_aMap[index] : acceptsBeyondMap(value);
  }

 private:
  bool acceptsBeyondMap(std::int32_t value) const;

  CharacterMap m_aMap{};
  std::vector<CharacterRange> m_vBeyond;  // all other members, disjoint and in ascending order
  bool m_bNegated;
};

// Programs of ordinary size take a single allocation.
class ProgramMemory {
 public:
  ProgramMemory() = default;
  ProgramMemory(const ProgramMemory&) = delete;
  ProgramMemory& operator=(const ProgramMemory&) = delete;

 protected:
  ~ProgramMemory() = default;

  std::pmr::memory_resource* memory() { return &m_oMemory; }

 private:
  static constexpr std::size_t kNearBytes = 768;

  alignas(std::max_align_t) std::array<std::byte, kNearBytes> m_aNear;
  std::pmr::monotonic_buffer_resource m_oMemory{m_aNear.data(), m_aNear.size()};
};

template <typename StringType>
struct PatternProgram : private ProgramMemory {
  using CharT = typename StringType::value_type;
  using View = std::basic_string_view<CharT>;
  using Set = std::conditional_t<sizeof(CharT) == 1, NarrowSet, WideSet>;
  using ExpressionToken = typename VarnRegularExpressionImplementation<StringType>::ExpressionToken;

  struct Token {
    typename ExpressionToken::tType type;
    typename ExpressionToken::tFactor factor;
    // Where its text begins in `texts`, or its members in `members`, and how many there are.
    std::size_t begin;
    std::size_t length;
    const Set* set;  // for IN_SET and NOT_IN_SET

    bool isSet() const {
      return type == ExpressionToken::IN_SET || type == ExpressionToken::NOT_IN_SET;
    }
    bool mayRepeat() const { return factor >= ExpressionToken::ZERO_OR_MORE; }
    bool mayBeAbsent() const {
      return factor == ExpressionToken::ZERO_OR_ONE || factor == ExpressionToken::ZERO_OR_MORE;
    }
  };

  static constexpr std::size_t kNone = static_cast<std::size_t>(-1);
  static constexpr std::size_t kListedMembers = 1024;

  PatternProgram();
  PatternProgram(const PatternProgram& source);
  PatternProgram& operator=(const PatternProgram&) = delete;
  ~PatternProgram();

  // Notes what a search may look for. Requires: the tokens are complete.
  void finish();

  View textOf(const Token& token) const { return View(texts).substr(token.begin, token.length); }
  // True for two ONE_OR_MORE tokens of the same type and gathered text, order and repeats included.
  bool areEqualRepeats(const Token& left, const Token& right) const {
    return left.factor == ExpressionToken::ONE_OR_MORE && left.factor == right.factor &&
           left.type == right.type && left.length == right.length && areAlike(left, right);
  }
  // The tokens with sets written out, as far as kListedMembers.
  std::vector<ExpressionToken> list() const;

  StringType pattern;  // the last one that compiled, not that of the tokens when it did not
  std::pmr::vector<Token> tokens{memory()};
  StringType texts;
  // The members of all sets in the order they were gathered, as ranges that are as long as they can
  // be: two sets were gathered alike exactly when their ranges are the same.
  std::pmr::vector<CharacterRange> members{memory()};
  std::pmr::forward_list<Set> sets{memory()};
  std::size_t first = 0;  // the token whose match is the first, behind any BEGIN
  // A literal, or else a set, that every match contains after its first token.
  std::size_t required = kNone;
  // When the first token is a single character: a literal that begins close behind it in all
  // matches.
  std::size_t second = kNone;
  std::size_t farthest = 0;  // how far behind at most

 private:
  static constexpr std::size_t kClose = 4;

  void requireSet();
  bool areAlike(const Token& left, const Token& right) const;
  static bool isFirmLiteral(const Token& token) {
    return token.type == ExpressionToken::LITERAL_SEGMENT && token.factor == ExpressionToken::ONE &&
           token.length > 0;
  }
};

extern template struct PatternProgram<std::string>;
extern template struct PatternProgram<std::wstring>;

}  // namespace VarnSupport

#endif
