// A thread that waits for one latch sleeps on its number. Who waits for several sleeps on an event
// of its own, and enters a list of the process, in which set() looks for its latch by its address
// alone: the latch may be gone by then. That list is looked at only when a latch has waiters.
#include "threads/LatchState.h"

#include <algorithm>
#include <cassert>

#include "runtime/Bell.h"
#include "runtime/BriefMutex.h"
#include "runtime/Cancellation.h"
#include "runtime/Fork.h"
#include "runtime/LinkedNodes.h"

namespace VarnSupport {

namespace {

constinit BriefMutex watchMutex;
// Guarded by the mutex.
constinit LatchWatch* theWatches = nullptr;
constinit std::uint32_t forksAtWatches = 0;

const MonotonicTime* limitOf(const MonotonicTime& deadline) {
  return deadline == MonotonicTime::max() ? nullptr : &deadline;
}

}  // namespace

void LatchState::set() {
  const LatchState* const self = this;
  std::uint32_t* const half = numberHalf();
  if (!moveOnIf(false))
    return;
  wake(half, INT_MAX);
  LatchWatch::tell(self);
}

LatchWatch::LatchWatch(std::span<const LatchTicket> tickets, EventState* raised, int bell)
    : m_vTickets(tickets), m_pRaised(raised), m_nBell(bell) {
  assert(!tickets.empty());
  {
    const BriefMutex::Hold hold(watchMutex);
    forgetLost();
    m_pNext = theWatches;
    theWatches = this;
  }
  for (const LatchTicket& ticket : m_vTickets)
    ticket.latch().addWaiter();
}

LatchWatch::~LatchWatch() {
  for (const LatchTicket& ticket : m_vTickets)
    ticket.latch().removeWaiter();
  const BriefMutex::Hold hold(watchMutex);
  forgetLost();
  takeOut(theWatches, *this, &LatchWatch::m_pNext);
}

void LatchWatch::tell(const LatchState* latch) {
  const BriefMutex::Hold hold(watchMutex);
  forgetLost();
  for (const LatchWatch* watch = theWatches; watch != nullptr; watch = watch->m_pNext) {
    if (std::none_of(watch->m_vTickets.begin(), watch->m_vTickets.end(),
                     [&](const LatchTicket& ticket) { return &ticket.latch() == latch; }))
      continue;
    if (watch->m_pRaised != nullptr)
      watch->m_pRaised->raise();
    else
      ringBell(watch->m_nBell);
  }
}

// The watches of a process from before a fork lie on the stacks of threads that are gone: no thread
// forks while it waits. Requires: the mutex is held.
void LatchWatch::forgetLost() {
  if (forksAtWatches == g_nForks)
    return;
  theWatches = nullptr;
  forksAtWatches = g_nForks;
}

bool awaitLatch(LatchState& latch, MonotonicTime deadline) {
  const LatchTicket ticket(latch);
  if (ticket.isOver())
    return true;
  const EventState::Wait wait(latch);
  const MonotonicTime* const limit = limitOf(deadline);
  if (!StopScope::isRequested() && latch.comesSoon(ticket.number(), limit))
    return true;
  if (StopScope::find() != nullptr)
    return awaitLatches({&ticket, 1}, true, deadline).has_value();
  return latch.sleepSince(ticket.number(), limit);
}

// The watch is entered after a first look, and the latches are looked at once more behind it: what
// is set in between is not missed, and who finds a latch set pays for no list. A last look after
// the deadline is what tells, so that a wait of no time sees what is set.
std::optional<std::size_t> awaitLatches(std::span<const LatchTicket> tickets, bool all,
                                        MonotonicTime deadline) {
  EventState changed;
  std::optional<LatchWatch> watch;
  for (bool isLast = false;; isLast = StopScope::isRequested() || monotonicNow() >= deadline) {
    const std::uint32_t before = changed.number();
    const auto isOver = [](const LatchTicket& ticket) { return ticket.isOver(); };
    const auto found = all ? std::find_if_not(tickets.begin(), tickets.end(), isOver)
                           : std::find_if(tickets.begin(), tickets.end(), isOver);
    if ((found == tickets.end()) == all)
      return all ? 0 : static_cast<std::size_t>(found - tickets.begin());
    if (isLast)
      return std::nullopt;
    if (!watch)
      watch.emplace(tickets, changed);
    else
      awaitChange(changed, before, deadline);
  }
}

// A stop that is requested ends the sleep; the caller finds out itself which of the two it was.
void awaitChange(EventState& event, std::uint32_t ticket, MonotonicTime deadline) {
  LatchState* const stop = StopScope::find();
  if (stop == nullptr) {
    event.sleepSince(ticket, limitOf(deadline));
    return;
  }
  const LatchTicket request(*stop);
  const LatchWatch watch({&request, 1}, event);
  if (!request.isOver())
    event.sleepSince(ticket, limitOf(deadline));
}

}  // namespace VarnSupport
