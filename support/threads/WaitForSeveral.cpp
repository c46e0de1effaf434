// A dependent on the waiter's stack is told by each thread that ends, counts and raises the event
// that the waiter sleeps on. Before the waiter goes, the dependent leaves the threads that have not
// told their end, and waits for those that are just telling it.
//
// Waiting for several events is waiting for threads of which each waits for one event, since an
// event may wait in a way of its own. The threads that still wait when one has been enough are
// killed in their destructors.
#include "threads/WaitForSeveral.h"

#include <algorithm>
#include <chrono>
#include <memory>
#include <new>
#include <optional>

#include "VarnSupport/VarnException.h"
#include "log/OwnRecords.h"
#include "runtime/Cancellation.h"
#include "runtime/Fork.h"
#include "threads/EventTicket.h"
#include "threads/ThreadControl.h"
#include "threads/TrackedDependent.h"

namespace VarnSupport {

namespace {

// When a wait with a time-out ends. Time-outs count in whole seconds, as those of timers do:
// callers rely on it.
std::optional<MonotonicTime> deadlineOf(int timeoutMs) {
  if (timeoutMs < 1)
    return std::nullopt;
  return monotonicNow() + std::chrono::seconds(timeoutMs / 1000);
}

// An ending thread cannot throw: without memory the record is left out.
void traceDeparture(const VarnThread& thread) {
  try {
    OwnRecords::write(OwnRecords::TRACE, "ThreadWaitDependent::handleNotification: thread ",
                      thread.getName(), " departed");
  } catch (const std::bad_alloc&) {
  }
}

}  // namespace

// Counts the threads that finish.
class ThreadWaitDependent : public TrackedDependent {
 public:
  ThreadWaitDependent(const std::vector<VarnThread*>& threads, VarnEvent& event, int& remaining,
                      bool traced)
      : m_oEvent(event), m_pRemaining(&remaining), m_bTraced(traced), m_vUntold(threads) {
    m_oLock.init();
    enlist();
  }
  // However the wait ends. Only threads that have not told their end are touched: the others may
  // have deleted themselves. A thread that is about to tell it waits for the lock, in
  // handleNotification().
  ~ThreadWaitDependent() override {
    strikeOff();
    {
      const VarnCriticalSection guard(m_oLock);
      ThreadWaitDependent::removeEverywhere();
    }
    awaitCalls();
  }

  // Writes without the lock, which a thread may want that has a record open.
  void handleNotification(VarnCollaborator& source, const VarnNotification&) override {
    auto& thread = dynamic_cast<VarnThread&>(source);
    const bool traced = m_bTraced && OwnRecords::areWanted(OwnRecords::TRACE);
    if (traced)
      traceDeparture(thread);
    count(thread);
    if (traced) {
      OwnRecords::write(OwnRecords::TRACE,
                        "ThreadWaitTimer::setJustEvent: delay has not expired, just setting event");
      OwnRecords::write(OwnRecords::TRACE, "ThreadWaitDependent::handleNotification: returning");
    }
  }

  // The number of threads still awaited; `last` becomes the thread that finished last, if any did.
  int look(VarnThread*& last) {
    const VarnCriticalSection guard(m_oLock);
    last = m_pLast;
    return *m_pRemaining;
  }

 private:
  void count(VarnThread& thread) {
    const VarnCriticalSection guard(m_oLock);
    m_pLast = &thread;
    const auto told = std::find(m_vUntold.begin(), m_vUntold.end(), m_pLast);
    if (told != m_vUntold.end())
      *told = nullptr;
    if (*m_pRemaining > 0)
      --*m_pRemaining;
    stateOf(m_oEvent).raise();
  }
  void removeEverywhere() override {
    for (VarnThread* const thread : m_vUntold) {
      if (thread != nullptr)
        thread->removeDependent(*this);
    }
  }

