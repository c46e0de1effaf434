// What is due, by deadline.
#ifndef SUPPORT_LOOP_DEADLINEHEAP_H
#define SUPPORT_LOOP_DEADLINEHEAP_H

#include <algorithm>
#include <cassert>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "runtime/IndexedHeap.h"
#include "runtime/System.h"

namespace VarnSupport {

// A heap in which each entry has up to four below it: half as deep as with two, and the four lie
// side by side in memory, which counts with hundreds of thousands of them. Of equal deadlines the
// one that was set first comes first. An item has a slot, a number that says where its entry is;
// the numbers stand apart from the items, so that moving entries touches little memory. Setting and
// clearing cost O(log n), and never allocate. Not synchronized.
template <typename Item>
class DeadlineHeap {
 public:
  using Slot = std::uint32_t;
  static constexpr MonotonicTime kNever = MonotonicTime::max();

  // Throws std::bad_alloc, and changes nothing then. The item has no deadline yet.
  Slot acquire(Item& item) {
    if (m_vFreeSlots.empty())
      addSlot();
    const Slot slot = m_vFreeSlots.back();
    m_vFreeSlots.pop_back();
    m_vItems[slot] = &item;
    return slot;
  }
  void release(Slot slot) {
    clear(slot);
    m_vFreeSlots.push_back(slot);
  }

  // Gives the item a deadline, in place of one that it may have.
  void set(Slot slot, MonotonicTime deadline) {
    clear(slot);
    m_vEntries.push_back({deadline, slot, ++m_nSet});
    Order::sift(m_vEntries, m_vEntries.size() - 1, noteIndexes());
  }
  void clear(Slot slot) {
    const std::size_t index = m_vIndexes[slot];
    if (index == kNowhere)
      return;
    assert(m_vEntries[index].slot == slot);
    m_vIndexes[slot] = kNowhere;
    Order::take(m_vEntries, index, noteIndexes());
  }

  MonotonicTime first() const { return m_vEntries.empty() ? kNever : m_vEntries.front().deadline; }
  // Takes out the deadline of the first item that is due, and returns that item, or null.
  Item* takeDue(MonotonicTime now) {
    if (first() > now || m_vEntries.empty())
      return nullptr;
    const Slot slot = m_vEntries.front().slot;
    clear(slot);
    return m_vItems[slot];
  }

 private:
  struct Entry {
    bool isBefore(const Entry& other) const {
      return deadline != other.deadline ? deadline < other.deadline
                                        : static_cast<std::int32_t>(order - other.order) < 0;
    }

    MonotonicTime deadline;
    Slot slot;
    std::uint32_t order;  // of setting; may wrap around
  };

  using Order = IndexedHeap<4>;
  static constexpr std::uint32_t kNowhere = ~std::uint32_t{0};

  // With its slot an item gets all the memory that it may need later.
  void addSlot() {
    if (m_vItems.size() == m_vItems.capacity()) {
      const std::size_t room = std::max<std::size_t>(16, m_vItems.size() * 2);
      m_vEntries.reserve(room);
      m_vIndexes.reserve(room);
      m_vFreeSlots.reserve(room);
      m_vItems.reserve(room);  // last: the others have the room then
    }
    m_vFreeSlots.push_back(static_cast<Slot>(m_vItems.size()));
    m_vIndexes.push_back(kNowhere);
    m_vItems.push_back(nullptr);
  }

  auto noteIndexes() {
    return [this](const Entry& entry, std::size_t index) {
      m_vIndexes[entry.slot] = static_cast<std::uint32_t>(index);
    };
  }

  std::vector<Entry> m_vEntries;
  std::vector<std::uint32_t> m_vIndexes;  // by slot: where its entry is
  std::vector<Item*> m_vItems;            // by slot
  std::vector<Slot> m_vFreeSlots;
  std::uint32_t m_nSet = 0;
};

}  // namespace VarnSupport

#endif
