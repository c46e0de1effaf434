// A critical section shares its state with its copies, and makes it when it is first used: those
// that are static or never used cost nothing. The state is a mutex, its owner, and how often that
// holds it.
//
// The locks that a thread holds form a list, newest first, so that the end of a thread can give
// back what it still holds: VarnCriticalSectionRecoverFn. Only the owner changes the fields of a
// held lock, and only the owner can find itself in m_hOwner, so that all of them are read without
// the mutex. The owner is noted as soon as the mutex is taken, and taken off just before the mutex
// is given back: who finds an owner looks for a while before it sleeps at the mutex, as every give
// back would else have to wake a sleeper that mostly comes too late.
//
// Taking and giving back are short and called from two sides, by threads that can be killed and by
// those that cannot. They are inlined into both, and each side is a function of its own, so that a
// further level of a lock, which is no more than a count, pays for none of their frames.
//
// A thread of the library that waits for a lock may be killed meanwhile. It takes the lock, as
// there is no other way to leave the mutex, then gives it back, and unwinds.
#include "VarnSupport/VarnCriticalSection.h"

#include <cassert>
#include <cerrno>
#include <memory>

#include "VarnSupport/VarnModule.h"
#include "insight/LockOrder.h"
#include "locks/BriefHold.h"
#include "locks/HeldSections.h"
#include "runtime/BriefGate.h"
#include "runtime/Cancellation.h"
#include "runtime/Fork.h"
#include "runtime/NeverDestroyed.h"
#include "runtime/SpareMemory.h"

