// The two halves of an event know nothing of each other: the dependents are a collaborator's, and
// those who wait are the state's (EventState.h).
//
// A set() tells the dependents first and raises the number last: a waiter that is woken may
// destroy the event at once. A dependent may do so as well, in which case nobody can be waiting. A
// wait that must not miss a set() takes a ticket before it looks at its condition (EventTicket);
// the plain wait() takes its ticket when it begins, and misses what was set before.
#include "VarnSupport/VarnEvent.h"

#include <cstdint>
#include <memory>
#include <new>
#include <typeinfo>

#include "runtime/Cancellation.h"
#include "runtime/SpareMemory.h"
#include "threads/DependentList.h"
#include "threads/EventState.h"
#include "threads/EventTicket.h"

namespace VarnSupport {

struct VarnEvent::State : EventState {};

EventState& stateOf(VarnEvent& event) { return *event.m_pState; }

VarnCollaborator& dependentsOf(VarnEvent& event) { return event.m_oDependents; }

VarnEvent::VarnEvent() : m_pState(nullptr) {
  const CancellationGuard closed;
  m_pState = new State;
}

VarnEvent::~VarnEvent() {
  const QuietCancellationGuard closed;
  if (!m_pState->staysBehind(this))
    delete m_pState;
}

void VarnEvent::addDependent(VarnDependent& dependent) { m_oDependents.addDependent(dependent); }

void VarnEvent::removeDependent(VarnDependent& dependent) {
  m_oDependents.removeDependent(dependent);
}

// An event of this very class makes a notification for its dependents alone.
void VarnEvent::set() {
  if (&typeid(*this) != &typeid(VarnEvent) || !neverHadDependents(m_oDependents))
    return setAndTell();
  const CancellationGuard closed;
  m_pState->raise();
}

[[gnu::noinline]] void VarnEvent::setAndTell() {
  const CancellationGuard closed;
  bool alive = true;
  {
    // A dependent may destroy the event: then its own destroyNotification() is gone too.
    const auto destroy = [&](VarnNotification* notification) {
      if (alive)
        destroyNotification(notification);
      else
        delete notification;
    };
    const std::unique_ptr<VarnNotification, decltype(destroy)> notification(makeNotification(),
                                                                            destroy);
    if (notification != nullptr)
      alive = deliver(m_oDependents, *notification);
  }
  if (alive)
    m_pState->raise();
}

// Without memory the dependents are not told; those who wait need none.
VarnNotification* VarnEvent::makeNotification() {
  try {
    return createNotification();
  } catch (const std::bad_alloc&) {
    m_pState->raise();
    throw;
  }
}

void VarnEvent::reset() {
  const CancellationGuard closed;
  m_pState->resetCondition();
}

int VarnEvent::wait(int timeoutMs) {
  const CancellationGuard closed;
  if (timeoutMs != -1) {
    // The deadline is a moment near the epoch, which has passed, or none: callers rely on it.
    constexpr std::uint32_t kNanosecondsInASecond = 1'000'000'000;
    return static_cast<std::uint32_t>(timeoutMs) * 1'000'000U < kNanosecondsInASecond ? -2 : -3;
  }
  EventTicket* const presented = EventTicket::Presented::find(*m_pState);
  if (presented == nullptr) {
    EventTicket(*m_pState).wait();
  } else {
    presented->wait();
    presented->renew();
  }
  return 0;
}

void* VarnEvent::getHandle() {
  m_pState->handOut();
  return m_pState;
}

VarnNotification* VarnEvent::createNotification() {
  void* const memory = SpareMemory::take();
  return memory == nullptr ? new VarnEventNotification : ::new (memory) VarnEventNotification;
}

void VarnEvent::destroyNotification(VarnNotification* notification) {
  if (notification == nullptr || typeid(*notification) != typeid(VarnEventNotification)) {
    delete notification;
    return;
  }
  static_cast<VarnEventNotification*>(notification)
      ->VarnEventNotification::~VarnEventNotification();
  SpareMemory::keep(notification);
}

}  // namespace VarnSupport
