// How the library itself waits for events without losing a set().
#ifndef SUPPORT_THREADS_EVENTTICKET_H
#define SUPPORT_THREADS_EVENTTICKET_H

#include <cstdint>

#include "runtime/System.h"
#include "runtime/ThreadScope.h"
#include "threads/EventState.h"

namespace VarnSupport {

// Every set() of an event raises its number, of which a ticket keeps the one that it found. Whoever
// waits takes a ticket, tests its own condition, and then waits until the number has left the
// ticket: a set() in between ends the wait.
class EventTicket {
 public:
  // For the event of that state, which must outlive the ticket: stateOf(event).
  explicit EventTicket(EventState& state) : m_oState(state), m_nNumber(state.number()) {}
  // A ticket that was taken before, by its number.
  EventTicket(EventState& state, std::uint32_t number) : m_oState(state), m_nNumber(number) {}

  std::uint32_t number() const { return m_nNumber; }

  // Waits for a set() since the ticket was taken or renewed.
  void wait() const { m_oState.waitSince(m_nNumber, nullptr); }
  // The same; false when `deadline` has passed before.
  bool waitUntil(MonotonicTime deadline) const { return m_oState.waitSince(m_nNumber, &deadline); }
  void renew() { m_nNumber = m_oState.number(); }

  // While it exists, the calling thread's VarnEvent::wait(-1) waits with the ticket, and renews it,
  // so that an event may wait in its own way and misses nothing all the same.
  class Presented : public ThreadScopeOf<Presented> {
   public:
    explicit Presented(EventTicket& ticket) : m_oTicket(ticket) {}

    // The calling thread's ticket for an event; null when it presents none.
    static EventTicket* find(const EventState& state) {
      const Presented* const presented = innermost();
      return presented != nullptr && &presented->m_oTicket.m_oState == &state
                 ? &presented->m_oTicket
                 : nullptr;
    }

   private:
    EventTicket& m_oTicket;
  };

 private:
  EventState& m_oState;
  std::uint32_t m_nNumber;
};

}  // namespace VarnSupport

#endif
