// The order of the children of a node in which some have been renamed; and how children know their
// parents, which they tell of renames.
#ifndef SUPPORT_TEXT_CHILDORDER_H
#define SUPPORT_TEXT_CHILDORDER_H

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <string_view>
#include <vector>

#include "VarnSupport/VarnTreeNode.h"
#include "runtime/BriefMutex.h"
#include "text/ChildIndex.h"
#include "text/Renames.h"
#include "text/SoughtKey.h"

namespace VarnSupport {

// All children but the strays stand in key order, so that they can be searched by halves. Strays
// are known as such, not by their positions, which move.
class VSUPT_LOCAL VarnTreeNode::Order {
 public:
  using tChildren = std::vector<VarnTreeNode*>;

  // What a node keeps about its children, in one number: 0 for nothing, an Order, or for a count of
  // renames whether they are all in order.
  enum tState : std::uint64_t { SORTED = 1, UNSORTED = 3 };
  static std::uint64_t known(std::uint64_t count, tState state) { return count << 2 | state; }
  static bool isKnown(std::uint64_t known, tState state) { return (known & 3) == state; }
  static Order* in(std::uint64_t known) {
    return (known & 3) == 0 ? reinterpret_cast<Order*>(known) : nullptr;
  }
  std::uint64_t asKnown() const { return reinterpret_cast<std::uintptr_t>(this); }
  // Nodes with less children have none.
  static constexpr std::size_t kFewest = 64;

  Order() = default;
  ~Order() { dropIndex(); }

  // Finds out what the renames have changed. Threads that look things up may do so at once.
  void update(const VarnTreeNode& parent);
  // Of the last update.
  bool isSorted() const { return !m_oStrays.isLost && m_oStrays.count == 0; }
  bool isLost() const { return m_oStrays.isLost; }

  // The first of the children with this key, or null. Nothing where that takes a look at all.
  // Threads that look things up may do so at once.
  std::optional<VarnTreeNode*> findByIndex(const VarnTreeNode& parent, std::string_view key);
  // The first of the children with this key, or null. Requires here and below: not lost.
  VarnTreeNode* find(const tChildren& children, std::string_view key) const;
  // The position of the first of the children with a greater key, or their number.
  std::size_t placeFor(const tChildren& children, std::string_view key) const;

  // Lets children that have only one parent left know it, if the first of them does not: those of a
  // copy whose original is gone.
  static void noteOnlyParent(const VarnTreeNode& parent);

  // A child has come, or has gone and does not tell the parent any more.
  void noteAdded(const VarnTreeNode& parent, std::size_t position);
  void noteRemoved(const VarnTreeNode& parent, const VarnTreeNode* child);

 private:
  static constexpr std::size_t kMostStrays = 32;
  static constexpr unsigned kLooksForIndex = 64;  // to make one takes as long as some 24 of them
  // Compared as a whole: what is not used is null.
  struct Strays {
    bool operator==(const Strays&) const = default;
    bool has(const VarnTreeNode* node) const;
    void add(VarnTreeNode* node);
    void drop(const VarnTreeNode* node);

    std::array<VarnTreeNode*, kMostStrays> nodes{};
    std::size_t count = 0;
    bool isLost = false;  // there are more
  };

  template <int kBefore>
  static std::size_t boundary(const tChildren& children, const Strays& strays,
                              const SoughtKey& key);
  static bool isInPlace(const tChildren& children, const Strays& strays, const VarnTreeNode* child);
  static bool isRight(const tChildren& children, const Strays& strays);
  static Strays lookThrough(const tChildren& children);
  void makeIndex(const tChildren& children);
  void dropIndex();

  // The count of renames that the strays are right for; 0 for none. Who reads it equal to the
  // present one may read the strays, as whatever changes these has then not begun.
  std::atomic<std::uint64_t> m_nCount{0};
  BriefMutex m_oMutex;  // of those who update
  Renames::Mark m_oMark;
  Strays m_oStrays;
  std::size_t m_nRemoved = 0;  // children, since a look at all of them

  // Made when the order is lost and so many look-ups had to look at all children. Right for these
  // once an update has looked at the renames. It goes in an update, under the mutex, if it is not,
  // or when a child comes or goes: no look-up runs beside either.
  std::atomic<ChildIndex*> m_pIndex{nullptr};
  std::atomic<unsigned> m_nLooks{0};
};

// Returns how many there were. The largest value stays, as nobody knows how many it stands for.
inline std::uint8_t addParents(std::atomic<std::uint8_t>& parents, int added) {
  constexpr std::uint8_t many = std::numeric_limits<std::uint8_t>::max();
  std::uint8_t before = parents.load(std::memory_order_relaxed);
  while (before != many &&
         !parents.compare_exchange_weak(before, static_cast<std::uint8_t>(before + added),
                                        std::memory_order_relaxed)) {
  }
  return before;
}

// Threads may change trees that have a child in common, and leave a parent noted that is not the
// only one; the number of the parents tells. A parent that is noted, and is the only one, is that
// for certain: its own entry was the first when it was noted, and it withdraws the note before the
// entry is gone.
inline void VarnTreeNode::gainParent(const VarnTreeNode& parent) {
  const bool isFirst = addParents(m_nParents, 1) == 0;
  m_pParent.store(isFirst ? &parent : nullptr, std::memory_order_relaxed);
}

inline void VarnTreeNode::loseParent() {
  m_pParent.store(nullptr, std::memory_order_relaxed);
  addParents(m_nParents, -1);
}

}  // namespace VarnSupport

#endif
