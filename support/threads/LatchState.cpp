// A thread that waits for one latch sleeps on its number. Who waits for several sleeps on an event
// of its own, and enters its tickets into lists of the process, in which set() looks for its latch
// by the address alone: the latch may be gone by then. They are looked at only when a latch has
// waiters, and there are so many that few latches share one: a thousand threads may be asleep, each
// with a latch of its own.
#include "threads/LatchState.h"

#include <algorithm>
#include <array>
#include <cassert>

#include "runtime/Bell.h"
#include "runtime/BriefMutex.h"
#include "runtime/Cancellation.h"
#include "runtime/Fork.h"
#include "runtime/HashedPlace.h"

namespace VarnSupport {

namespace {

constinit BriefMutex watchMutex;
// Guarded by the mutex.
constexpr unsigned kListBits = 9;
constinit std::array<const LatchTicket*, 1U << kListBits> ticketLists{};
constinit std::uint32_t forksAtLists = 0;

// The list with the tickets for a latch; those for some others are there, too.
const LatchTicket*& ticketsFor(const LatchState* latch) {
  return ticketLists[hashedPlace(latch, kListBits)];
}

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
    m_nForks = g_nForks;
    for (const LatchTicket& ticket : m_vTickets) {
      const LatchTicket*& first = ticketsFor(&ticket.latch());
      ticket.m_pWatch = this;
      ticket.m_pNext = first;
      ticket.m_pLink = &first;
      if (first != nullptr)
        first->m_pLink = &ticket.m_pNext;
      first = &ticket;
    }
  }
  for (const LatchTicket& ticket : m_vTickets)
    ticket.latch().addWaiter();
}

LatchWatch::~LatchWatch() {
  for (const LatchTicket& ticket : m_vTickets)
    ticket.latch().removeWaiter();
  const BriefMutex::Hold hold(watchMutex);
  if (m_nForks != g_nForks)
    return;  // the lists of a child begin empty
  for (const LatchTicket& ticket : m_vTickets) {
    *ticket.m_pLink = ticket.m_pNext;
    if (ticket.m_pNext != nullptr)
      ticket.m_pNext->m_pLink = ticket.m_pLink;
  }
}

void LatchWatch::tell(const LatchState* latch) {
  const BriefMutex::Hold hold(watchMutex);
  forgetLost();
  for (const LatchTicket* ticket = ticketsFor(latch); ticket != nullptr; ticket = ticket->m_pNext) {
    if (ticket->m_pLatch == latch)
      ticket->m_pWatch->tell();
  }
}

void LatchWatch::tell() const {
  if (m_pRaised != nullptr)
    m_pRaised->raise();
  else
    ringBell(m_nBell);
}

// The tickets of a process from before a fork lie on the stacks of threads that are gone: no thread
// forks while it waits. Requires: the mutex is held.
void LatchWatch::forgetLost() {
  if (forksAtLists == g_nForks)
    return;
  ticketLists = {};
  forksAtLists = g_nForks;
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
