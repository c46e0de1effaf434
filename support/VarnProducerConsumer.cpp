// The rendezvous of producers and consumers: a mutex that callers hold between two operations, and
// an event. Who holds the mutex may be killed, so the holder notes it with its cancellation, which
// gives it back when the thread ends.
//
// Whoever waits takes the number of the event under the mutex, and a set() under the mutex moves
// the number on. Whom that lets go on cannot do so before the mutex is free, and is woken only
// then. The count of waiters tells a set() that there are some, and a flag that one of them has not
// been called since: while those who were called are on their way, another set() costs a look.
//
// Who waits alone looks for a while before it sleeps, as a set() mostly comes soon. Several would
// take turns at the processor, and at the mutex, for each single element.
#include "VarnSupport/VarnProducerConsumer.h"

#include <pthread.h>

#include <atomic>
#include <cassert>
#include <climits>
#include <cstdint>

#include "locks/BriefHold.h"
#include "log/OwnRecords.h"
#include "runtime/Cancellation.h"
#include "runtime/ShortWait.h"
#include "threads/EventState.h"

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

struct alignas(64) VarnBaseProducerConsumer::Rendezvous : CancellationState::Held, EventState {
  // A thread of the library that ends while it has the mutex, as one does that is killed while it
  // waits for work, gives it back.
  Rendezvous() {
    giveBack = [](Held& held) { static_cast<Rendezvous&>(held).unlock(); };
  }
  ~Rendezvous() { pthread_mutex_destroy(&syncMutex); }

  void lock() {
    const auto get = [&] {
      return holder.load(std::memory_order_relaxed) == 0 && pthread_mutex_trylock(&syncMutex) == 0;
    };
    if (!get() && !(ShortWait::isWorthALook(lateLocks) && ShortWait::brings(lateLocks, get)))
      pthread_mutex_lock(&syncMutex);
    holder.store(callingThread(), std::memory_order_relaxed);
  }
  // As soon as the mutex is free another thread may destroy what stands here.
  void unlock() {
    const bool isDue = isWakeDue.load(std::memory_order_relaxed) && isWakeDue.exchange(false);
    std::uint32_t* const number = numberHalf();
    holder.store(0, std::memory_order_relaxed);
    pthread_mutex_unlock(&syncMutex);
    if (isDue)
      wake(number, INT_MAX);
  }
  void wait();
  void set();

 private:
  class Interval;

  pthread_mutex_t syncMutex = PTHREAD_MUTEX_INITIALIZER;
  std::atomic<pthread_t> holder{0};
  // The rest is for callers that do not hold the mutex, too, and changes in rare cases.
  ShortWait::tLateWaits lateLocks{0};
  std::atomic<bool> isWakeDue{false};  // when the mutex is free
  std::atomic<bool> isAwaited{false};  // by somebody whom no set() has called since
};

// A time without the mutex, which a cancellation may end.
class VarnBaseProducerConsumer::Rendezvous::Interval {
 public:
  explicit Interval(Rendezvous& rendezvous) : m_oRendezvous(rendezvous), m_oWait(rendezvous) {
    m_oRendezvous.unlock();
  }
  Interval(const Interval&) = delete;
  Interval& operator=(const Interval&) = delete;
  ~Interval() { m_oRendezvous.lock(); }

 private:
  Rendezvous& m_oRendezvous;
  const Wait m_oWait;
};

void VarnBaseProducerConsumer::Rendezvous::wait() {
  assert(holder != 0);
  const std::uint32_t ticket = number();
  const bool isAlone = !isWaitedFor();
  isAwaited.store(true, std::memory_order_release);
  const Interval open(*this);
  if (!isAlone || !comesSoon(ticket, nullptr))
    sleepSince(ticket, nullptr);
}

// Who does not hold the mutex may come between a ticket and the flag, and then moves the number
// that the ticket is compared with. Whoever clears the flag therefore moves the number after that.
void VarnBaseProducerConsumer::Rendezvous::set() {
  if (!isAwaited.load(std::memory_order_relaxed) || !isAwaited.exchange(false) || !moveOn())
    return;
  if (holder.load(std::memory_order_relaxed) == callingThread())
    isWakeDue.store(true, std::memory_order_relaxed);
  else
    wake(numberHalf(), INT_MAX);
}

VarnBaseSynchronizedQueue::VarnBaseSynchronizedQueue() = default;

VarnBaseSynchronizedQueue::~VarnBaseSynchronizedQueue() = default;

VarnCriticalSectionObject& VarnBaseSynchronizedQueue::getLock() { return m_oLock; }

VarnBaseProducerConsumer::VarnBaseProducerConsumer(VarnBaseSynchronizedQueue& queue)
    : m_pRendezvous(new Rendezvous), m_oQueue(queue) {}

VarnBaseProducerConsumer::~VarnBaseProducerConsumer() {
  if (!m_pRendezvous->staysBehind(this))
    delete m_pRendezvous;
}

void VarnBaseProducerConsumer::lockSyncMutex() {
  const CancellationGuard closed;
  m_pRendezvous->lock();
  if (isCancellationDue()) {
    m_pRendezvous->unlock();
    unwindIfPossible();
    m_pRendezvous->lock();
  }
  if (isCancellable())
    t_pCancellation->note(*m_pRendezvous);
}

void VarnBaseProducerConsumer::unlockSyncMutex() {
  const QuietCancellationGuard closed;
  if (isCancellable())
    t_pCancellation->forget(*m_pRendezvous);
  m_pRendezvous->unlock();
}

void VarnBaseProducerConsumer::waitForSyncEvent() {
  const CancellationGuard closed;
  m_pRendezvous->wait();
}

void VarnBaseProducerConsumer::setSyncEvent() {
  const CancellationGuard closed;
  m_pRendezvous->set();
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
