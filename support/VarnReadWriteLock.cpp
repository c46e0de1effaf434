// Copies share the lock of the platform, which knows neither owners nor cancellation. What it
// refuses goes to the log, as the operations return nothing. A thread can only be killed before it
// waits, or once it has the lock and has given it back.
#include "VarnSupport/VarnReadWriteLock.h"

#include <cerrno>

#include "log/OwnRecords.h"
#include "runtime/Cancellation.h"

namespace VarnSupport {

namespace {

// The record of an operation that failed. The number says no more than whether a time passed.
void report(const char* message, int result) {
  if (result != 0)
    OwnRecords::write(OwnRecords::FAILURE, message, result == ETIMEDOUT ? 2 : 3);
}

using tOperation = int (RwLockImplementation::*)();

// A thread that is killed while it waits for the lock dies once it has it.
int acquire(RwLockImplementation& lock, tOperation tryNow, tOperation wait) {
  if ((lock.*tryNow)() == 0)
    return 0;
  const int result = (lock.*wait)();
  if (result != 0 || !isCancellationDue())
    return result;
  lock.unlock();
  unwindIfPossible();
  return (lock.*wait)();
}

}  // namespace

template class VarnSmartPointer<RwLockImplementation>;

RwLockImplementation::RwLockImplementation() {
  if (pthread_rwlock_init(&m_oLock, nullptr) != 0) {
    OwnRecords::write(
        OwnRecords::FAILURE,
        "VarnReadWriteLock::RwLockImplementation: Initialization of readwrite Lock failed");
  }
}

RwLockImplementation::~RwLockImplementation() { pthread_rwlock_destroy(&m_oLock); }

int RwLockImplementation::readLock() { return pthread_rwlock_rdlock(&m_oLock); }

int RwLockImplementation::writeLock() { return pthread_rwlock_wrlock(&m_oLock); }

int RwLockImplementation::tryReadLock() { return pthread_rwlock_tryrdlock(&m_oLock); }

int RwLockImplementation::tryWriteLock() { return pthread_rwlock_trywrlock(&m_oLock); }

// Unlocking a free lock would silently wreck it for all later writers. That it is free shows by its
// being there for a writer: while anybody holds it, trying changes nothing.
int RwLockImplementation::unlock() {
  const bool isFree = pthread_rwlock_trywrlock(&m_oLock) == 0;
  const int result = pthread_rwlock_unlock(&m_oLock);
  return isFree ? EPERM : result;
}

VarnReadWriteLock::VarnReadWriteLock() {
  const CancellationGuard closed;
  const VarnSmartPointer<RwLockImplementation> state(new RwLockImplementation);
  m_pState = new VarnSmartPointer<RwLockImplementation>(state);
}

VarnReadWriteLock::VarnReadWriteLock(const VarnReadWriteLock& source) {
  const CancellationGuard closed;
  m_pState = new VarnSmartPointer<RwLockImplementation>(*source.m_pState);
}

// Keeps the lock that the object has: nobody may look at the object any more. What assigns nothing
// need not look whether it is assigned to itself, as the analyser would have it.
VarnReadWriteLock& VarnReadWriteLock::operator=(  // NOLINT(bugprone-unhandled-self-assignment)
    const VarnReadWriteLock&) {
  return *this;
}

VarnReadWriteLock::~VarnReadWriteLock() {
  const QuietCancellationGuard closed;
  delete m_pState;
}

void VarnReadWriteLock::readLock() {
  const CancellationGuard closed;
  report("VarnReadWriteLock::readLock: Acquiring Readlock exited with the following error ",
         acquire(**m_pState, &RwLockImplementation::tryReadLock, &RwLockImplementation::readLock));
}

void VarnReadWriteLock::writeLock() {
  const CancellationGuard closed;
  report(
      "VarnReadWriteLock::writeLock: Acquiring Writelock exited with the following error",
      acquire(**m_pState, &RwLockImplementation::tryWriteLock, &RwLockImplementation::writeLock));
}

bool VarnReadWriteLock::tryReadLock() {
  const CancellationGuard closed;
  return (*m_pState)->tryReadLock() == 0;
}

bool VarnReadWriteLock::tryWriteLock() {
  const CancellationGuard closed;
  return (*m_pState)->tryWriteLock() == 0;
}

void VarnReadWriteLock::readUnLock() {
  const QuietCancellationGuard closed;
  report("VarnReadWriteLock::readUnLock: Releasing readlock exited with the following error",
         (*m_pState)->unlock());
}

void VarnReadWriteLock::writeUnLock() {
  const QuietCancellationGuard closed;
  report("VarnReadWriteLock::writeUnLock: Releasing Writelock exited with the following error",
         (*m_pState)->unlock());
}

}  // namespace VarnSupport
