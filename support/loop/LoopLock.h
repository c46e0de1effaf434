// The lock of all that loops have.
#ifndef SUPPORT_LOOP_LOOPLOCK_H
#define SUPPORT_LOOP_LOOPLOCK_H

#include <cassert>
#include <mutex>

#include "runtime/Fork.h"

namespace VarnSupport {

// Holds the lock, for a few instructions and calls of the system that do not wait. When it is given
// back, the loop's thread is woken if that was asked for.
class LoopLock {
 public:
  LoopLock() { lock(); }
  LoopLock(const LoopLock&) = delete;
  LoopLock& operator=(const LoopLock&) = delete;
  ~LoopLock() {
    if (m_bHeld)
      unlock();
  }

  void lock() {
    m_oMutex.lock();
    m_bHeld = m_bTaken = true;
  }
  void unlock();

  // Has the descriptor written to when the lock is given back. Requires: the lock is held.
  static void wakeLater(int descriptor) {
    assert(isHeld());
    m_nToWake = descriptor;
  }

  // For the asserts of what requires the lock.
  static bool isHeld() { return m_bTaken; }

  static void prepareFork() {
    m_oMutex.lock();
    m_bTaken = true;
  }
  // Nobody is to be woken in a child: the descriptor is the parent's.
  static void releaseFork(ForkSide side);

 private:
  static constinit std::mutex m_oMutex;
  // Guarded by the mutex.
  static constinit int m_nToWake;  // -1 for none
  static constinit bool m_bTaken;

  bool m_bHeld = false;
};

}  // namespace VarnSupport

#endif
