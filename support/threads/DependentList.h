// The dependents of a collaborator, few or many.
#ifndef SUPPORT_THREADS_DEPENDENTLIST_H
#define SUPPORT_THREADS_DEPENDENTLIST_H

#include <algorithm>
#include <array>
#include <cassert>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <unordered_map>
#include <vector>

#include "VarnSupport/VarnCollaborator.h"
#include "locks/BriefHold.h"

namespace VarnSupport {

// What nobody was ever added to has not used its lock.
inline bool neverHadDependents(const VarnCollaborator& collaborator) {
  return BriefHold::isUnused(collaborator.m_oLock);
}

// Entries in blocks, and for each dependent the blocks that it stands in: to take one out costs the
// same wherever it stands, and positions are counted by blocks.
class LongDependentList {
 public:
  using tEntry = VarnDependent*;

  // Throws std::bad_alloc, as add() does, which changes nothing then.
  explicit LongDependentList(const std::vector<tEntry>& entries);
  LongDependentList(const LongDependentList&) = delete;
  LongDependentList& operator=(const LongDependentList&) = delete;

  std::size_t size() const { return m_nSize; }
  void add(tEntry entry);
  void removeAll(const VarnDependent& dependent);
  void removeAt(std::size_t position);
  // Copies up to `most` entries from a position on, and returns their number.
  std::size_t copy(std::size_t position, tEntry* to, std::size_t most);

 private:
  using Block = std::vector<tEntry>;
  using tBlocks = std::vector<std::unique_ptr<Block>>;

  // The block of a position, which becomes the position in there. Their number behind the last.
  std::size_t blockOf(std::size_t& position);
  void dropIfEmpty(const Block* block);

  tBlocks m_vBlocks;                                                  // none is empty
  std::unordered_multimap<const VarnDependent*, Block*> m_mapBlocks;  // an entry for each entry
  std::size_t m_nSize = 0;
  // A block and the position of its first entry, from which walks go on to the next.
  std::size_t m_nFoundBlock = 0;
  std::size_t m_nFoundBegin = 0;
};

// A view of the list that a collaborator has: its entries as they are, or a long list alone, with
// the third bit of its address set. Requires: the lock of the list is held.
class DependentList {
 public:
  using tEntry = LongDependentList::tEntry;

  explicit DependentList(std::vector<tEntry>& entries) : m_vEntries(entries) {}

  std::size_t size() const { return isLong() ? longList()->size() : m_vEntries.size(); }
  // Throws std::bad_alloc, and changes nothing then.
  void add(tEntry entry) {
    if (isLong())
      longList()->add(entry);
    else if (m_vEntries.size() < kMostInShort)
      m_vEntries.push_back(entry);
    else
      addToLong(entry);
  }
  // Every entry of the dependent.
  void removeAll(const VarnDependent& dependent);
  void removeAt(std::size_t position);
  std::size_t copy(std::size_t position, tEntry* to, std::size_t most) const {
    assert(position <= size());
    if (isLong())
      return longList()->copy(position, to, most);
    const std::size_t count = std::min(most, m_vEntries.size() - position);
    std::copy_n(m_vEntries.begin() + static_cast<std::ptrdiff_t>(position), count, to);
    return count;
  }
  // The first that is not null of what `look` gives for the entries, or null.
  template <typename Look>
  auto first(Look look) const -> decltype(look(tEntry())) {
    std::array<tEntry, 64> part;
    std::size_t position = 0;
    while (const std::size_t count = copy(position, part.data(), part.size())) {
      for (std::size_t i = 0; i < count; ++i) {
        if (const auto found = look(part[i]))
          return found;
      }
      position += count;
    }
    return nullptr;
  }
  void clear();

 private:
  static constexpr std::size_t kMostInShort = 256;
  static constexpr std::uintptr_t kLong = 4;
  static_assert(alignof(LongDependentList) > kLong, "the third bit of an address is free");

  bool isLong() const {
    return m_vEntries.size() == 1 && (reinterpret_cast<std::uintptr_t>(m_vEntries[0]) & kLong) != 0;
  }
  LongDependentList* longList() const {
    return reinterpret_cast<LongDependentList*>(reinterpret_cast<std::uintptr_t>(m_vEntries[0]) &
                                                ~kLong);
  }
  void addToLong(tEntry entry);
  void dropIfEmpty();

  std::vector<tEntry>& m_vEntries;
};

}  // namespace VarnSupport

#endif
