#include "VarnSupport/VarnEvent.h"

#include <pthread.h>
#include <sched.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <ctime>
#include <memory>
#include <new>
#include <typeinfo>
#include <utility>

#include "Cancellation.h"
#include "EventAccess.h"
#include "ForkHandlers.h"
#include "VarnSupport/VarnThread.h"

namespace VarnSupport {

namespace {

constinit thread_local const EventWaitContext* t_pWaitContext = nullptr;

// A set() that comes soon is cheaper to wait for than to sleep for. Between two looks the processor
// is given up, as whoever is about to call set() may need just this one.
constexpr int kLooksBeforeSleeping = 40;

// The memory of the last notification that a thread has destroyed, for its next set(). Events are
// set to the very end of a thread, beyond the destructors of its variables: these have none.
constinit thread_local void* t_pSpareMemory = nullptr;  // for a VarnEventNotification
constinit thread_local bool t_bThreadEnds = false;

// Frees it as the thread ends: the first use of a thread's owner registers the destructor.
class SpareMemoryOwner {
 public:
  SpareMemoryOwner() = default;
  SpareMemoryOwner(const SpareMemoryOwner&) = delete;
  SpareMemoryOwner& operator=(const SpareMemoryOwner&) = delete;
  ~SpareMemoryOwner() {
    t_bThreadEnds = true;
    ::operator delete(std::exchange(t_pSpareMemory, nullptr));
  }

  void keep(void* memory) { t_pSpareMemory = memory; }
};

constinit thread_local SpareMemoryOwner t_oSpareMemoryOwner;

}  // namespace

// The condition and the mutex come first: getHandle() hands out their address.
//
// The number that each set() raises and the count of sleeping threads share a word. A set() that
// finds nobody asleep is one exchange and touches the event no more: a waiter that sees it may
// return and destroy the event at once. All else happens under the mutex. Who waits on what
// getHandle() gave out is not counted; a bit of the word says that there may be some.
struct VarnEvent::State {
  pthread_cond_t condition = PTHREAD_COND_INITIALIZER;
  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  std::atomic<std::uint64_t> word{0};
  // The process that condition and mutex belong to, by how often it came of a fork: twice that, one
  // more while they are being renewed.
  std::atomic<std::uint32_t> owner{g_nForks * 2};

  static constexpr std::uint64_t kHandedOut = std::uint64_t{1} << 19;
  static constexpr std::uint64_t kSleepers = kHandedOut - 1;
  static constexpr std::uint64_t kOneSet = kHandedOut * 2;

  ~State() {
    pthread_cond_destroy(&condition);
    pthread_mutex_destroy(&mutex);
  }

  std::uint64_t number() const { return word.load(std::memory_order_acquire) & -kOneSet; }
  bool hasSleepers() const { return (word.load(std::memory_order_relaxed) & kSleepers) != 0; }
  bool mayHaveSleepers() const { return word.load(std::memory_order_relaxed) % kOneSet != 0; }

  // Sleepers that a fork left behind would hold up the broadcasts of the child, for good. Tickets
  // stay good: the number goes on.
  void renewAfterFork() {
    const std::uint32_t own = g_nForks * 2;
    std::uint32_t seen = owner.load(std::memory_order_acquire);
    while (seen != own) {
      if (seen == own + 1) {
        sched_yield();
        seen = owner.load(std::memory_order_acquire);
      } else if (owner.compare_exchange_weak(seen, own + 1, std::memory_order_acquire)) {
        pthread_cond_init(&condition, nullptr);
        pthread_mutex_init(&mutex, nullptr);
        word.fetch_and(~kSleepers, std::memory_order_relaxed);
        owner.store(seen = own, std::memory_order_release);
      }
    }
  }

  void raise() {
    renewAfterFork();
    std::uint64_t seen = word.load(std::memory_order_relaxed);
    while (seen % kOneSet == 0) {
      if (word.compare_exchange_weak(seen, seen + kOneSet, std::memory_order_release,
                                     std::memory_order_relaxed))
        return;
    }
    pthread_mutex_lock(&mutex);
    word.fetch_add(kOneSet, std::memory_order_release);
    wakeLocked();
    pthread_mutex_unlock(&mutex);
  }

  // Under the mutex, so that no sleeper can return and destroy the event before this is done with
  // it.
  void wakeLocked() {
    if (mayHaveSleepers())
      pthread_cond_broadcast(&condition);
  }

  void wakeSleepers() {
    renewAfterFork();
    pthread_mutex_lock(&mutex);
    wakeLocked();
    pthread_mutex_unlock(&mutex);
  }

  bool isWaitedFor() {
    renewAfterFork();
    pthread_mutex_lock(&mutex);
    const bool waitedFor = hasSleepers();
    pthread_mutex_unlock(&mutex);
    return waitedFor;
  }

  bool waitSince(std::uint64_t ticket, const std::atomic<bool>* abandoned) {
    for (int looks = 0; looks < kLooksBeforeSleeping; ++looks) {
      if (number() != ticket)
        return true;
      sched_yield();
    }
    const Sleeper sleeper(*this);
    while (number() == ticket && (abandoned == nullptr || !abandoned->load())) {
      const BlockingCall cancellable;
      pthread_cond_wait(&condition, &mutex);
    }
    return number() != ticket;
  }

