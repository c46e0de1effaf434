// The active timers by deadline.
#ifndef SUPPORT_TIME_TIMERSCHEDULE_H
#define SUPPORT_TIME_TIMERSCHEDULE_H

#include <cassert>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "runtime/IndexedHeap.h"

namespace VarnSupport {

class VarnTimer;

// Two binary heaps: what may still be taken in the present round, and what waits for the next.
// Whole seconds order the timers, and of those due in the same second the one that was inserted
// last comes first. An operation costs O(log n); so does the end of a round, for each timer that
// waits.
//
// Knows what time it is told, and nothing of threads, signals or forks. Not synchronized.
class TimerSchedule {
 public:
  // The name of a timer that is in the schedule, until it is removed.
  using Slot = std::int32_t;

  // `deadline` is in seconds, of the clock that firstDue() is told. A timer that `waits` is not due
  // before the round has ended. Throws std::bad_alloc, and changes nothing then.
  Slot insert(VarnTimer& timer, std::int64_t deadline, bool waits);
  void remove(Slot slot);
  void clear();
  bool isEmpty() const { return m_vReady.empty() && m_vWaiting.empty(); }

  // The first timer of this round whose deadline is not after `now`, or null. It stays where it is.
  VarnTimer* firstDue(std::int64_t now) const;
  // Gives a timer another deadline, for the next round.
  void repeat(Slot slot, std::int64_t deadline);
  // From here on all timers may be due. Calls `release` with each that waited.
  template <typename Release>
  void endRound(Release release) {
    for (const Entry& entry : m_vWaiting)
      release(*entry.timer);
    releaseAll();
  }

  // The first timer of all and its deadline. Requires: not empty; no timer waits.
  VarnTimer& first() const {
    assert(!m_vReady.empty());
    return *m_vReady.front().timer;
  }
  std::int64_t firstDeadline() const {
    assert(!m_vReady.empty());
    return m_vReady.front().deadline + m_nMoved;
  }

  // Moves all deadlines: the clock was set by so many seconds.
  void moveBy(std::int64_t seconds) { m_nMoved += seconds; }

 private:
  struct Entry {
    bool isBefore(const Entry& other) const {
      return deadline != other.deadline ? deadline < other.deadline : order > other.order;
    }

    std::int64_t deadline;  // without the moves
    std::uint64_t order;    // of insertion
    VarnTimer* timer;
    Slot slot;
  };
  using Heap = std::vector<Entry>;
  using Order = IndexedHeap<2>;

  // Where a timer is.
  struct Place {
    bool waits;
    std::size_t index;  // in its heap
  };

  Slot newSlot();
  void push(bool waits, const Entry& entry);
  Entry take(Slot slot);
  void releaseAll();
  auto notePlaces(bool waits) {
    return [this, waits](const Entry& entry, std::size_t index) {
      m_vPlaces[static_cast<std::size_t>(entry.slot)] = {waits, index};
    };
  }
  Heap& heap(bool waits) { return waits ? m_vWaiting : m_vReady; }

  Heap m_vReady;
  Heap m_vWaiting;
  std::vector<Place> m_vPlaces;  // by slot
  std::vector<Slot> m_vFreeSlots;
  std::uint64_t m_nInserted = 0;
  std::int64_t m_nMoved = 0;
};

}  // namespace VarnSupport

#endif
