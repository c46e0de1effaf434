// The relay notes a delivery and starts a thread for each event of the signal that has none. That
// thread calls set() until it has told of all deliveries, and ends. How often a signal has come is
// counted by its handler: an event compares that with what it has told, and with what was taken.
//
// An entry stands for an event in the table, and outlives it while a thread tells of deliveries: a
// callback may destroy its event.
#include "VarnSupport/VarnSignalEvent.h"

#include <pthread.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cassert>
#include <csignal>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "VarnSupport/VarnException.h"
#include "runtime/CallUnderWay.h"
#include "runtime/Cancellation.h"
#include "runtime/Fork.h"
#include "runtime/NeverDestroyed.h"
#include "runtime/SignalRelay.h"
#include "runtime/StackObjects.h"
#include "runtime/SystemThreads.h"
#include "threads/EventState.h"
#include "threads/EventTicket.h"
#include "threads/Uncaught.h"

namespace VarnSupport {

class SignalEntry {
 public:
  SignalEntry(VarnSignalEvent& owner, int number)
      : signal(number), first(SignalRelay::deliveries(number)), event(&owner) {}

  const int signal;
  const std::uint64_t first;  // deliveries before the event was made
  std::atomic<std::uint64_t> taken{first};
  EventState arrivals;  // raised by the relay: take() waits for no callback
  // Guarded by the table's mutex.
  VarnSignalEvent* event;     // null once it is gone
  std::uint64_t told{first};  // deliveries that have set the event
  bool hasThread = false;     // which tells
  pthread_t thread{};         // that one, once it runs
};

namespace {

constexpr std::array kOfTheLibrary{SIGALRM, SIGUSR1, SIGUSR2};
constexpr std::array kNotCatchable{SIGKILL, SIGSTOP, SIGSEGV, SIGBUS, SIGFPE,
                                   SIGILL,  SIGTRAP, SIGSYS,  SIGABRT};

constexpr long kMillisecondsBeforeAnotherTry = 10;

using Entries = std::vector<std::unique_ptr<SignalEntry>>;
using Telling = CallUnderWay<const VarnSignalEvent*>;

constinit std::mutex tableMutex;
constinit NeverDestroyed<Entries> table;  // guarded by the mutex

bool isListenedForLocked(int signal) {
  return std::any_of(table.value.begin(), table.value.end(), [&](const auto& entry) {
    return entry->signal == signal && entry->event != nullptr;
  });
}

// Entries that neither an event nor a thread has any use for.
void sweepLocked() {
  std::erase_if(table.value,
                [](const auto& entry) { return entry->event == nullptr && !entry->hasThread; });
}

bool hasMoreLocked(const SignalEntry& entry) {
  assert(entry.told <= SignalRelay::deliveries(entry.signal));
  return entry.event != nullptr && entry.told != SignalRelay::deliveries(entry.signal);
}

// The end of a thread that tells, by whatever leaves a callback.
class TellingThread {
 public:
  explicit TellingThread(SignalEntry& entry) : m_oEntry(entry), m_nSignal(entry.signal) {}
  TellingThread(const TellingThread&) = delete;
  TellingThread& operator=(const TellingThread&) = delete;
  ~TellingThread() {
    if (m_bFinished)
      return;
    {
      const std::lock_guard guard(tableMutex);
      m_oEntry.hasThread = false;
      sweepLocked();
    }
    SignalRelay::post(m_nSignal);
  }

  // Sets the event if there is a delivery to tell of; false, and the entry may be gone, if not.
  bool tellNext() {
    std::unique_lock guard(tableMutex);
    assert(m_oEntry.hasThread && !m_bFinished);
    m_oEntry.thread = pthread_self();
    if (!hasMoreLocked(m_oEntry)) {
      m_bFinished = true;
      m_oEntry.hasThread = false;
      sweepLocked();
      return false;
    }
    m_oEntry.told = SignalRelay::deliveries(m_nSignal);
    VarnSignalEvent& event = *m_oEntry.event;
    const Telling underWay(&event);
    guard.unlock();
    set(event);
    return true;
  }

 private:
  // Those who wait wake up whatever the dependents do.
  void set(VarnSignalEvent& event) {
    try {
      event.set();
    } catch (...) {
      wake();
      passOnCancellation();
      Uncaught::report([] { return "VarnSignalEvent"; },
                       [] { return "VarnSignalEvent: a dependent has thrown an exception"; });
    }
  }
  // The destructor of the event waits for this thread, unless it ran in the callback.
  void wake() {
    const std::lock_guard guard(tableMutex);
    if (m_oEntry.event != nullptr)
      stateOf(*m_oEntry.event).raise();
  }

