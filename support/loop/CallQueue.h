// Objects that are to be called by one thread, or by one of several.
#ifndef SUPPORT_LOOP_CALLQUEUE_H
#define SUPPORT_LOOP_CALLQUEUE_H

#include <atomic>
#include <cstddef>

#include "VarnSupport/VarnCallbackPool.h"
#include "loop/Callee.h"
#include "loop/StallWatch.h"

namespace VarnSupport {

// Guarded by the lock of the loop. Destroyed in no child of a fork that did not make it.
class CallQueue {
 public:
  explicit CallQueue(EventLoop& loop) : m_oLoop(loop) {}
  CallQueue(const CallQueue&) = delete;
  CallQueue& operator=(const CallQueue&) = delete;

  void push(Callee& callee);
  void remove(Callee& callee);
  std::size_t size() const { return m_nSize; }

  // Takes no call from here on, and makes none of those that it has.
  void end();

  // Makes the first call; false when there is none, or none may begin. Takes the lock itself.
  bool callFirst(StallWatch::Worker& worker);
  // For threads of a pool: makes calls until the end. Takes the lock itself.
  void work();

  EventLoop& loop() const { return m_oLoop; }

 private:
  class Call;

  EventLoop& m_oLoop;
  Callee* m_pFirst = nullptr;
  Callee* m_pLast = nullptr;
  std::size_t m_nSize = 0;
  bool m_bEnded = false;
  std::atomic<unsigned> m_nPushed{0};  // what threads of a pool wait for
};

// A thread of a pool, by its queue: its life is what the destructor of the pool waits for.
struct PoolThreadKey {
  bool operator==(const PoolThreadKey& other) const { return queue == other.queue; }

  const CallQueue* queue = nullptr;
};
using PoolThread = CallUnderWay<PoolThreadKey>;

// The threads of a pool begin with the first object that has it in this process. Guarded by the
// lock of the loop.
struct VSUPT_LOCAL VarnCallbackPool::State {
  explicit State(int threads) : threadCount(threads) {}

  // The queue in `loop`. Throws VarnException when the pool is gone, or the system refuses threads.
  CallQueue& queueIn(EventLoop& loop);

  const int threadCount;
  std::shared_ptr<CallQueue> queue;
  bool isGone = false;
};

}  // namespace VarnSupport

#endif
