// How many uses of an object are under way.
#ifndef SUPPORT_RUNTIME_USES_H
#define SUPPORT_RUNTIME_USES_H

#include <cassert>
#include <condition_variable>
#include <memory>
#include <mutex>

#include "runtime/Cancellation.h"
#include "runtime/System.h"

namespace VarnSupport {

// For the destructor that has to wait for all uses but its own thread's.
class Uses {
 public:
  void begin() {
    const std::lock_guard guard(m_oMutex);
    ++m_nCount;
  }
  // Afterwards the object may be gone.
  void end() {
    const std::lock_guard guard(m_oMutex);
    assert(m_nCount > 0);
    --m_nCount;
    m_oChanged.notify_all();
  }

  // Waits until no more than `own` are under way; false when `deadline` has passed before.
  bool awaitOthers(int own, MonotonicTime deadline) {
    const NoCancellation waiting;
    std::unique_lock guard(m_oMutex);
    return m_oChanged.wait_until(guard, deadline, [&] { return m_nCount <= own; });
  }

  // For the child of a fork, which has only the calling thread.
  void forgetOthers(int own) {
    std::construct_at(&m_oMutex);
    std::construct_at(&m_oChanged);
    m_nCount = own;
  }

 private:
  std::mutex m_oMutex;
  std::condition_variable m_oChanged;
  int m_nCount = 0;  // guarded by the mutex
};

}  // namespace VarnSupport

#endif
