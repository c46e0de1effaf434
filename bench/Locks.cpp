// The recursive lock: free, wanted by several threads, and nested; and the read-write lock.
#include <pthread.h>

#include <atomic>
#include <mutex>
#include <shared_mutex>
#include <thread>

#include "Workload.h"

#ifdef PEER_POCO
#include <Poco/Mutex.h>
#include <Poco/RWLock.h>
#endif
#ifdef PEER_BOOST
#include <boost/thread/recursive_mutex.hpp>
#include <boost/thread/shared_mutex.hpp>
#endif
#ifdef PEER_GLIB
#include <glib.h>
#endif

namespace {

using Bench::Workload;

class PosixLock {
 public:
  explicit PosixLock(int type) {
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, type);
    pthread_mutex_init(&m_oMutex, &attributes);
    pthread_mutexattr_destroy(&attributes);
  }
  PosixLock(const PosixLock&) = delete;
  PosixLock& operator=(const PosixLock&) = delete;
  ~PosixLock() { pthread_mutex_destroy(&m_oMutex); }

  void lock() { pthread_mutex_lock(&m_oMutex); }
  void unlock() { pthread_mutex_unlock(&m_oMutex); }

 private:
  pthread_mutex_t m_oMutex;
};

class RecursivePosixLock : public PosixLock {
 public:
  RecursivePosixLock() : PosixLock(PTHREAD_MUTEX_RECURSIVE) {}
};

class PlainPosixLock : public PosixLock {
 public:
  PlainPosixLock() : PosixLock(PTHREAD_MUTEX_NORMAL) {}
};

#ifdef PEER_GLIB
class GLibLock {
 public:
  GLibLock() { g_rec_mutex_init(&m_oMutex); }
  GLibLock(const GLibLock&) = delete;
  GLibLock& operator=(const GLibLock&) = delete;
  ~GLibLock() { g_rec_mutex_clear(&m_oMutex); }

  void lock() { g_rec_mutex_lock(&m_oMutex); }
  void unlock() { g_rec_mutex_unlock(&m_oMutex); }

 private:
  GRecMutex m_oMutex;
};
#endif

// `depth` levels and back, around a count that proves the exclusion.
template <typename Lock, int depth>
void takeAndGiveBack(benchmark::State& state) {
  static Lock lock;
  static std::int64_t count;
  if (state.thread_index() == 0)
    count = 0;
  for (auto _ : state) {
    for (int level = 0; level < depth; ++level)
      lock.lock();
    count = count + 1;
    benchmark::ClobberMemory();
    for (int level = 0; level < depth; ++level)
      lock.unlock();
  }
  if (state.thread_index() == 0)
    Bench::require(state, count == static_cast<std::int64_t>(state.iterations()) * state.threads());
}

// The times of a lock and an unlock, while another thread does the same.
template <typename Lock>
void takeAndGiveBackOnce(benchmark::State& state) {
  static Lock lock;
  Bench::measureTail(state, [] {
    lock.lock();
    lock.unlock();
  });
}

template <typename Lock>
void addFreeAndContended(const std::string& side) {
  constexpr int kTimed = 200000;
  Workload("lock, free").alsoInVarnThread().side(side, takeAndGiveBack<Lock, 1>);
  for (const int threads : {2, 4, 8}) {
    Workload("lock, wanted by " + std::to_string(threads) + " threads")
        .threads(threads)
        .alsoInVarnThread()
        .side(side, takeAndGiveBack<Lock, 1>);
  }
  Bench::Latencies::workload("lock, free", kTimed).side(side, takeAndGiveBackOnce<Lock>);
  Bench::Latencies::workload("lock, wanted by 2 threads", kTimed)
      .threads(2)
      .side(side, takeAndGiveBackOnce<Lock>);
}

template <typename Lock>
void add(const std::string& side) {
  addFreeAndContended<Lock>(side);
  Workload("lock, nested three deep").alsoInVarnThread().side(side, takeAndGiveBack<Lock, 3>);
}

// Each side of the read-write locks locks shared or alone, and unlocks.

class OurReadWriteLock {
 public:
  void lockShared() { m_oLock.readLock(); }
  void unlockShared() { m_oLock.readUnLock(); }
  void lock() { m_oLock.writeLock(); }
  void unlock() { m_oLock.writeUnLock(); }

 private:
  VarnSupport::VarnReadWriteLock m_oLock;
};

template <typename Mutex>
class StandardReadWriteLock : public Mutex {
 public:
  void lockShared() { this->lock_shared(); }
  void unlockShared() { this->unlock_shared(); }
};

#ifdef PEER_POCO
class PocoReadWriteLock {
 public:
  void lockShared() { m_oLock.readLock(); }
  void unlockShared() { m_oLock.unlock(); }
  void lock() { m_oLock.writeLock(); }
  void unlock() { m_oLock.unlock(); }

 private:
  Poco::RWLock m_oLock;
};
#endif

#ifdef PEER_GLIB
class GLibReadWriteLock {
 public:
  GLibReadWriteLock() { g_rw_lock_init(&m_oLock); }
  GLibReadWriteLock(const GLibReadWriteLock&) = delete;
  GLibReadWriteLock& operator=(const GLibReadWriteLock&) = delete;
  ~GLibReadWriteLock() { g_rw_lock_clear(&m_oLock); }

  void lockShared() { g_rw_lock_reader_lock(&m_oLock); }
  void unlockShared() { g_rw_lock_reader_unlock(&m_oLock); }
  void lock() { g_rw_lock_writer_lock(&m_oLock); }
  void unlock() { g_rw_lock_writer_unlock(&m_oLock); }

 private:
  GRWLock m_oLock;
};
#endif

template <typename Lock>
void readAndGiveBack(benchmark::State& state) {
  static Lock lock;
  std::atomic<bool> isShared{false};
  lock.lockShared();
  std::thread([&isShared] {
    lock.lockShared();
    isShared = true;
    lock.unlockShared();
  }).join();
  lock.unlockShared();
  Bench::require(state, isShared);
  for (auto _ : state) {
    lock.lockShared();
    benchmark::ClobberMemory();
    lock.unlockShared();
  }
}

template <typename Lock>
void addReadWrite(const std::string& side) {
  Workload("read-write lock, read").alsoInVarnThread().side(side, readAndGiveBack<Lock>);
  Workload("read-write lock, read by 4 threads")
      .threads(4)
      .alsoInVarnThread()
      .side(side, readAndGiveBack<Lock>);
  Workload("read-write lock, write").alsoInVarnThread().side(side, takeAndGiveBack<Lock, 1>);
}

const bool g_bAdded = [] {
  add<VarnSupport::VarnCriticalSectionObject>("ours");
  add<std::recursive_mutex>("std");
  add<RecursivePosixLock>("pthread");
  addReadWrite<OurReadWriteLock>("ours");
  addReadWrite<StandardReadWriteLock<std::shared_mutex>>("std");
#ifdef PEER_POCO
  add<Poco::Mutex>("POCO");
  addReadWrite<PocoReadWriteLock>("POCO");
#endif
#ifdef PEER_BOOST
  add<boost::recursive_mutex>("Boost");
  addReadWrite<StandardReadWriteLock<boost::shared_mutex>>("Boost");
#endif
#ifdef PEER_GLIB
  add<GLibLock>("GLib");
  addReadWrite<GLibReadWriteLock>("GLib");
#endif
  addFreeAndContended<PlainPosixLock>("limit: plain mutex");
  return true;
}();

}  // namespace
