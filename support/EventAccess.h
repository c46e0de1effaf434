// How the library's own threads wait on events without losing a set().
#ifndef SUPPORT_EVENTACCESS_H
#define SUPPORT_EVENTACCESS_H

#include <atomic>
#include <cstdint>

#include "VarnSupport/VarnEvent.h"

namespace VarnSupport {

// Every set() of an event raises its number. A waiter notes the number (its ticket), tests its own
// condition, and then waits until the number has left the ticket: a set() in between ends the wait.
class EventAccess {
 public:
  static std::uint64_t ticket(const VarnEvent& event);
  // Returns true once the event's number differs from `ticket`; false when `abandoned`, if given,
  // was raised and wakeWaiters() called.
  static bool waitSince(VarnEvent& event, std::uint64_t ticket,
                        const std::atomic<bool>* abandoned = nullptr);
  // set() without dependents, which allocates nothing.
  static void raise(VarnEvent& event);
  // Makes all waiters look at their abandoned flags; no set().
  static void wakeWaiters(VarnEvent& event);
};

// While one exists on a thread, VarnEvent::wait(-1) for `event` there starts from `ticket` and ends
// when `abandoned` is raised.
class EventWaitContext {
 public:
  EventWaitContext(const VarnEvent& event, std::uint64_t ticket,
                   const std::atomic<bool>& abandoned);
  EventWaitContext(const EventWaitContext&) = delete;
  EventWaitContext& operator=(const EventWaitContext&) = delete;
  ~EventWaitContext();

  const VarnEvent& event;
  const std::uint64_t ticket;
  const std::atomic<bool>& abandoned;
};

}  // namespace VarnSupport

#endif
