// A pool has no threads before an object needs them, and has them in one process: in the child of a
// fork its queue belongs to a loop that is not the current one, and another is made.
#include "VarnSupport/VarnCallbackPool.h"

#include <string>

#include "VarnSupport/VarnException.h"
#include "loop/CallQueue.h"
#include "loop/EventLoop.h"
#include "runtime/Cancellation.h"
#include "runtime/ProcessExit.h"

namespace VarnSupport {

namespace {

constexpr int kMostThreads = 256;

int checked(int threads) {
  if (threads < 1 || threads > kMostThreads)
    throw VarnException("VarnCallbackPool: " + std::to_string(threads) + " threads", 0);
  ProcessExit::noteObject();
  return threads;
}

}  // namespace

VarnCallbackPool::VarnCallbackPool(int threads)
    : m_pState(std::make_shared<State>(checked(threads))) {}

// Objects that still use the pool get no calls from now on. Those under way are waited for.
VarnCallbackPool::~VarnCallbackPool() {
  const QuietCancellationGuard closed;
  std::shared_ptr<CallQueue> queue;
  {
    const LoopLock lock;
    m_pState->isGone = true;
    if (m_pState->queue != nullptr && EventLoop::isCurrent(&m_pState->queue->loop()))
      queue = m_pState->queue;
    if (queue != nullptr)
      queue->end();
  }
  if (queue != nullptr)
    PoolThread::await({queue.get()});
}

}  // namespace VarnSupport
