// The state, in which all the work is done (LatchState), stands apart from the event: threads that
// wait at exit for an event that is static need it for longer.
#include "VarnSupport/VarnLatchedEvent.h"

#include <cassert>

#include "runtime/Cancellation.h"
#include "threads/LatchState.h"

namespace VarnSupport {

struct VarnLatchedEvent::State : LatchState {
  using LatchState::LatchState;
};

LatchState& latchOf(VarnLatchedEvent& event) { return *event.m_pState; }

VarnLatchedEvent::State* VarnLatchedEvent::makeState(bool isSet) {
  const CancellationGuard closed;
  return new State(isSet);
}

void VarnLatchedEvent::giveUpState() {
  const QuietCancellationGuard closed;
  if (!m_pState->staysBehind(this))
    delete m_pState;
}

void VarnLatchedEvent::change(bool isSet) {
  const QuietCancellationGuard closed;
  if (isSet)
    m_pState->set();
  else
    m_pState->reset();
}

bool VarnLatchedEvent::isSet() const { return m_pState->isSet(); }

bool VarnLatchedEvent::waitUntil(tMoment deadline) {
  const CancellationGuard closed;
  return awaitLatch(*m_pState, deadline);
}

std::optional<std::size_t> VarnLatchedEvent::waitForSeveral(
    const std::vector<VarnLatchedEvent*>& events, bool all, tMoment deadline) {
  const CancellationGuard closed;
  if (events.empty())
    return all ? std::optional<std::size_t>(0) : std::nullopt;
  std::vector<LatchTicket> tickets;
  tickets.reserve(events.size());
  for (const VarnLatchedEvent* const event : events) {
    assert(event != nullptr);
    tickets.emplace_back(*event->m_pState);
  }
  return awaitLatches(tickets, all, deadline);
}

}  // namespace VarnSupport
