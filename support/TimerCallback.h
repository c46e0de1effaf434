// The calls of timers' set() that are under way.
#ifndef SUPPORT_TIMERCALLBACK_H
#define SUPPORT_TIMERCALLBACK_H

#include <pthread.h>

#include <atomic>
#include <mutex>

#include "VarnSupport/VarnTimer.h"

namespace VarnSupport {

// One call of a timer's set() by a pass. The list of them is process-wide, as a timer may outlive
// the manager.
class TimerCallback {
 public:
  explicit TimerCallback(VarnTimer& timer);
  TimerCallback(const TimerCallback&) = delete;
  TimerCallback& operator=(const TimerCallback&) = delete;
  ~TimerCallback();

  // Waits until no other thread is inside the timer's set().
  static void await(const VarnTimer& timer);
  // True while another thread is inside the timer's set().
  static bool isUnderWay(const VarnTimer& timer);

  static void lockList() { mutex.lock(); }
  static void unlockList() { mutex.unlock(); }
  // After a fork only the calls of the thread that forked go on. Forgets another one and returns
  // its timer, null when there is none. Requires: the list is locked.
  static VarnTimer* dropLost();

 private:
  bool isOwn() const { return pthread_equal(m_hThread, pthread_self()) != 0; }

  static std::mutex mutex;
  static TimerCallback* first;  // guarded by mutex
  static std::atomic<unsigned> ended;

  VarnTimer* m_pTimer;
  pthread_t m_hThread;
  TimerCallback* m_pNext;
};

}  // namespace VarnSupport

#endif