namespace VarnSupport {

namespace {

void setNewestLockOfThread(LockImplementation* lock) {
  HeldSections::t_pNewest = lock;
  pthread_setspecific(LockThreadStorage::m_mutexListKey, lock);
}

}  // namespace

template class VarnSmartPointer<LockImplementation>;

constinit thread_local LockImplementation* HeldSections::t_pNewest = nullptr;

constinit VarnCriticalSectionObject* g_pCriticalSection = nullptr;
constinit pthread_key_t LockThreadStorage::m_mutexListKey = 0;
constinit bool LockThreadStorage::m_keyCreated = false;
LockThreadStorage g_lockThreadStorage;

constinit NeverDestroyed<VarnCriticalSectionObject> theGlobalSection;

int LockBase::addRef() { return raiseCountAtomically(); }

int LockBase::release() {
  const int count = lowerCountAtomically();
  if (count == 0)
    delete this;
  return count;
}

LockImplementation::LockImplementation(bool) {
  LockThreadStorage::createKey();
  pthread_mutex_init(&m_oMutex, nullptr);
}

LockImplementation::~LockImplementation() {
  unwind();
  if (LockOrder::isChecked())
    LockOrder::forget(this);
  pthread_mutex_destroy(&m_oMutex);
}

// Books the first level of the mutex, just acquired, as the newest lock of the calling thread. A
// lock that is free has no links: only those that change are written, as the mutex is given back no
// sooner than all that was written before has reached the processor's cache.
[[gnu::always_inline]] inline void LockImplementation::take() {
  assert(m_hOwner == 0 && m_nCount == 0 && m_pOlder == nullptr && m_pNewer == nullptr);
  m_hOwner.store(callingThread(), std::memory_order_relaxed);
  m_nCount.store(1, std::memory_order_relaxed);
  if (LockImplementation* const newest = HeldSections::t_pNewest) {
    m_pOlder = newest;
    newest->m_pNewer = this;
  }
  HeldSections::t_pNewest = this;
  if (BriefHold::isStateOf(globalSection(), this)) [[unlikely]]
    BriefGate::holdCounts();
  pthread_setspecific(LockThreadStorage::m_mutexListKey, this);
}

// Takes the lock off the caller's list and frees the mutex.
[[gnu::always_inline]] inline void LockImplementation::free() {
  assert(isHeldByCaller() && m_nCount == 0);
  LockImplementation* const older = m_pOlder;
  if (older != nullptr) {
    older->m_pNewer = m_pNewer;
    m_pOlder = nullptr;
  }
  if (m_pNewer != nullptr) [[unlikely]] {
    m_pNewer->m_pOlder = older;
    m_pNewer = nullptr;
  } else {
    setNewestLockOfThread(older);
  }
  m_hOwner.store(0, std::memory_order_relaxed);
  pthread_mutex_unlock(&m_oMutex);
}

[[gnu::noinline]] void LockImplementation::giveUp() { free(); }

void LockImplementation::addLevel() {
  m_nCount.store(m_nCount.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
}

// Whether that was the last level.
[[gnu::always_inline]] inline bool LockImplementation::dropLevel() {
  const std::int32_t count = m_nCount.load(std::memory_order_relaxed) - 1;
  m_nCount.store(count, std::memory_order_relaxed);
  return count <= 0;
}

// The order counts of what is taken by waiting, if need be: who only tries cannot be held up.
[[gnu::noinline, gnu::cold]] void LockImplementation::noteOrder() const {
  if (!LockOrder::isChecked())
    return;
  for (const LockImplementation* held = HeldSections::t_pNewest; held; held = held->m_pOlder) {
    if (held != this)
      LockOrder::note(held, this);
  }
}

void LockImplementation::lock() {
  const pthread_t owner = m_hOwner.load(std::memory_order_relaxed);
  if (owner == callingThread())
    addLevel();
  else if (owner == 0) [[likely]]
    acquire();
  else
    acquireHeld();
}

[[gnu::always_inline]] inline void LockImplementation::acquireFree() {
  if (LockOrder::isChecked()) [[unlikely]]
    noteOrder();  // before: another thread may have come first, and never go on
  pthread_mutex_lock(&m_oMutex);
  take();
}

[[gnu::noinline]] void LockImplementation::acquire() { acquireFree(); }

[[gnu::noinline, gnu::cold]] void LockImplementation::acquireHeld() {
  noteOrder();
  awaitMutex();
  take();
}

bool LockImplementation::testAndSet() {
  if (isHeldByCaller()) {
    addLevel();
    return true;
  }
  const int result = pthread_mutex_trylock(&m_oMutex);
  if (result == EBUSY || result == EINVAL)
    return false;
  take();
  return true;
}

void LockImplementation::unlock() {
  if (!isHeldByCaller())
    return;
  if (dropLevel())
    giveUp();
}

void LockImplementation::unwind() {
  if (!isHeldByCaller())
    return;
  m_nCount.store(0, std::memory_order_relaxed);
  giveUp();
}

int LockImplementation::lockCount() const { return m_nCount.load(std::memory_order_relaxed); }

LockThreadStorage::LockThreadStorage() { createKey(); }

void LockThreadStorage::createKey() {
  if (m_keyCreated)
    return;
  pthread_key_create(&m_mutexListKey, nullptr);
  m_keyCreated = true;
}

VarnCriticalSectionObject::VarnCriticalSectionObject(const VarnCriticalSectionObject& source)
    : m_bFlag(source.m_bFlag) {
  const CancellationGuard closed;
  const auto* const shared = source.m_pState.load(std::memory_order_acquire);
  if (shared != nullptr)
    m_pState.store(new VarnSmartPointer<LockImplementation>(*shared), std::memory_order_release);
}

VarnCriticalSectionObject& VarnCriticalSectionObject::operator=(
    const VarnCriticalSectionObject& source) {
  if (this == &source)
    return *this;
  const CancellationGuard closed;
  VarnCriticalSectionObject copy(source);
  delete m_pState.exchange(copy.m_pState.exchange(nullptr));
  m_bFlag = copy.m_bFlag;
  return *this;
}

VarnCriticalSectionObject::~VarnCriticalSectionObject() {
  const QuietCancellationGuard closed;
  delete m_pState.load(std::memory_order_acquire);
}

void VarnCriticalSectionObject::init() {
  const CancellationGuard closed;
  state();
}

// Of threads that race one sets its state, and the others discard theirs.
void VarnCriticalSectionObject::makeState() {
  using State = VarnSmartPointer<LockImplementation>;
  std::unique_ptr<State> made(new State(new LockImplementation(m_bFlag)));
  State* none = nullptr;
  if (m_pState.compare_exchange_strong(none, made.get(), std::memory_order_acq_rel))
    static_cast<void>(made.release());
}

// Locks that have their state take the way without a frame, unless the thread can be cancelled.
void VarnCriticalSectionObject::lock() {
  const auto* const shared = m_pState.load(std::memory_order_acquire);
  if (shared != nullptr && !isCancellable())
    (*shared)->lock();
  else
    lockGuarded();
}

// As long as nobody asks the thread to die it takes a short way. A further level is no more than a
// few instructions of the library, inside of which a thread is not unwound.
[[gnu::noinline]] void VarnCriticalSectionObject::lockGuarded() {
  const auto* const shared = m_pState.load(std::memory_order_acquire);
  if (shared == nullptr || !MomentaryGuard::isPossible() || MomentaryGuard::isRequested())
      [[unlikely]]
    lockSlowly();
  else if ((*shared)->isHeldByCaller())
    (*shared)->addLevel();
  else
    acquireGuarded(**shared);
}

[[gnu::noinline]] void VarnCriticalSectionObject::lockSlowly() {
  init();
  lockCancellably(**m_pState.load(std::memory_order_acquire));
}

// A thread that is killed while it waits for the lock dies once it has it, after it has given the
// lock back.
[[gnu::noinline]] void VarnCriticalSectionObject::acquireGuarded(LockImplementation& lock) {
  CancellationState& state = *t_pCancellation;
  state.enterMoment();
  if (lock.m_hOwner.load(std::memory_order_relaxed) == 0) [[likely]]
    lock.acquireFree();
  else
    lock.acquireHeld();
  state.leaveMoment();
  if (state.isRequested()) [[unlikely]]
    lockAnew(lock);
}

[[gnu::noinline, gnu::cold]] void VarnCriticalSectionObject::lockAnew(LockImplementation& lock) {
  {
    const QuietCancellationGuard closed;
    lock.unlock();
  }
  lockCancellably(lock);
}

[[gnu::noinline]] void VarnCriticalSectionObject::lockCancellably(LockImplementation& lock) {
  const CancellationGuard closed;
  lock.lock();
  if (isCancellationDue()) {
    lock.unlock();
    unwindIfPossible();
    lock.lock();
  }
}

bool VarnCriticalSectionObject::testAndSet() {
  const CancellationGuard closed;
  return state().testAndSet();
}

void VarnCriticalSectionObject::unlock() {
  const auto* const shared = m_pState.load(std::memory_order_acquire);
  if (shared != nullptr && !isCancellable())
    (*shared)->unlock();
  else
    unlockGuarded();
}

[[gnu::noinline]] void VarnCriticalSectionObject::unlockGuarded() {
  const auto* const shared = m_pState.load(std::memory_order_acquire);
  if (shared == nullptr || !MomentaryGuard::isPossible()) [[unlikely]]
    unlockQuietly();
  else if ((*shared)->isHeldByCaller() && (*shared)->dropLevel())
    giveUpGuarded(**shared);
}

[[gnu::noinline]] void VarnCriticalSectionObject::giveUpGuarded(LockImplementation& lock) {
  const MomentaryGuard closed;
  lock.free();
}

[[gnu::noinline]] void VarnCriticalSectionObject::unlockQuietly() {
  const QuietCancellationGuard closed;
  state().unlock();
}

void VarnCriticalSectionObject::unwind() {
  const QuietCancellationGuard closed;
  state().unwind();
}

int VarnCriticalSectionObject::lockCount() {
  const CancellationGuard closed;
  return state().lockCount();
}

VarnCriticalSection::VarnCriticalSection(VarnCriticalSectionObject& object, bool lockNow)
    : m_pObject(&object) {
  if (lockNow) {
    m_pObject->lock();
    m_bHolds = true;
  }
}

VarnCriticalSection::~VarnCriticalSection() { unlock(); }

void VarnCriticalSection::unlock() {
  if (m_bHolds) {
    m_bHolds = false;
    m_pObject->unlock();
  }
}

void VarnCriticalSectionRecoverFn(void*) {
  const QuietCancellationGuard closed;
  LockImplementation* lock = HeldSections::t_pNewest;
  setNewestLockOfThread(nullptr);
  while (lock != nullptr) {
    LockImplementation* const older = lock->m_pOlder;
    lock->m_pOlder = nullptr;
    lock->m_pNewer = nullptr;
    lock->m_nCount.store(0, std::memory_order_relaxed);
    lock->m_hOwner.store(0, std::memory_order_relaxed);
    pthread_mutex_unlock(&lock->m_oMutex);
    lock = older;
  }
}

// The last lock that anything takes.
constinit const ForkPart sectionFork{[]() VSUPT_UNCHECKED { globalSection().lock(); },
                                     [](ForkSide) VSUPT_UNCHECKED { globalSection().unlock(); }};

void VSUPTInitVarnObjectBase() {
  // While there is one thread: the second makes the key that all locks share.
  BriefGate::prepare();
  LockOrder::prepare();
  SpareMemory::prepare();
  globalSection().init();
  g_pCriticalSection = &globalSection();
}

// The section itself stays: threads that are still inside the library use it.
void VSUPTFinitVarnObjectBase() { g_pCriticalSection = nullptr; }

}  // namespace VarnSupport