  VarnEvent& m_oEvent;
  VarnCriticalSectionObject m_oLock;
  VarnThread* m_pLast = nullptr;
  int* m_pRemaining;
  bool m_bTraced;
  std::vector<VarnThread*> m_vUntold;  // null in place of those that have told their end
};

int WaitForSeveral::run(std::vector<VarnThread*>& threads, bool waitAll, int timeoutMs,
                        tThreads known) {
  const CancellationGuard closed;
  int remaining = waitAll ? static_cast<int>(threads.size()) : 1;
  // This thread waits for those that trace, so it must not have the record that they would wait
  // for.
  const bool traced = !OwnRecords::isOneOpenHere();
  VarnEvent event;
  ThreadWaitDependent dependent(threads, event, remaining, traced);

  // A thread that runs now is not lost: it finds the dependent, or is seen past its body here.
  std::vector<bool> running;
  for (VarnThread* const thread : threads)
    running.push_back(known == RUNNING || thread->m_bRunning);
  for (std::size_t i = 0; i < threads.size(); ++i)
    watchEnd(*threads[i], dependent, running[i]);
  const std::optional<MonotonicTime> deadline = deadlineOf(timeoutMs);
  for (std::size_t i = 0; known == TO_START && i < threads.size(); ++i) {
    if (!threads[i]->launch())
      throw VarnException(L"VarnThread::wait: a thread could not be started", 0);
  }

  int result = -4;
  while (true) {
    const EventTicket ticket(stateOf(event));
    VarnThread* last = nullptr;
    const int awaited = dependent.look(last);
    const auto found = std::find(threads.begin(), threads.end(), last);
    if (found != threads.end())
      result = static_cast<int>(found - threads.begin());
    if (awaited < 1)
      return waitAll ? 0 : result;
    if (!deadline) {
      ticket.wait();
    } else if (!ticket.waitUntil(*deadline)) {
      if (traced)
        OwnRecords::write(OwnRecords::TRACE, "ThreadWaitTimer::set: timer expired");
      return -2;
    }
  }
}

// Adds the dependent, or tells it at once when the body of a thread that was running has returned.
void WaitForSeveral::watchEnd(VarnThread& thread, ThreadWaitDependent& dependent, bool wasRunning) {
  const ThreadControl::Visit control(thread);
  if (!wasRunning || !control)
    dependent.addTo(thread);
  else if (!control->ifInBody([&] { dependent.addTo(thread); }))
    dependent.handleNotification(thread, VarnThread::ThreadDone(thread.m_nExitCode));
}

int VarnEvent::wait(std::vector<VarnEvent*>& events, bool waitAll, int timeoutMs) {
  const CancellationGuard closed;
  std::vector<std::unique_ptr<VarnEventWaitThread>> waiters;
  std::vector<VarnThread*> threads;
  waiters.reserve(events.size());
  threads.reserve(events.size());
  for (VarnEvent* const event : events) {
    waiters.push_back(std::make_unique<VarnEventWaitThread>(*event, timeoutMs));
    threads.push_back(waiters.back().get());
  }
  return WaitForSeveral::run(threads, waitAll, timeoutMs, WaitForSeveral::TO_START);
}

int VarnEvent::wait(int count, VarnEvent* events, bool waitAll, int timeoutMs) {
  const CancellationGuard closed;
  std::vector<VarnEvent*> addresses = WaitForSeveral::addressesOf(count, events);
  return wait(addresses, waitAll, timeoutMs);
}

VarnEventWaitThread::VarnEventWaitThread(VarnEvent& event, int timeoutMs)
    : VarnThread("EventWaitThread"),
      m_pEvent(&event),
      m_nTimeoutMs(timeoutMs),
      m_nTicket(EventTicket(stateOf(event)).number()) {}

// The event may wait in a way of its own, which knows no end but its own.
VarnEventWaitThread::~VarnEventWaitThread() {
  const QuietCancellationGuard closed;
  m_bAbandoned.store(true);
  if (const ThreadControl::Visit control(*this); control)
    control->cancel();
  joinFinally();
}

int VarnEventWaitThread::run() {
  m_bStarted.store(true);
  EventTicket ticket(stateOf(*m_pEvent), static_cast<std::uint32_t>(m_nTicket));
  const EventTicket::Presented presented(ticket);
  if (!m_bAbandoned)
    m_pEvent->wait(m_nTimeoutMs);
  return 0;
}

namespace {

void releaseWaits(ForkSide side) {
  if (side == ForkSide::CHILD)
    TrackedDependent::childAfterFork();
  else
    TrackedDependent::parentAfterFork();
}

}  // namespace

constinit const ForkPart waitFork{&TrackedDependent::prepareFork, &releaseWaits};

}  // namespace VarnSupport
