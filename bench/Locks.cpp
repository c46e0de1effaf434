// The recursive lock: free, wanted by two threads, and nested.
#include <pthread.h>

#include <mutex>

#include "Workload.h"

#ifdef PEER_POCO
#include <Poco/Mutex.h>
#endif
#ifdef PEER_BOOST
#include <boost/thread/recursive_mutex.hpp>
#endif
#ifdef PEER_GLIB
#include <glib.h>
#endif

namespace {

using Bench::Workload;

const Workload g_oFree("lock, free");
const Workload g_oContended("lock, wanted by 2 threads");
const Workload g_oNested("lock, nested three deep");

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

template <typename Lock>
void addFreeAndContended(const std::string& side) {
  g_oFree.side(side, takeAndGiveBack<Lock, 1>);
  g_oContended.side(side, takeAndGiveBack<Lock, 1>)->Threads(2)->UseRealTime();
}

template <typename Lock>
void add(const std::string& side) {
  addFreeAndContended<Lock>(side);
  g_oNested.side(side, takeAndGiveBack<Lock, 3>);
}

const bool g_bAdded = [] {
  add<VarnSupport::VarnCriticalSectionObject>("ours");
  add<std::recursive_mutex>("std");
  add<RecursivePosixLock>("pthread");
#ifdef PEER_POCO
  add<Poco::Mutex>("POCO");
#endif
#ifdef PEER_BOOST
  add<boost::recursive_mutex>("Boost");
#endif
#ifdef PEER_GLIB
  add<GLibLock>("GLib");
#endif
  addFreeAndContended<PlainPosixLock>("limit: plain mutex");
  return true;
}();

}  // namespace
