// A read-write lock whose copies are the same lock.
//
// Many readers or one writer; all operations are safe from any thread. Failures of the locking
// calls are written to the log (level 1) and otherwise ignored: the caller cannot tell. A thread
// that is killed keeps what it holds, but not what it is waiting for.
//
//   operation                    | free        | read lock elsewhere | write lock elsewhere
//   readLock(), tryReadLock()    | taken       | taken too           | waits; false
//   writeLock(), tryWriteLock()  | taken       | waits; false        | waits; false
//   readUnLock(), writeUnLock()  | log record  | misuse              | misuse
//
// Both unlocking operations are the same call. A reader may take the lock again for reading, also
// while a writer waits. The writer that locks again gets an error, and keeps its one hold; a reader
// that asks for the write lock waits for itself.
#ifndef VARNSUPPORT_VARNREADWRITELOCK_H
#define VARNSUPPORT_VARNREADWRITELOCK_H

#include <pthread.h>

#include "VarnSupport/VarnExport.h"
#include "VarnSupport/VarnObjectBase.h"

namespace VarnSupport {

// The state that the copies of one read-write lock share. Results are error numbers, 0 for success.
class VSUPT_EXPORT RwLockImplementation : public VarnObjectBase {
 public:
  RwLockImplementation();
  RwLockImplementation(const RwLockImplementation&) = delete;
  RwLockImplementation& operator=(const RwLockImplementation&) = delete;
  // Requires: nobody holds the lock.
  ~RwLockImplementation() override;

  int readLock();
  int writeLock();
  int tryReadLock();
  int tryWriteLock();
  // EPERM, and nothing happens, when nobody holds the lock.
  int unlock();

 private:
  pthread_rwlock_t m_oLock{};
};

extern template class VarnSmartPointer<RwLockImplementation>;

class VSUPT_EXPORT VarnReadWriteLock {
 public:
  VarnReadWriteLock();
  VarnReadWriteLock(const VarnReadWriteLock& source);
  // Does not make the two one lock. The object must be neither used nor destroyed afterwards; the
  // source, and other copies of either, stay as they were. Callers rely on it.
  VarnReadWriteLock& operator=(const VarnReadWriteLock& source);
  virtual ~VarnReadWriteLock();

  // Wait until the lock is taken.
  void readLock();
  void writeLock();
  // True when the lock was taken without waiting. Nothing is logged.
  bool tryReadLock();
  bool tryWriteLock();
  // Each gives up one hold of either kind.
  void readUnLock();
  void writeUnLock();

 private:
  VarnSmartPointer<RwLockImplementation>* m_pState;
};

// Holds a lock while it exists, so that a killed thread gives it up. Requires: the lock outlives
// it.
template <void (VarnReadWriteLock::*kLock)()>
class VarnReadWriteSection {
 public:
  explicit VarnReadWriteSection(VarnReadWriteLock& lock) : m_rLock(lock) { (m_rLock.*kLock)(); }
  VarnReadWriteSection(const VarnReadWriteSection&) = delete;
  VarnReadWriteSection& operator=(const VarnReadWriteSection&) = delete;
  ~VarnReadWriteSection() { m_rLock.readUnLock(); }  // which gives up either kind

 private:
  VarnReadWriteLock& m_rLock;
};

using VarnReadSection = VarnReadWriteSection<&VarnReadWriteLock::readLock>;
using VarnWriteSection = VarnReadWriteSection<&VarnReadWriteLock::writeLock>;

}  // namespace VarnSupport

#endif
