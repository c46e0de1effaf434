// A call is one turn of a small machine. Pending: there is something to call for. Queued: in line
// for a thread. Running: a thread is at it. An object is queued when it is pending and not running,
// so that its calls never overlap, whatever comes meanwhile.
//
// An object enters the loop of the process when it is first needed there. The child of a fork has a
// loop of its own, and objects that were made before the fork enter it when they are used again:
// whether an object is enlisted is therefore asked by the loop that it knows, never by a flag.
#include "loop/Callee.h"

#include <cassert>

#include "VarnSupport/VarnException.h"
#include "loop/CallQueue.h"
#include "loop/EventLoop.h"
#include "threads/ExceptionText.h"
#include "threads/Uncaught.h"

namespace VarnSupport {

Callee::Callee(const char* kind, bool hasFunction, const VarnCallbackPool* pool)
    : m_pKind(kind), m_pPool(pool != nullptr ? pool->m_pState : nullptr) {
  if (!hasFunction)
    throw VarnException(std::string(kind) + ": there is no function to call", 0);
  ProcessExit::noteObject();
}

bool Callee::isEnlisted() const {
  assert(LoopLock::isHeld());
  return EventLoop::isCurrent(m_pLoop);
}

void Callee::enlist() {
  if (isEnlisted())
    return;
  EventLoop& loop = EventLoop::current();
  CallQueue& queue = hasPool() ? m_pPool->queueIn(loop) : loop.ownQueue();
  m_nSlot = loop.addObject(*this);
  m_pLoop = &loop;
  m_pQueue = &queue;
  m_bPending = m_bQueued = m_bRunning = false;
}

// An object that could not enter is withdrawn as by its destructor, which is not called for one
// whose constructor throws.
void Callee::activate() {
  const CancellationGuard closed;
  ProcessExit::watch();
  try {
    enterLoop();
  } catch (...) {
    withdraw();
    throw;
  }
  ProcessExit::noteObject();
}

void Callee::withdraw() noexcept {
  {
    const LoopLock lock;
    m_bWithdrawn = true;
    if (isEnlisted()) {
      leaveLoop();
      unpend();
      m_pLoop->removeObject(m_nSlot);
      m_pLoop = nullptr;
    }
  }
  awaitCalls();
}

void Callee::pend() {
  assert(isEnlisted());
  m_bPending = true;
  if (!m_bQueued && !m_bRunning)
    m_pQueue->push(*this);
}

void Callee::unpend() {
  assert(LoopLock::isHeld());
  m_bPending = false;
  if (m_bQueued)
    m_pQueue->remove(*this);
}

void Callee::letCalls() {
  assert(LoopLock::isHeld());
  m_bRunning = false;
  if (m_bPending && !m_bQueued)
    m_pQueue->push(*this);
}

void Callee::setDeadline(MonotonicTime deadline) {
  assert(isEnlisted());
  m_pLoop->setDeadline(m_nSlot, deadline);
}

void Callee::clearDeadline() {
  assert(isEnlisted());
  m_pLoop->clearDeadline(m_nSlot);
}

void Callee::tellException() const noexcept {
  Uncaught::report([this] { return describe(); },
                   [this] { return describe() + ": the function threw " + describeException(); });
}

}  // namespace VarnSupport
