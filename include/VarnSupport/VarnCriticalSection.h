// The recursive lock used throughout, its scope guard, and the way back for a dying thread.
//
// A critical section is one POSIX mutex plus an owner, a recursion count and a place on the list of
// the locks that its owner holds. That list lets a thread that is being cancelled give back all it
// holds. All operations are safe from any thread.
//
//   operation     | free          | held by the caller      | held by another thread
//   lock()        | taken         | one more level          | waits
//   testAndSet()  | taken, true   | one more level, true    | false
//   unlock()      | nothing       | one level less          | nothing
//   unwind()      | nothing       | free                    | nothing
#ifndef VARNSUPPORT_VARNCRITICALSECTION_H
#define VARNSUPPORT_VARNCRITICALSECTION_H

#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "VarnSupport/VarnExport.h"
#include "VarnSupport/VarnObjectBase.h"

namespace VarnSupport {

// The base of lock states. Its counts change without the global critical section, which is itself
// built on a lock state; they are atomic instead, as two threads may copy one lock.
class VSUPT_EXPORT LockBase : public VarnObjectBase {
 public:
  int addRef() override;
  int release() override;
};

// The state that the copies of one critical section share.
class VSUPT_EXPORT LockImplementation : public LockBase {
 public:
  // Every lock is recursive per thread, whatever the argument.
  explicit LockImplementation(bool recursive);
  LockImplementation(const LockImplementation&) = delete;
  LockImplementation& operator=(const LockImplementation&) = delete;
  // Gives up the holds of the destroying thread; never waits.
  // Requires: no other thread holds the lock.
  ~LockImplementation() override;

  void lock();
  bool testAndSet();
  void unlock();
  void unwind();
  int lockCount() const;

 private:
  friend class BriefHold;
  friend class HeldSections;
  friend class VarnCriticalSectionObject;
  friend VSUPT_EXPORT void VarnCriticalSectionRecoverFn(void*);

  bool isHeldByCaller() const;
  VSUPT_LOCAL void addLevel();
  VSUPT_LOCAL bool dropLevel();
  VSUPT_LOCAL void acquire();
  VSUPT_LOCAL void acquireFree();
  VSUPT_LOCAL void acquireHeld();
  VSUPT_LOCAL void awaitMutex();
  VSUPT_LOCAL void noteOrder() const;
  VSUPT_LOCAL void take();
  VSUPT_LOCAL void giveUp();
  VSUPT_LOCAL void free();

  // Changed by the thread that holds the mutex; owner and count are read by others as snapshots.
  pthread_mutex_t m_oMutex;
  std::atomic<pthread_t> m_hOwner{0};
  LockImplementation* m_pOlder = nullptr;
  LockImplementation* m_pNewer = nullptr;
  std::atomic<std::int32_t> m_nCount{0};
};

extern template class VarnSmartPointer<LockImplementation>;

// The key under which each thread finds the newest lock that it holds.
class VSUPT_EXPORT LockThreadStorage {
 public:
  LockThreadStorage();

  // Creates the key unless it exists. The key is never deleted.
  static void createKey();

  static pthread_key_t m_mutexListKey;
  static bool m_keyCreated;
};

extern VSUPT_EXPORT LockThreadStorage g_lockThreadStorage;

// A lock that costs nothing until it is first used. Copies of a lock that has been used are the
// same lock; copies of an unused one are independent. Copying, assigning and destroying never
// create the shared state, every other operation does.
class VSUPT_EXPORT VSUPT_CAPABILITY("critical section") VarnCriticalSectionObject {
 public:
  constexpr VarnCriticalSectionObject() noexcept = default;
  // The flag is kept and copied; every lock is recursive whatever it says.
  explicit constexpr VarnCriticalSectionObject(bool flag) noexcept : m_bFlag(flag) {}
  VarnCriticalSectionObject(const VarnCriticalSectionObject& source);
  VarnCriticalSectionObject& operator=(const VarnCriticalSectionObject& source);
  ~VarnCriticalSectionObject();

  // Creates the shared state if there is none; two threads that race make exactly one.
  void init();
  // Waits until the calling thread holds the lock.
  void lock() VSUPT_ACQUIRE();
  // Takes the lock if that needs no waiting; true when the caller now holds one more level.
  bool testAndSet() VSUPT_TRY_ACQUIRE(true);
  // Gives up one level; nothing happens unless the calling thread is the owner.
  void unlock() VSUPT_RELEASE();
  // Gives up all levels that the calling thread holds.
  void unwind() VSUPT_RELEASE();
  // The recursion count of whatever thread holds the lock, 0 when free: a snapshot.
  int lockCount();

 private:
  friend class BriefHold;
  friend class HeldSections;

  LockImplementation& state() {
    const auto* shared = m_pState.load(std::memory_order_acquire);
    if (shared == nullptr) {
      makeState();
      shared = m_pState.load(std::memory_order_acquire);
    }
    return **shared;
  }
  VSUPT_LOCAL void makeState();
  VSUPT_LOCAL void lockGuarded();
  VSUPT_LOCAL void lockSlowly();
  VSUPT_LOCAL static void lockCancellably(LockImplementation& lock);
  VSUPT_LOCAL static void lockAnew(LockImplementation& lock);
  VSUPT_LOCAL static void acquireGuarded(LockImplementation& lock);
  VSUPT_LOCAL void unlockGuarded();
  VSUPT_LOCAL static void giveUpGuarded(LockImplementation& lock);
  VSUPT_LOCAL void unlockQuietly();

  std::atomic<VarnSmartPointer<LockImplementation>*> m_pState{nullptr};
  bool m_bFlag = false;
};

// The same lock under a second name, for lock factories.
class VSUPT_EXPORT VarnMutexObject : public VarnCriticalSectionObject {
 public:
  using VarnCriticalSectionObject::VarnCriticalSectionObject;
};

// Holds one level of a critical section for a scope. The object must outlive the guard.
class VSUPT_EXPORT VSUPT_SCOPED_CAPABILITY VarnCriticalSection {
 public:
  // With `lockNow` false nothing is locked, and nothing unlocked later.
  explicit VarnCriticalSection(VarnCriticalSectionObject& object, bool lockNow = true)
      VSUPT_ACQUIRE(object);
  VarnCriticalSection(const VarnCriticalSection&) = delete;
  VarnCriticalSection& operator=(const VarnCriticalSection&) = delete;
  ~VarnCriticalSection() VSUPT_RELEASE();

  // Leaves the section before the scope ends.
  void unlock() VSUPT_RELEASE();

 private:
  VarnCriticalSectionObject* m_pObject;
  bool m_bHolds = false;
};

// Frees every lock that the calling thread holds, whatever its count. The argument is ignored. The
// clean-up step of a thread whose run is being unwound.
VSUPT_EXPORT void VarnCriticalSectionRecoverFn(void*);

// The global section: while a thread holds it, reference counts stand still for all others. Null
// before the library has attached and after it has detached.
extern VSUPT_EXPORT VarnCriticalSectionObject* g_pCriticalSection;

}  // namespace VarnSupport

#endif
