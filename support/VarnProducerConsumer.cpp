#include "VarnSupport/VarnProducerConsumer.h"

#include <pthread.h>

#include "Cancellation.h"
#include "VarnSupport/VarnLogging.h"

namespace VarnSupport {

namespace {

void trace(const char* text) {
  if (VarnLogging::admits(9))
    VarnLogRecord(9) << "VarnBaseProducerConsumer::produceSentinel: " << text;
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

struct VarnBaseProducerConsumer::Rendezvous {
  pthread_cond_t condition = PTHREAD_COND_INITIALIZER;
  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
};

VarnBaseSynchronizedQueue::VarnBaseSynchronizedQueue() = default;

VarnBaseSynchronizedQueue::~VarnBaseSynchronizedQueue() = default;

VarnCriticalSectionObject& VarnBaseSynchronizedQueue::getLock() { return m_oLock; }

VarnBaseProducerConsumer::VarnBaseProducerConsumer(VarnBaseSynchronizedQueue& queue)
    : m_pRendezvous(new Rendezvous), m_oQueue(queue) {}

VarnBaseProducerConsumer::~VarnBaseProducerConsumer() {
  pthread_cond_destroy(&m_pRendezvous->condition);
  pthread_mutex_destroy(&m_pRendezvous->mutex);
  delete m_pRendezvous;
}

void VarnBaseProducerConsumer::lockSyncMutex() { pthread_mutex_lock(&m_pRendezvous->mutex); }

void VarnBaseProducerConsumer::unlockSyncMutex() { pthread_mutex_unlock(&m_pRendezvous->mutex); }

void VarnBaseProducerConsumer::waitForSyncEvent() {
  const CancellationGuard closed;
  const BlockingCall cancellable;
  pthread_cond_wait(&m_pRendezvous->condition, &m_pRendezvous->mutex);
}

void VarnBaseProducerConsumer::setSyncEvent() { pthread_cond_broadcast(&m_pRendezvous->condition); }

void VarnBaseProducerConsumer::produceSentinel(bool clearQueue) {
  const CancellationGuard closed;
  trace("waiting for lock");
  const SyncHold hold(*this);
  trace("adding sentinel");
  m_bSentinel = true;
  if (clearQueue) {
    trace("clearing queue");
    m_oQueue.clear();
  }
  setSyncEvent();
}

bool VarnBaseProducerConsumer::isSentinel() const { return m_bSentinel; }

}  // namespace VarnSupport
