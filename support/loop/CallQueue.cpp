// The first object is taken out under the lock under which a destructor would withdraw it, and is
// noted as being called (CallUnderWay) before the lock is given back: from then on its destructor
// waits. The call shares the object, which may be destroyed by its own function. What remains of
// such an object is destroyed before the call counts as ended, and never under the lock.
#include "loop/CallQueue.h"

#include <cassert>
#include <memory>
#include <utility>

#include "VarnSupport/VarnException.h"
#include "loop/EventLoop.h"
#include "loop/LoopThread.h"

namespace VarnSupport {

// Ends, too, when the thread is unwound.
class CallQueue::Call {
 public:
  // Requires: the lock is held.
  Call(CallQueue& queue, StallWatch::Worker& worker)
      : m_oUnderWay(queue.m_pFirst),
        m_pCallee(queue.m_pFirst->shared_from_this()),
        m_oQueue(queue),
        m_oWorker(worker) {
    assert(LoopLock::isHeld());
    const MonotonicTime now = monotonicNow();
    queue.remove(*m_pCallee);
    m_pCallee->m_bPending = false;
    m_pCallee->m_bRunning = true;
    worker.begin(*m_pCallee, now);
    m_pCallee->beginCall(now);
  }
  Call(const Call&) = delete;
  Call& operator=(const Call&) = delete;
  // The function may have forked, and this be the child: the loop is of the parent then.
  ~Call() {
    const LoopLock lock;
    m_oWorker.end();
    if (m_pCallee->m_pLoop != &m_oQueue.m_oLoop || !m_pCallee->isEnlisted())
      return;
    m_pCallee->endCall();
    m_pCallee->letCalls();
  }

  void make() { m_pCallee->makeCall(); }

 private:
  const Callee::Calls m_oUnderWay;
  const std::shared_ptr<Callee> m_pCallee;
  CallQueue& m_oQueue;
  StallWatch::Worker& m_oWorker;
};

void CallQueue::push(Callee& callee) {
  assert(LoopLock::isHeld() && !callee.m_bQueued);
  if (m_bEnded)
    return;
  callee.m_bQueued = true;
  callee.m_pNext = nullptr;
  callee.m_pPrevious = m_pLast;
  (m_pLast != nullptr ? m_pLast->m_pNext : m_pFirst) = &callee;
  m_pLast = &callee;
  ++m_nSize;
  if (this == &m_oLoop.ownQueue()) {
    m_oLoop.wakeFor(MonotonicTime());
  } else {
    ++m_nPushed;
    m_nPushed.notify_one();
  }
}

void CallQueue::remove(Callee& callee) {
  assert(callee.m_bQueued && callee.m_pQueue == this);
  callee.m_bQueued = false;
  (callee.m_pPrevious != nullptr ? callee.m_pPrevious->m_pNext : m_pFirst) = callee.m_pNext;
  (callee.m_pNext != nullptr ? callee.m_pNext->m_pPrevious : m_pLast) = callee.m_pPrevious;
  --m_nSize;
}

void CallQueue::end() {
  assert(LoopLock::isHeld());
  m_bEnded = true;
  while (m_pFirst != nullptr)
    remove(*m_pFirst);
  ++m_nPushed;
  m_nPushed.notify_all();
}

// The call is destroyed without the lock, whichever way it ends.
bool CallQueue::callFirst(StallWatch::Worker& worker) {
  ProcessExit::watch();
  LoopLock lock;
  if (m_pFirst == nullptr || ProcessExit::hasBegun() || !EventLoop::isCurrent(&m_oLoop))
    return false;
  Call call(*this, worker);
  lock.unlock();
  call.make();
  return true;
}

// The number of pushes is read before the queue is looked at: a push in between lets the wait
// return at once.
void CallQueue::work() {
  const PoolThread life({this});
  StallWatch::Worker worker(m_oLoop.stalls(), &m_nSize);
  while (true) {
    const unsigned seen = m_nPushed;
    if (callFirst(worker))
      continue;
    {
      const LoopLock lock;
      if (m_bEnded || !EventLoop::isCurrent(&m_oLoop))
        return;
      worker.rest();
    }
    m_nPushed.wait(seen);
  }
}

CallQueue& VarnCallbackPool::State::queueIn(EventLoop& loop) {
  assert(LoopLock::isHeld());
  if (isGone)
    throw VarnException("VarnCallbackPool: the pool is gone", 0);
  if (queue != nullptr && &queue->loop() == &loop)
    return *queue;
  auto newQueue = std::make_shared<CallQueue>(loop);
  for (int i = 1; i <= threadCount; ++i) {
    if (!startLoopThread("vsupt-pool-" + std::to_string(i), [newQueue] { newQueue->work(); })) {
      newQueue->end();
      throw VarnException("VarnCallbackPool: the system refuses a thread", 0);
    }
  }
  queue = std::move(newQueue);
  return *queue;
}

}  // namespace VarnSupport
