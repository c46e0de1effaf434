#include "EventTicket.h"

#include "EventState.h"

namespace VarnSupport {

EventTicket::EventTicket(VarnEvent& event) : m_oEvent(event), m_nNumber(event.m_pState->number()) {}

void EventTicket::wait() const { m_oEvent.m_pState->waitSince(m_nNumber, nullptr); }

bool EventTicket::waitUntil(MonotonicTime deadline) const {
  return m_oEvent.m_pState->waitSince(m_nNumber, &deadline);
}

void EventTicket::renew() { m_nNumber = m_oEvent.m_pState->number(); }

void EventTicket::raise(VarnEvent& event) { event.m_pState->raise(); }

EventTicket* EventTicket::Presented::find(const VarnEvent& event) {
  const Presented* const presented = innermost();
  return presented != nullptr && &presented->m_oTicket.m_oEvent == &event ? &presented->m_oTicket
                                                                          : nullptr;
}

}  // namespace VarnSupport
