// Registries of named locks.
//
// Each operation but copying takes the registry's own lock for its duration; the locks that are
// handed out are used without it. A named lock lives as long as its factory, unless the factory is
// assigned to.
#ifndef VARNSUPPORT_VARNLOCKFACTORY_H
#define VARNSUPPORT_VARNLOCKFACTORY_H

#include <map>
#include <string>
#include <vector>

#include "VarnSupport/VarnCriticalSection.h"
#include "VarnSupport/VarnException.h"
#include "VarnSupport/VarnExport.h"
#include "VarnSupport/VarnReadWriteLock.h"

namespace VarnSupport {

// Keeps a thread from being cancelled while it is inside a registry: one that was killed before
// unwinds out of the constructor.
class VSUPT_EXPORT LockFactoryVisit {
 public:
  LockFactoryVisit();
  LockFactoryVisit(const LockFactoryVisit&) = delete;
  LockFactoryVisit& operator=(const LockFactoryVisit&) = delete;
  ~LockFactoryVisit();
};

// Locks of one type by name. The library carries it for std::string with each of its lock types.
template <typename Key, typename LockType>
class VSUPT_EXPORT VarnLockFactory {
 public:
  VarnLockFactory() = default;
  // Copies lock by lock: read-write locks, and critical sections that have been used, are the same
  // locks in both factories. Takes no lock. Requires: no other thread changes the source.
  VarnLockFactory(const VarnLockFactory& source) : m_mapLocks(copyOf(source)) {}
  // The same, under this factory's lock; all locks that it had handed out go.
  VarnLockFactory& operator=(const VarnLockFactory& source) {
    if (this == &source)
      return *this;
    const LockFactoryVisit visit;
    const VarnCriticalSection guard(m_oLock, true);
    Registry copy(copyOf(source));
    m_mapLocks.swap(copy);
    return *this;
  }
  virtual ~VarnLockFactory();

  // Makes sure that a lock of that name exists; one that is there is kept.
  void createLock(const Key& key) {
    const LockFactoryVisit visit;
    const VarnCriticalSection guard(m_oLock, true);
    const LockType lock{};
    m_mapLocks.try_emplace(key, lock);  // a copy: lock types need not be assignable
  }

  bool exists(const Key& key) const {
    const LockFactoryVisit visit;
    const VarnCriticalSection guard(m_oLock, true);
    return m_mapLocks.find(key) != m_mapLocks.end();
  }

  // Stores the address of the named lock and returns true; without such a lock returns false and
  // leaves `lock` as it is. The factory owns the lock.
  bool getImpl(const Key& key, LockType*& lock) {
    const LockFactoryVisit visit;
    const VarnCriticalSection guard(m_oLock, true);
    const auto found = m_mapLocks.find(key);
    if (found == m_mapLocks.end())
      return false;
    lock = &found->second;
    return true;
  }

  // The named lock. Throws VarnNoSuchElementException with the key when there is none.
  LockType& get(const Key& key) {
    LockType* lock = nullptr;
    if (!getImpl(key, lock))
      throw VarnNoSuchElementException(key);
    return *lock;
  }

  // All names, ascending.
  std::vector<Key> getRegisteredLockNames() const {
    const LockFactoryVisit visit;
    const VarnCriticalSection guard(m_oLock, true);
    std::vector<Key> names;
    names.reserve(m_mapLocks.size());
    for (const auto& entry : m_mapLocks)
      names.push_back(entry.first);
    return names;
  }

 private:
  using Registry = std::map<Key, LockType>;

  static Registry copyOf(const VarnLockFactory& source) VSUPT_UNCHECKED {
    const LockFactoryVisit visit;
    return source.m_mapLocks;
  }

  Registry m_mapLocks VSUPT_GUARDED_BY(m_oLock);
  mutable VarnCriticalSectionObject m_oLock;
};

// Defined here, as a library carries no destructor that is defaulted in its class.
template <typename Key, typename LockType>
VarnLockFactory<Key, LockType>::~VarnLockFactory() = default;

extern template class VarnLockFactory<std::string, VarnCriticalSectionObject>;
extern template class VarnLockFactory<std::string, VarnMutexObject>;
extern template class VarnLockFactory<std::string, VarnReadWriteLock>;

}  // namespace VarnSupport

#endif
