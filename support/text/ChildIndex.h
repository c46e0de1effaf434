// The children of a node by their keys, whatever order they stand in.
#ifndef SUPPORT_TEXT_CHILDINDEX_H
#define SUPPORT_TEXT_CHILDINDEX_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include "VarnSupport/VarnTreeNode.h"

namespace VarnSupport {

// An open table with linear probing, at most half full (D. Knuth, The Art of Computer Programming,
// 6.4). Other than among properties, a key may be there several times, and each child goes by
// itself: those whose keys have the same hash share an entry, which does not tell them apart.
class ChildIndex {
 public:
  using tChildren = std::vector<VarnTreeNode*>;

  // Throws std::bad_alloc, as add() does, which then changes nothing.
  explicit ChildIndex(const tChildren& children);

  void add(VarnTreeNode* child);
  // Requires: the child was added under the key that it has.
  void remove(const VarnTreeNode* child);

  // The child with the key, or null. Nothing where there may be several.
  std::optional<VarnTreeNode*> find(std::string_view key) const;
  // Whether what is in it are these children, under the keys that they have.
  bool isRightFor(const tChildren& children) const;

 private:
  struct Entry {
    VarnTreeNode* child() const { return reinterpret_cast<VarnTreeNode*>(addresses); }

    std::uint64_t hash = kFree;
    std::size_t count = 0;
    std::uintptr_t addresses = 0;  // of all, combined by exclusive or: that of the last one left
  };
  static constexpr std::uint64_t kFree = 0;
  static constexpr std::uint64_t kRemoved = 1;

  static std::uint64_t hashOf(std::string_view key);
  static std::uint64_t checkOf(std::uint64_t hash, const VarnTreeNode* child);
  // Where the hash stands, or may be put.
  std::size_t placeOf(std::uint64_t hash) const;
  void resize();

  std::vector<Entry> m_vEntries;  // as many as a power of two
  std::size_t m_nUsed = 0;        // that are not free
  std::uint64_t m_nSum = 0;       // of the checks of all children
};

}  // namespace VarnSupport

#endif
