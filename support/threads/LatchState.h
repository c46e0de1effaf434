// What a latched event keeps, and how threads wait for one or several of them.
#ifndef SUPPORT_THREADS_LATCHSTATE_H
#define SUPPORT_THREADS_LATCHSTATE_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "runtime/Descriptor.h"
#include "runtime/System.h"
#include "runtime/ThreadScope.h"
#include "threads/EventState.h"

namespace VarnSupport {

class VarnLatchedEvent;

// The number of the event is odd while the latch is set. As soon as set() has moved it nothing of
// the state is touched any more, because a waiter that sees it move may destroy the latch at once.
class LatchState : public EventState {
 public:
  explicit LatchState(bool isSet) {
    if (isSet)
      raise();
  }

  bool isSet() const { return isSet(number()); }
  static bool isSet(std::uint32_t number) { return (number & 1U) != 0; }
  void set();
  void reset() { moveOnIf(true); }

 private:
  friend class LatchWatch;
};

// The state of an event, which must outlive its use.
LatchState& latchOf(VarnLatchedEvent& event);

class LatchWatch;

// A latch as it was when a wait for it began: a set() ends the wait also when a reset() follows at
// once.
class LatchTicket {
 public:
  explicit LatchTicket(LatchState& latch) : m_pLatch(&latch), m_nNumber(latch.number()) {}

  LatchState& latch() const { return *m_pLatch; }
  std::uint32_t number() const { return m_nNumber; }
  bool isOver() const { return LatchState::isSet(m_nNumber) || m_pLatch->number() != m_nNumber; }

 private:
  friend class LatchWatch;

  LatchState* m_pLatch;
  std::uint32_t m_nNumber;
  // Of a watch, guarded as its list is.
  mutable const LatchWatch* m_pWatch = nullptr;
  mutable const LatchTicket* m_pNext = nullptr;
  mutable const LatchTicket** m_pLink = nullptr;  // what points here
};

inline bool isAnyOver(std::span<const LatchTicket> tickets) {
  return std::any_of(tickets.begin(), tickets.end(),
                     [](const LatchTicket& ticket) { return ticket.isOver(); });
}

// While it exists a set() of any of the latches raises an event, or rings an eventfd, too. Who
// watches counts as a waiter of each latch. A ticket is in one watch at a time.
class LatchWatch {
 public:
  // All must outlive the watch, the tickets too.
  LatchWatch(std::span<const LatchTicket> tickets, EventState& raised)
      : LatchWatch(tickets, &raised, -1) {}
  LatchWatch(std::span<const LatchTicket> tickets, const Descriptor& bell)
      : LatchWatch(tickets, nullptr, bell.get()) {}
  LatchWatch(const LatchWatch&) = delete;
  LatchWatch& operator=(const LatchWatch&) = delete;
  ~LatchWatch();

 private:
  friend class LatchState;
  LatchWatch(std::span<const LatchTicket> tickets, EventState* raised, int bell);
  static void tell(const LatchState* latch);
  static void forgetLost();
  void tell() const;

  const std::span<const LatchTicket> m_vTickets;
  EventState* const m_pRaised;  // null where the bell is rung
  const int m_nBell;
  std::uint32_t m_nForks = 0;  // when the tickets were entered
};

// Says which latch asks the calling thread to stop, while it exists.
class StopScope : public ThreadScopeOf<StopScope> {
 public:
  explicit StopScope(LatchState& stop) : m_oStop(stop) {}

  // Null on threads that cannot be asked.
  static LatchState* find() {
    const StopScope* const scope = innermost();
    return scope != nullptr ? &scope->m_oStop : nullptr;
  }
  static bool isRequested() {
    const LatchState* const stop = find();
    return stop != nullptr && stop->isSet();
  }

 private:
  LatchState& m_oStop;
};

// Each wait ends without what it waits for at `deadline`, which may be MonotonicTime::max(), and
// when the calling thread is asked to stop.

// Waits for one latch; true when it is or was set.
bool awaitLatch(LatchState& latch, MonotonicTime deadline);
// Waits for the first or the last of several. The index of one that is or was set, the lowest, or
// with `all` any when all are or were.
std::optional<std::size_t> awaitLatches(std::span<const LatchTicket> tickets, bool all,
                                        MonotonicTime deadline);
// Waits until the number of the event has left `ticket`; may return before.
void awaitChange(EventState& event, std::uint32_t ticket, MonotonicTime deadline);

}  // namespace VarnSupport

#endif
