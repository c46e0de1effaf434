// Two binary heaps of entries, both by deadline and, among equals, by the order of insertion.
// Timers that this round of a pass has set already are in the waiting heap, so that a timer with a
// period of nothing is set once in a round. A slot is a number that stays with a timer and says
// where its entry is, so that removing it needs no search: insertion, removal and repetition are
// O(log n), the first is at hand. After an insertion no operation allocates: removal and
// repetition cannot fail.
//
// A clock that was set moves all deadlines by the same amount. They are stored less a number that
// counts these moves, so that a move costs the same for any number of timers.
#include "time/TimerSchedule.h"

#include <cassert>

namespace VarnSupport {

TimerSchedule::Slot TimerSchedule::insert(VarnTimer& timer, std::int64_t deadline, bool waits) {
  const Slot slot = newSlot();
  assert(slot >= 0 && m_vReady.capacity() >= m_vPlaces.size());
  push(waits, {deadline - m_nMoved, ++m_nInserted, &timer, slot});
  return slot;
}

// With its slot a timer gets all the memory that it may need later: in either heap, and to give the
// slot back.
TimerSchedule::Slot TimerSchedule::newSlot() {
  if (m_vFreeSlots.empty()) {
    const auto slot = static_cast<Slot>(m_vPlaces.size());
    m_vPlaces.push_back({});
    const std::size_t room = m_vPlaces.capacity();
    try {
      m_vReady.reserve(room);
      m_vWaiting.reserve(room);
      m_vFreeSlots.reserve(room);
    } catch (...) {
      m_vPlaces.pop_back();
      throw;
    }
    return slot;
  }
  const Slot slot = m_vFreeSlots.back();
  m_vFreeSlots.pop_back();
  return slot;
}

void TimerSchedule::remove(Slot slot) {
  take(slot);
  m_vFreeSlots.push_back(slot);
}

void TimerSchedule::clear() {
  m_vReady.clear();
  m_vWaiting.clear();
  m_vPlaces.clear();
  m_vFreeSlots.clear();
}

VarnTimer* TimerSchedule::firstDue(std::int64_t now) const {
  return !m_vReady.empty() && firstDeadline() <= now ? &first() : nullptr;
}

void TimerSchedule::repeat(Slot slot, std::int64_t deadline) {
  Entry entry = take(slot);
  entry.deadline = deadline - m_nMoved;
  entry.order = ++m_nInserted;
  push(true, entry);
}

void TimerSchedule::releaseAll() {
  for (const Entry& entry : m_vWaiting)
    push(false, entry);
  m_vWaiting.clear();
}

void TimerSchedule::push(bool waits, const Entry& entry) {
  heap(waits).push_back(entry);
  Order::sift(heap(waits), heap(waits).size() - 1, notePlaces(waits));
}

TimerSchedule::Entry TimerSchedule::take(Slot slot) {
  const auto [waits, index] = m_vPlaces[static_cast<std::size_t>(slot)];
  assert(index < heap(waits).size() && heap(waits)[index].slot == slot);
  return Order::take(heap(waits), index, notePlaces(waits));
}

}  // namespace VarnSupport