  SignalEntry& m_oEntry;
  const int m_nSignal;
  bool m_bFinished = false;
};

void tell(SignalEntry& entry) {
  ProcessExit::watch();
  TellingThread thread(entry);
  while (thread.tellNext()) {
  }
}

// Runs on the relay. A thread that tells may have seen the delivery before, but takers have not.
void onDelivery(int signal) {
  const sigset_t mask = SignalRelay::callersMask();
  const std::lock_guard guard(tableMutex);
  for (const auto& entry : table.value) {
    if (entry->signal != signal)
      continue;
    entry->arrivals.raise();
    if (entry->hasThread || !hasMoreLocked(*entry))
      continue;
    entry->thread = {};
    entry->hasThread = startDetached(
                           "vsupt-event", [told = entry.get()] { tell(*told); }, &mask) == 0;
    if (!entry->hasThread)
      SignalRelay::expectWithin(signal, kMillisecondsBeforeAnotherTry);
  }
}

template <typename Signals>
bool isOneOf(const Signals& signals, int signal) {
  return std::find(signals.begin(), signals.end(), signal) != signals.end();
}

[[noreturn]] void refuse(int signal, const std::string& reason) {
  const char* const name = sigabbrev_np(signal);
  throw VarnException("VarnSignalEvent: signal " + std::to_string(signal) +
                          (name != nullptr ? std::string(" (SIG") + name + ") " : " ") + reason,
                      0);
}

// Signals of faults must end the process, as their instruction would be run again and again.
void checkSignal(int signal) {
  struct sigaction action {};
  if (isOneOf(kOfTheLibrary, signal))
    refuse(signal, "belongs to the library");
  if (isOneOf(kNotCatchable, signal))
    refuse(signal, "cannot be an event");
  if (sigaction(signal, nullptr, &action) != 0)
    refuse(signal, "does not exist");
}

// Takes the event out of its entry; the last one of a signal gives that back.
void leaveLocked(SignalEntry& entry) {
  assert(entry.event != nullptr);
  entry.event = nullptr;
  if (!isListenedForLocked(entry.signal))
    SignalRelay::stopListening(entry.signal);
}

}  // namespace

VarnSignalEvent::VarnSignalEvent(int signal) : m_pEntry(nullptr) {
  const CancellationGuard closed;
  checkSignal(signal);
  ProcessExit::noteObject();
  SignalRelay::rememberCallersMask();
  if (!SignalRelay::ensureRunning())
    refuse(signal, "has no thread: the system refuses one");
  auto entry = std::make_unique<SignalEntry>(*this, signal);
  StackObjects<VarnSignalEvent>::note(*this);
  try {
    const std::lock_guard guard(tableMutex);
    const bool isFirst = !isListenedForLocked(signal);
    m_pEntry = table.value.emplace_back(std::move(entry)).get();
    if (isFirst && !SignalRelay::listen(signal, onDelivery)) {
      table.value.pop_back();
      refuse(signal, "cannot be an event");
    }
  } catch (...) {
    StackObjects<VarnSignalEvent>::forget(*this);
    throw;
  }
}

VarnSignalEvent::~VarnSignalEvent() {
  const QuietCancellationGuard closed;
  {
    const std::lock_guard guard(tableMutex);
    leaveLocked(*m_pEntry);
    StackObjects<VarnSignalEvent>::forget(*this);  // a child of a fork knows both, or neither
    sweepLocked();
  }
  Telling::await(this);
  Telling::forget(this);
}

// Takes a ticket before it looks: a delivery after the look raises the number.
std::uint64_t VarnSignalEvent::take(std::chrono::nanoseconds limit) {
  const CancellationGuard closed;
  const MonotonicTime deadline = sumOf(monotonicNow(), limit);
  while (true) {
    const EventTicket ticket(m_pEntry->arrivals);
    const std::uint64_t come = SignalRelay::deliveries(m_pEntry->signal);
    std::uint64_t taken = m_pEntry->taken;
    while (taken < come && !m_pEntry->taken.compare_exchange_weak(taken, come)) {
    }
    if (taken < come)
      return come - taken;
    if (deadline == MonotonicTime::max())
      ticket.wait();
    else if (!ticket.waitUntil(deadline))
      return 0;
  }
}

int VarnSignalEvent::signal() const { return m_pEntry->signal; }

// The handler counts for the whole process, so that events of one signal do not take from each
// other.
std::uint64_t VarnSignalEvent::deliveries() const {
  return SignalRelay::deliveries(m_pEntry->signal) - m_pEntry->first;
}

namespace {

void prepareSignalEvents() {
  tableMutex.lock();
  Telling::lockList();
  StackObjects<VarnSignalEvent>::lock();
}

// In a child, what was delivered to the parent is told and taken. Nothing is freed here: entries of
// no use are swept later.
void releaseSignalEvents(ForkSide side) {
  if (side == ForkSide::CHILD) {
    Telling::forgetLost();
    while (const VarnSignalEvent* const lost = StackObjects<VarnSignalEvent>::takeLost()) {
      for (const auto& entry : table.value) {
        if (entry->event == lost)
          leaveLocked(*entry);
      }
    }
    for (const auto& entry : table.value) {
      entry->told = SignalRelay::deliveries(entry->signal);
      entry->taken = entry->told;
      entry->hasThread = entry->hasThread && pthread_equal(entry->thread, pthread_self()) != 0;
    }
  }
  StackObjects<VarnSignalEvent>::unlock();
  Telling::unlockList();
  tableMutex.unlock();
}

}  // namespace

constinit const ForkPart signalEventFork{&prepareSignalEvents, &releaseSignalEvents};

}  // namespace VarnSupport
