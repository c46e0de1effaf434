// The library's own way to hold a critical section for a few instructions.
#ifndef SUPPORT_BRIEFHOLD_H
#define SUPPORT_BRIEFHOLD_H

#include "VarnSupport/VarnCriticalSection.h"

namespace VarnSupport {

// The section behind g_pCriticalSection. It is never destroyed: threads that outlive main() still
// count references and make locks.
VarnCriticalSectionObject& globalSection() noexcept;

// Excludes other threads from a critical section without entering it on the caller's list of held
// locks: half the price of lock() and unlock().
// Requires: cancellation is closed, so that no recovery can need the entry; nothing but plain data
// access and allocation inside, no call-out and no other lock.
class VSUPT_SCOPED_CAPABILITY BriefHold {
 public:
  explicit BriefHold(VarnCriticalSectionObject& object) VSUPT_ACQUIRE(object)
      : m_pLock(&object.state()) {
    if (m_pLock->isHeldByCaller())
      m_pLock = nullptr;
    else
      pthread_mutex_lock(&m_pLock->m_oMutex);
  }
  BriefHold(const BriefHold&) = delete;
  BriefHold& operator=(const BriefHold&) = delete;
  ~BriefHold() VSUPT_RELEASE() {
    if (m_pLock != nullptr)
      pthread_mutex_unlock(&m_pLock->m_oMutex);
  }

 private:
  LockImplementation* m_pLock;  // null when the caller held the lock already
};

}  // namespace VarnSupport

#endif
