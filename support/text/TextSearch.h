// Searches in narrow and wide text that test a block of characters at once. What they do not find
// is the standard npos.
#ifndef SUPPORT_TEXT_TEXTSEARCH_H
#define SUPPORT_TEXT_TEXTSEARCH_H

#include <algorithm>
#include <array>
#include <bit>
#include <cassert>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <type_traits>

namespace VarnSupport {

// True when `wanted` stands at a position of `text`.
// Requires: `wanted` is not empty, and there is room for it.
template <typename CharT>
bool matchesAt(std::basic_string_view<CharT> text, std::size_t position,
               std::basic_string_view<CharT> wanted) {
  assert(!wanted.empty() && position + wanted.size() <= text.size());
  return text[position] == wanted.front() &&
         (wanted.size() == 1 || std::char_traits<CharT>::compare(
                                    text.data() + position, wanted.data(), wanted.size()) == 0);
}

// A block is two vectors. Where the processor has no registers for them, the compiler writes the
// test out.
constexpr std::size_t kVectorBytes = 16;
template <typename CharT>
using Vector [[gnu::vector_size(kVectorBytes)]] = CharT;
template <typename CharT>
constexpr std::size_t kLanes = kVectorBytes / sizeof(CharT);
template <typename CharT>
constexpr std::size_t kBlock = 2 * kLanes<CharT>;

template <typename CharT>
Vector<CharT> load(const CharT* text) {
  Vector<CharT> loaded;
  std::memcpy(&loaded, text, sizeof(loaded));
  return loaded;
}

// The first lane of a vector that is not zero, of lanes that are zero or all ones; kLanes when
// there is none. Some processors tell so of a vector in one step, here and below.
template <typename CharT>
std::size_t firstLane(Vector<std::make_signed_t<CharT>> found) {
#ifdef __SSE2__
  const auto bytes =
      static_cast<unsigned int>(__builtin_ia32_pmovmskb128(std::bit_cast<Vector<char>>(found)));
  return bytes != 0 ? static_cast<std::size_t>(std::countr_zero(bytes)) / sizeof(CharT)
                    : kLanes<CharT>;
#else
  std::size_t lane = 0;
  while (lane < kLanes<CharT> && found[lane] == 0)
    ++lane;
  return lane;
#endif
}

// True when the test of the vectors that begin at a distance from the block's begin finds any.
template <typename CharT, typename Test>
bool anyInBlock(Test test) {
  const auto found = test(0) | test(kLanes<CharT>);
#ifdef __SSE2__
  return __builtin_ia32_pmovmskb128(std::bit_cast<Vector<char>>(found)) != 0;
#else
  const auto halves = std::bit_cast<std::array<std::uint64_t, 2>>(found);
  return (halves[0] | halves[1]) != 0;
#endif
}

// The first position of a block for which the test of the vectors holds and `isWanted` says so, as
// a distance from the block's begin; kBlock when there is none.
template <typename CharT, typename Test, typename IsWanted>
std::size_t firstInBlock(Test test, IsWanted isWanted) {
  constexpr bool isLittle = std::endian::native == std::endian::little;
  constexpr std::size_t laneBits = 8 * sizeof(CharT);
  constexpr std::size_t lanesOfHalf = kLanes<CharT> / 2;
  for (std::size_t begin = 0; begin < kBlock<CharT>; begin += kLanes<CharT>) {
    const auto halves = std::bit_cast<std::array<std::uint64_t, 2>>(test(begin));
    for (std::size_t half = 0; half < halves.size(); ++half) {
      for (std::uint64_t rest = halves[half]; rest != 0;) {
        const auto zeros =
            static_cast<std::size_t>(isLittle ? std::countr_zero(rest) : std::countl_zero(rest));
        const std::size_t position = begin + half * lanesOfHalf + zeros / laneBits;
        if (isWanted(position))
          return position;
        const std::uint64_t lane = ~std::uint64_t{0} >> (64 - laneBits);
        rest ^= lane << (isLittle ? zeros : 64 - laneBits - zeros);
      }
    }
  }
  return kBlock<CharT>;
}

// The first position at or after `from` where `wanted` begins, which has two characters at least.
// Both its ends are looked for at once. Requires: there is room for it at a block of positions.
template <typename CharT>
std::size_t searchByBlocks(std::basic_string_view<CharT> text, std::basic_string_view<CharT> wanted,
                           std::size_t from) {
  assert(wanted.size() > 1 && from + wanted.size() + kBlock<CharT> <= text.size() + 1);
  const CharT first = wanted.front();
  const CharT last = wanted.back();
  const std::size_t end = text.size() - wanted.size() + 1;
  while (true) {
    const CharT* const begins = text.data() + from;
    const CharT* const ends = begins + wanted.size() - 1;
    const auto bothEnds = [=](std::size_t i) {
      return (load(begins + i) == first) & (load(ends + i) == last);
    };
    if (anyInBlock<CharT>(bothEnds)) {
      const std::size_t found = firstInBlock<CharT>(
          bothEnds, [=](std::size_t i) { return matchesAt(text, from + i, wanted); });
      if (found < kBlock<CharT>)
        return from + found;
    }
    if (from + kBlock<CharT> >= end)
      return std::string_view::npos;
    from = std::min(from + kBlock<CharT>, end - kBlock<CharT>);
  }
}

// The same, whatever room there is. A rare first character is found fastest by the
// string's own search, a frequent one is not.
template <typename CharT>
std::size_t searchText(std::basic_string_view<CharT> text, std::basic_string_view<CharT> wanted,
                       std::size_t from) {
  do {
    from = text.find(wanted.front(), from);
    if (from == std::string_view::npos || text.size() - from < wanted.size())
      return std::string_view::npos;
    if (matchesAt(text, from, wanted))
      return from;
    ++from;
  } while (text.size() - from < wanted.size() + kBlock<CharT>);
  return searchByBlocks(text, wanted, from);
}

// The first position at or after `from` that holds `first` and has `second` one to `farthest`
// characters behind it. Other places of `first` are taken to be rare until there is one.
template <typename CharT>
std::size_t searchPair(std::basic_string_view<CharT> text, CharT first, CharT second,
                       std::size_t farthest, std::size_t from) {
  const auto isPair = [=](std::size_t position) {
    return text[position] == first &&
           text.substr(position + 1, farthest).find(second) != std::string_view::npos;
  };
  from = text.find(first, from);
  if (from == std::string_view::npos || isPair(from))
    return from;
  for (++from; text.size() - from >= kBlock<CharT> + farthest; from += kBlock<CharT>) {
    const CharT* const block = text.data() + from;
    const auto mayBePair = [=](std::size_t i) {
      auto seconds = load(block + i + 1) == second;
      for (std::size_t distance = 2; distance <= farthest; ++distance)
        seconds |= load(block + i + distance) == second;
      return seconds & (load(block + i) == first);
    };
    if (anyInBlock<CharT>(mayBePair))
      break;
  }
  while (from < text.size() && !isPair(from))
    ++from;
  return from < text.size() ? from : std::string_view::npos;
}

// The first position at or after `from` that does not hold `c`.
template <typename CharT>
std::size_t skipCharacter(std::basic_string_view<CharT> text, CharT c, std::size_t from) {
  assert(from <= text.size());
  for (; text.size() - from >= kBlock<CharT>; from += kBlock<CharT>) {
    const CharT* const block = text.data() + from;
    if (anyInBlock<CharT>([=](std::size_t i) { return load(block + i) != c; }))
      break;
  }
  while (from < text.size() && text[from] == c)
    ++from;
  return from;
}

// The last position in [from, to) that holds `c`.
template <typename CharT>
std::size_t lastCharacter(std::basic_string_view<CharT> text, CharT c, std::size_t from,
                          std::size_t to) {
  assert(from <= to && to <= text.size());
  for (; to - from >= kBlock<CharT>; to -= kBlock<CharT>) {
    const CharT* const block = text.data() + to - kBlock<CharT>;
    if (anyInBlock<CharT>([=](std::size_t i) { return load(block + i) == c; }))
      break;
  }
  while (to > from) {
    if (text[--to] == c)
      return to;
  }
  return std::string_view::npos;
}

}  // namespace VarnSupport

#endif
