// How the library itself waits for events without losing a set().
#ifndef SUPPORT_EVENTTICKET_H
#define SUPPORT_EVENTTICKET_H

#include <cstdint>

#include "System.h"
#include "ThreadScope.h"
#include "VarnSupport/VarnEvent.h"

namespace VarnSupport {

// Every set() of an event raises its number, of which a ticket keeps the one that it found. Whoever
// waits takes a ticket, tests its own condition, and then waits until the number has left the
// ticket: a set() in between ends the wait.
class EventTicket {
 public:
  // The event must outlive the ticket.
  explicit EventTicket(VarnEvent& event);
  // A ticket that was taken before, by its number.
  EventTicket(VarnEvent& event, std::uint32_t number) : m_oEvent(event), m_nNumber(number) {}

  std::uint32_t number() const { return m_nNumber; }

  // Waits for a set() since the ticket was taken or renewed.
  void wait() const;
  // The same; false when `deadline` has passed before.
  bool waitUntil(MonotonicTime deadline) const;
  void renew();

  // set() without dependents, which allocates nothing.
  static void raise(VarnEvent& event);

  // While it exists, the calling thread's VarnEvent::wait(-1) waits with the ticket, and renews it,
  // so that an event may wait in its own way and misses nothing all the same.
  class Presented : public ThreadScopeOf<Presented> {
   public:
    explicit Presented(EventTicket& ticket) : m_oTicket(ticket) {}

    // The calling thread's ticket for `event`; null when it presents none.
    static EventTicket* find(const VarnEvent& event);

   private:
    EventTicket& m_oTicket;
  };

 private:
  VarnEvent& m_oEvent;
  std::uint32_t m_nNumber;
};

}  // namespace VarnSupport

#endif
