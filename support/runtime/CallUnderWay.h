// Calls into user code that are under way, by what they are for.
#ifndef SUPPORT_RUNTIME_CALLUNDERWAY_H
#define SUPPORT_RUNTIME_CALLUNDERWAY_H

#include <pthread.h>

#include <atomic>
#include <mutex>

#include "runtime/LinkedNodes.h"
#include "runtime/ProcessExit.h"

namespace VarnSupport {

// One call, for as long as it lasts. There is one list for each type of key in the process, as a
// call may outlive the object that makes it.
template <typename Key>
class CallUnderWay {
 public:
  explicit CallUnderWay(const Key& key) : m_oKey(key), m_hThread(pthread_self()) {
    const std::lock_guard guard(m_oMutex);
    m_pNext = m_pFirst;
    m_pFirst = this;
  }
  CallUnderWay(const CallUnderWay&) = delete;
  CallUnderWay& operator=(const CallUnderWay&) = delete;
  ~CallUnderWay() {
    {
      const std::lock_guard guard(m_oMutex);
      takeOut(m_pFirst, *this, &CallUnderWay::m_pNext);
    }
    m_nEnded.fetch_add(1);
    m_nEnded.notify_all();
  }

  // Whether another thread is inside a call for `key`.
  static bool isUnderWay(const Key& key) {
    const std::lock_guard guard(m_oMutex);
    for (const CallUnderWay* call = m_pFirst; call != nullptr; call = call->m_pNext) {
      if (call->m_oKey == key && !call->isOwn())
        return true;
    }
    return false;
  }

  // Whether the calling thread is inside a call, whatever it is for.
  static bool isInside() {
    const std::lock_guard guard(m_oMutex);
    for (const CallUnderWay* call = m_pFirst; call != nullptr; call = call->m_pNext) {
      if (call->isOwn())
        return true;
    }
    return false;
  }

  // Waits until no other thread is inside a call for `key`, but while the process exits no longer
  // than that may take.
  static void await(const Key& key) {
    ProcessExit::await(m_nEnded, [&] { return !isUnderWay(key); });
  }

  // While the process exits: waits until no other thread is inside a call, but no longer than that
  // may take.
  static void awaitAllAtExit() {
    while (isAnyElsewhere() && ProcessExit::pause()) {
    }
  }

  // What `key` names goes, and the next thing of that name is another: the calling thread's own
  // calls are for nothing from here on.
  static void forget(const Key& key) {
    const std::lock_guard guard(m_oMutex);
    for (CallUnderWay* call = m_pFirst; call != nullptr; call = call->m_pNext) {
      if (call->m_oKey == key)
        call->m_oKey = Key();
    }
  }

  // Around a fork, in whose child only the calls of the thread that forked go on.
  static void lockList() { m_oMutex.lock(); }
  static void unlockList() { m_oMutex.unlock(); }
  static void forgetLost() {
    CallUnderWay** link = &m_pFirst;
    while (*link != nullptr) {
      if ((*link)->isOwn())
        link = &(*link)->m_pNext;
      else
        *link = (*link)->m_pNext;
    }
  }

 private:
  static bool isAnyElsewhere() {
    const std::lock_guard guard(m_oMutex);
    for (const CallUnderWay* call = m_pFirst; call != nullptr; call = call->m_pNext) {
      if (!call->isOwn())
        return true;
    }
    return false;
  }
  bool isOwn() const { return pthread_equal(m_hThread, pthread_self()) != 0; }

  static inline constinit std::mutex m_oMutex;
  static inline constinit CallUnderWay* m_pFirst = nullptr;  // guarded by the mutex
  static inline constinit std::atomic<unsigned> m_nEnded{0};

  Key m_oKey;  // guarded by the mutex
  const pthread_t m_hThread;
  CallUnderWay* m_pNext;
};

}  // namespace VarnSupport

#endif
