// Two bases for work queues: a queue behind a lock, and the rendezvous of its producers and
// consumers.
//
// Applications derive the queue, with its elements, and the producers and consumers from them. Lock
// order: the synchronisation mutex, then the queue's lock. A consumer's loop:
//
//   lockSyncMutex();
//   while (queueIsEmpty() && !isSentinel())
//     waitForSyncEvent();
//   unlockSyncMutex();
#ifndef VARNSUPPORT_VARNPRODUCERCONSUMER_H
#define VARNSUPPORT_VARNPRODUCERCONSUMER_H

#include "VarnSupport/VarnCriticalSection.h"
#include "VarnSupport/VarnExport.h"

namespace VarnSupport {

// The derived class holds the elements, guarded by getLock().
class VSUPT_EXPORT VarnBaseSynchronizedQueue {
 public:
  VarnBaseSynchronizedQueue();
  VarnBaseSynchronizedQueue(const VarnBaseSynchronizedQueue&) = delete;
  VarnBaseSynchronizedQueue& operator=(const VarnBaseSynchronizedQueue&) = delete;
  virtual ~VarnBaseSynchronizedQueue();

  // Empties the queue.
  virtual void clear() = 0;

  VarnCriticalSectionObject& getLock();

 private:
  VarnCriticalSectionObject m_oLock;
};

// Where the producers and consumers of one queue meet.
class VSUPT_EXPORT VarnBaseProducerConsumer {
 public:
  // The queue must outlive this object.
  explicit VarnBaseProducerConsumer(VarnBaseSynchronizedQueue& queue);
  VarnBaseProducerConsumer(const VarnBaseProducerConsumer&) = delete;
  VarnBaseProducerConsumer& operator=(const VarnBaseProducerConsumer&) = delete;
  // The queue is left as it is. Requires: nobody waits, unless the process exits.
  virtual ~VarnBaseProducerConsumer();

  // The mutex that orders the sentinel and the wake-ups.
  void lockSyncMutex();
  void unlockSyncMutex();
  // Waits for setSyncEvent(); may return without one, so conditions are tested in a loop. A thread
  // that is killed here holds the mutex again while it unwinds. Requires: the mutex is held.
  void waitForSyncEvent();
  // Wakes every waiting consumer. Requires: the mutex is held, lest a consumer that has just looked
  // at the queue misses it.
  void setSyncEvent();
  // Tells consumers to stop, with `clearQueue` after emptying the queue, and wakes them.
  void produceSentinel(bool clearQueue);
  // True once consumers are to stop. Requires: the mutex is held.
  bool isSentinel() const;

 private:
  struct VSUPT_LOCAL Rendezvous;

  bool m_bSentinel = false;
  Rendezvous* m_pRendezvous;
  VarnBaseSynchronizedQueue& m_oQueue;
};

}  // namespace VarnSupport

#endif
