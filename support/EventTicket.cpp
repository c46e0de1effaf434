#include "EventTicket.h"

#include "EventState.h"

namespace VarnSupport {

namespace {

constinit thread_local EventTicket* t_pPresented = nullptr;

}  // namespace

EventTicket::EventTicket(VarnEvent& event)
    : m_oEvent(event), m_nNumber(event.m_pState->number()) {}

void EventTicket::wait() const { m_oEvent.m_pState->waitSince(m_nNumber, nullptr); }

bool EventTicket::waitUntil(MonotonicTime deadline) const {
  return m_oEvent.m_pState->waitSince(m_nNumber, &deadline);
}

void EventTicket::renew() { m_nNumber = m_oEvent.m_pState->number(); }

void EventTicket::raise(VarnEvent& event) { event.m_pState->raise(); }

EventTicket::Presented::Presented(EventTicket& ticket) { t_pPresented = &ticket; }

EventTicket::Presented::~Presented() { t_pPresented = nullptr; }

EventTicket* EventTicket::Presented::find(const VarnEvent& event) {
  return t_pPresented != nullptr && &t_pPresented->m_oEvent == &event ? t_pPresented : nullptr;
}

}  // namespace VarnSupport
