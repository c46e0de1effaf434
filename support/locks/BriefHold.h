// The library's own way to hold a critical section for a few instructions.
#ifndef SUPPORT_LOCKS_BRIEFHOLD_H
#define SUPPORT_LOCKS_BRIEFHOLD_H

#include "VarnSupport/VarnCriticalSection.h"
#include "runtime/BriefGate.h"
#include "runtime/NeverDestroyed.h"

namespace VarnSupport {

// The section behind g_pCriticalSection. It is never destroyed: threads that outlive main() still
// count references and make locks.
extern constinit NeverDestroyed<VarnCriticalSectionObject> theGlobalSection;
inline VarnCriticalSectionObject& globalSection() noexcept { return theGlobalSection.value; }

// pthread_self(), without a call where the platform names a thread by its pointer.
inline pthread_t callingThread() {
#ifdef __x86_64__
  return reinterpret_cast<pthread_t>(__builtin_thread_pointer());
#else
  return pthread_self();
#endif
}

// Only the calling thread can make the owner equal to itself, so the test needs no lock.
inline bool LockImplementation::isHeldByCaller() const {
  return m_hOwner.load(std::memory_order_relaxed) == callingThread();
}

// Excludes other threads from a critical section without entering it on the caller's list of held
// locks: half the price of lock() and unlock().
// Requires: cancellation is closed, so that no recovery can need the entry; nothing but plain data
// access and allocation inside, no call-out and no other lock.
class VSUPT_SCOPED_CAPABILITY BriefHold {
 public:
  [[gnu::always_inline]] explicit BriefHold(VarnCriticalSectionObject& object) VSUPT_ACQUIRE(object)
      : m_pLock(&object.state()) {
    const pthread_t owner = m_pLock->m_hOwner.load(std::memory_order_relaxed);
    if (owner == callingThread()) {
      m_pLock = nullptr;
      return;
    }
    if (owner == 0) [[likely]]
      pthread_mutex_lock(&m_pLock->m_oMutex);
    else
      m_pLock->awaitMutex();
    m_pLock->m_hOwner.store(kNoThread, std::memory_order_relaxed);
  }
  BriefHold(const BriefHold&) = delete;
  BriefHold& operator=(const BriefHold&) = delete;
  [[gnu::always_inline]] ~BriefHold() VSUPT_RELEASE() {
    if (m_pLock == nullptr)
      return;
    m_pLock->m_hOwner.store(0, std::memory_order_relaxed);
    pthread_mutex_unlock(&m_pLock->m_oMutex);
  }

  // Whether the caller held the section already.
  bool isHeldByHand() const { return m_pLock == nullptr; }

  // Whether `lock` is the state of the section.
  static bool isStateOf(const VarnCriticalSectionObject& object, const LockImplementation* lock) {
    const auto* const state = object.m_pState.load(std::memory_order_relaxed);
    return state != nullptr && *state == lock;
  }

  // True until the lock is used for the first time, which allocates and can fail.
  static bool isUnused(const VarnCriticalSectionObject& object) {
    return object.m_pState.load(std::memory_order_acquire) == nullptr;
  }

  // Whether the calling thread holds the section.
  static bool isHeldByCaller(const VarnCriticalSectionObject& object) {
    const auto* const state = object.m_pState.load(std::memory_order_acquire);
    return state != nullptr && (*state)->isHeldByCaller();
  }

  // For the child of a fork: frees a section that another thread held. True when that was so.
  static bool renewIfLost(VarnCriticalSectionObject& object);

  // The owner of a lock that is held so, by which others see that it is held. No thread is called
  // that.
  static constexpr pthread_t kNoThread = 1;

 private:
  LockImplementation* m_pLock;  // null when the caller held the lock already
};

// The same for the lock of an object that a child of a fork may use: a fork waits for the holder,
// so that the lock is free there, and what it guards is whole.
class VSUPT_SCOPED_CAPABILITY WholeHold {
 public:
  [[gnu::always_inline]] explicit WholeHold(VarnCriticalSectionObject& object) VSUPT_ACQUIRE(object)
      : m_oHold(object) {}
  WholeHold(const WholeHold&) = delete;
  WholeHold& operator=(const WholeHold&) = delete;
  [[gnu::always_inline]] ~WholeHold() VSUPT_RELEASE() {}

 private:
  BriefGate::Pass m_oPass;
  BriefHold m_oHold;
};

}  // namespace VarnSupport

#endif