  // Holds the mutex and counts a sleeper for a scope, which a cancellation may end.
  class Sleeper {
   public:
    explicit Sleeper(State& state) : m_oState(state) {
      m_oState.renewAfterFork();
      pthread_mutex_lock(&m_oState.mutex);
      m_oState.word.fetch_add(1, std::memory_order_relaxed);
    }
    Sleeper(const Sleeper&) = delete;
    Sleeper& operator=(const Sleeper&) = delete;
    ~Sleeper() {
      m_oState.word.fetch_sub(1, std::memory_order_relaxed);
      pthread_mutex_unlock(&m_oState.mutex);
    }

   private:
    State& m_oState;
  };
};

VarnEvent::VarnEvent() : m_pState(nullptr) {
  const CancellationGuard closed;
  m_pState = new State;
}

// At exit threads may be waiting for an event that is static. They wait on, on memory that stays.
VarnEvent::~VarnEvent() {
  const QuietCancellationGuard closed;
  if (!m_pState->isWaitedFor())
    delete m_pState;
}

void VarnEvent::addDependent(VarnDependent& dependent) { m_oDependents.addDependent(dependent); }

void VarnEvent::removeDependent(VarnDependent& dependent) {
  m_oDependents.removeDependent(dependent);
}

void VarnEvent::set() {
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
      alive = m_oDependents.deliver(*notification);
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
  m_pState->renewAfterFork();
  pthread_mutex_lock(&m_pState->mutex);
  if (!m_pState->mayHaveSleepers())
    pthread_cond_init(&m_pState->condition, nullptr);
  pthread_mutex_unlock(&m_pState->mutex);
}

int VarnEvent::wait(int timeoutMs) {
  const CancellationGuard closed;
  if (timeoutMs == -1) {
    const EventWaitContext* const context = t_pWaitContext;
    if (context != nullptr && &context->event == this)
      m_pState->waitSince(context->ticket, &context->abandoned);
    else
      m_pState->waitSince(EventAccess::ticket(*this), nullptr);
    return 0;
  }
  // An absolute time near the epoch: a finite wait ends at once, and callers rely on it.
  const std::uint32_t nanoseconds = static_cast<std::uint32_t>(timeoutMs) * 1000000U;
  const timespec deadline{timeoutMs / 1000, nanoseconds};
  const State::Sleeper sleeper(*m_pState);
  const int result = pthread_cond_timedwait(&m_pState->condition, &m_pState->mutex, &deadline);
  if (result == 0)
    return 0;
  return result == ETIMEDOUT ? -2 : -3;
}

void* VarnEvent::getHandle() {
  m_pState->renewAfterFork();
  m_pState->word.fetch_or(State::kHandedOut, std::memory_order_relaxed);
  return m_pState;
}

VarnNotification* VarnEvent::createNotification() {
  void* const memory = std::exchange(t_pSpareMemory, nullptr);
  return memory == nullptr ? new VarnEventNotification : ::new (memory) VarnEventNotification;
}

void VarnEvent::destroyNotification(VarnNotification* notification) {
  if (notification == nullptr || typeid(*notification) != typeid(VarnEventNotification)) {
    delete notification;
    return;
  }
  notification->~VarnNotification();
  if (t_pSpareMemory == nullptr && !t_bThreadEnds)
    t_oSpareMemoryOwner.keep(notification);
  else
    ::operator delete(notification);
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
  return VarnThread::waitForThreads(threads, waitAll, timeoutMs, VarnThread::TO_START);
}

int VarnEvent::wait(int count, VarnEvent* events, bool waitAll, int timeoutMs) {
  const CancellationGuard closed;
  std::vector<VarnEvent*> addresses;
  for (int i = 0; i < count; ++i)
    addresses.push_back(&events[i]);
  return wait(addresses, waitAll, timeoutMs);
}

std::uint64_t EventAccess::ticket(const VarnEvent& event) { return event.m_pState->number(); }

bool EventAccess::waitSince(VarnEvent& event, std::uint64_t ticket,
                            const std::atomic<bool>* abandoned) {
  return event.m_pState->waitSince(ticket, abandoned);
}

void EventAccess::raise(VarnEvent& event) { event.m_pState->raise(); }

void EventAccess::wakeWaiters(VarnEvent& event) { event.m_pState->wakeSleepers(); }

EventWaitContext::EventWaitContext(const VarnEvent& waitedFor, std::uint64_t from,
                                   const std::atomic<bool>& abandonedFlag)
    : event(waitedFor), ticket(from), abandoned(abandonedFlag) {
  t_pWaitContext = this;
}

EventWaitContext::~EventWaitContext() { t_pWaitContext = nullptr; }

// The state renews itself.
void ForkHandlers::renew(VarnEvent& event) { renew(event.m_oDependents.m_oLock); }

VarnEventWaitThread::VarnEventWaitThread(VarnEvent& event, int timeoutMs)
    : VarnThread("EventWaitThread"),
      m_pEvent(&event),
      m_nTimeoutMs(timeoutMs),
      m_nTicket(EventAccess::ticket(event)) {}

VarnEventWaitThread::~VarnEventWaitThread() {
  m_bAbandoned.store(true);
  EventAccess::wakeWaiters(*m_pEvent);
  joinFinally();
}

int VarnEventWaitThread::run() {
  m_bStarted.store(true);
  const EventWaitContext context(*m_pEvent, m_nTicket, m_bAbandoned);
  m_pEvent->wait(m_nTimeoutMs);
  return 0;
}

}  // namespace VarnSupport
