// Which blocks of a text are alike, for searches that come by the same stretches again and again.
#ifndef SUPPORT_PATTERN_ALIKEBLOCKS_H
#define SUPPORT_PATTERN_ALIKEBLOCKS_H

#include <cassert>
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

namespace VarnSupport {

// What is known of the blocks of one text: of each whether it is alike, and how far those behind it
// are, in the direction of the step (1 or -1). Every block is looked at once at most. The blocks of
// a stretch that was passed point to its end, as in a union-find structure, so that passing it
// again takes a few steps.
template <std::ptrdiff_t step>
class AlikeBlocks {
 public:
  // The first block from `block` on, and before `end`, that is not alike; else `end` or one beyond
  // it. What `isAlike` says of a block must not change from call to call.
  template <typename IsAlike>
  std::ptrdiff_t firstOther(std::ptrdiff_t block, std::ptrdiff_t end, IsAlike isAlike) {
    assert(block >= 0);
    std::ptrdiff_t other = block;
    while ((end - other) * step > 0) {
      const auto index = static_cast<std::size_t>(other);
      if (index >= m_vCounts.size())
        m_vCounts.resize(index + 1);
      if (m_vCounts[index] == kUnknown)
        m_vCounts[index] = isAlike(other) ? 2 : 1;
      if (m_vCounts[index] == 1)
        break;
      other += step * (m_vCounts[index] - 1);
    }
    while (block != other) {
      const auto count = static_cast<std::uint32_t>((other - block) * step + 1);
      block += step * (std::exchange(m_vCounts[static_cast<std::size_t>(block)], count) - 1);
    }
    return other;
  }

 private:
  static constexpr std::uint32_t kUnknown = 0;

  std::vector<std::uint32_t> m_vCounts;  // of alike blocks that a block begins, and one more
};

}  // namespace VarnSupport

#endif
