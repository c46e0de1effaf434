// Who changes something that the loop's thread sleeps on notes the descriptor that wakes it, and
// the last step of giving the lock back writes to that. However much is changed under one lock,
// there is one wake-up, and the thread that is woken finds the lock free.
#include "loop/LoopLock.h"

#include <cassert>
#include <utility>

#include "runtime/Bell.h"

namespace VarnSupport {

constinit std::mutex LoopLock::m_oMutex;
constinit int LoopLock::m_nToWake = -1;
constinit bool LoopLock::m_bTaken = false;

void LoopLock::unlock() {
  assert(m_bHeld);
  const int toWake = std::exchange(m_nToWake, -1);
  m_bHeld = m_bTaken = false;
  m_oMutex.unlock();
  if (toWake >= 0)
    ringBell(toWake);
}

void LoopLock::releaseFork(ForkSide side) {
  if (side == ForkSide::CHILD)
    m_nToWake = -1;
  m_bTaken = false;
  m_oMutex.unlock();
}

}  // namespace VarnSupport
