// The rendezvous of producers and consumers: a mutex that callers hold between two operations, and
// a condition. Who holds the mutex may be killed, so the holder notes it with its cancellation,
// which gives it back when the thread ends. What a fork leaves behind is made anew at the first
// use.
#include "VarnSupport/VarnProducerConsumer.h"

#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "log/OwnRecords.h"
#include "runtime/Cancellation.h"
#include "runtime/Fork.h"

namespace VarnSupport {

namespace {

void trace(const char* text) {
  OwnRecords::write(OwnRecords::TRACE, "VarnBaseProducerConsumer::produceSentinel: ", text);
}

class SyncHold {
 public:
  explicit SyncHold(VarnBaseProducerConsumer& rendezvous) : m_oRendezvous(rendezvous) {
    m_oRendezvous.lockSyncMutex();
  }
  SyncHold(const SyncHold&) = delete;
  SyncHold& operator=(const SyncHold&) = delete;
  ~SyncHold() { m_oRendezvous.unlockSyncMutex(); }

 private:
  VarnBaseProducerConsumer& m_oRendezvous;
};

}  // namespace

// A thread of the library that ends while it has the mutex, as one does that is killed while it
// waits for work, gives it back.
struct VarnBaseProducerConsumer::Rendezvous : CancellationState::Held {
  Rendezvous() {
    giveBack = [](Held& held) { pthread_mutex_unlock(&static_cast<Rendezvous&>(held).mutex); };
  }

  pthread_cond_t condition = PTHREAD_COND_INITIALIZER;
  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  std::atomic<int> waiters{0};
  std::atomic<std::uint32_t> forks{g_nForks.load()};  // when the condition was made

  // Waiters that a fork left behind would hold up the broadcasts of the child, for good. The mutex
  // stays as it is: the thread that forked may hold it. Requires: the mutex is held.
  void renewAfterFork() {
    if (forks == g_nForks)
      return;
    pthread_cond_init(&condition, nullptr);
    waiters = 0;
    forks = g_nForks.load();
  }

  // Counts a waiter for a scope, which a cancellation may end.
  class Waiter {
   public:
    explicit Waiter(Rendezvous& rendezvous) : m_oRendezvous(rendezvous) { ++m_oRendezvous.waiters; }
    Waiter(const Waiter&) = delete;
    Waiter& operator=(const Waiter&) = delete;
    ~Waiter() { --m_oRendezvous.waiters; }

   private:
    Rendezvous& m_oRendezvous;
  };
};

VarnBaseSynchronizedQueue::VarnBaseSynchronizedQueue() = default;

VarnBaseSynchronizedQueue::~VarnBaseSynchronizedQueue() = default;

VarnCriticalSectionObject& VarnBaseSynchronizedQueue::getLock() { return m_oLock; }

VarnBaseProducerConsumer::VarnBaseProducerConsumer(VarnBaseSynchronizedQueue& queue)
    : m_pRendezvous(new Rendezvous), m_oQueue(queue) {}

// At exit consumers may be waiting at one that is static. They wait on, on memory that stays.
VarnBaseProducerConsumer::~VarnBaseProducerConsumer() {
  if (m_pRendezvous->waiters != 0)
    return;
  pthread_cond_destroy(&m_pRendezvous->condition);
  pthread_mutex_destroy(&m_pRendezvous->mutex);
  delete m_pRendezvous;
}

void VarnBaseProducerConsumer::lockSyncMutex() {
  const CancellationGuard closed;
  pthread_mutex_lock(&m_pRendezvous->mutex);
  if (isCancellationDue()) {
    pthread_mutex_unlock(&m_pRendezvous->mutex);
    unwindIfPossible();
    pthread_mutex_lock(&m_pRendezvous->mutex);
  }
  if (isCancellable())
    t_pCancellation->note(*m_pRendezvous);
}

void VarnBaseProducerConsumer::unlockSyncMutex() {
  const QuietCancellationGuard closed;
  if (isCancellable())
    t_pCancellation->forget(*m_pRendezvous);
  pthread_mutex_unlock(&m_pRendezvous->mutex);
}

void VarnBaseProducerConsumer::waitForSyncEvent() {
  const CancellationGuard closed;
  m_pRendezvous->renewAfterFork();
  const Rendezvous::Waiter waiter(*m_pRendezvous);
  const BlockingCall cancellable;
  pthread_cond_wait(&m_pRendezvous->condition, &m_pRendezvous->mutex);
}

void VarnBaseProducerConsumer::setSyncEvent() {
  const CancellationGuard closed;
  m_pRendezvous->renewAfterFork();
  pthread_cond_broadcast(&m_pRendezvous->condition);
}

void VarnBaseProducerConsumer::produceSentinel(bool clearQueue) {
  const CancellationGuard closed;
  trace("waiting for lock");
  const SyncHold hold(*this);
  trace("adding sentinel");
  m_bSentinel = true;
  // A queue that cannot be cleared must not keep the consumers asleep.
  const struct Wake {
    VarnBaseProducerConsumer& rendezvous;
    ~Wake() { rendezvous.setSyncEvent(); }
  } wake{*this};
  if (clearQueue) {
    trace("clearing queue");
    m_oQueue.clear();
  }
}

bool VarnBaseProducerConsumer::isSentinel() const { return m_bSentinel; }

}  // namespace VarnSupport
