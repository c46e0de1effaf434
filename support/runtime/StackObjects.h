// Objects that lie on the stacks of threads.
#ifndef SUPPORT_RUNTIME_STACKOBJECTS_H
#define SUPPORT_RUNTIME_STACKOBJECTS_H

#include <pthread.h>

#include <algorithm>
#include <functional>
#include <iterator>
#include <mutex>
#include <vector>

#include "runtime/NeverDestroyed.h"

namespace VarnSupport {

// In the child of a fork the stacks of all other threads are free for new ones, with the objects of
// one type that are noted here. The main thread's is not: an object there goes on.
template <typename Object>
class StackObjects {
 public:
  // For the constructor and the destructor of an object. The first may throw std::bad_alloc.
  static void note(Object& object) {
    if (!isOnThreadStack(&object))
      return;
    const std::lock_guard guard(m_oMutex);
    m_vNoted.value.push_back({&object, pthread_self()});
  }
  // An object on a stack is one of the last that were noted, as a rule.
  static void forget(Object& object) {
    if (!isOnThreadStack(&object))
      return;
    const std::lock_guard guard(m_oMutex);
    std::vector<Noted>& noted = m_vNoted.value;
    const auto found = std::find_if(noted.rbegin(), noted.rend(),
                                    [&](const Noted& entry) { return entry.object == &object; });
    if (found != noted.rend())
      noted.erase(std::next(found).base());
  }

  // Around a fork.
  static void lock() { m_oMutex.lock(); }
  static void unlock() { m_oMutex.unlock(); }
  // In the child: takes out an object of a vanished thread; null when there is none left. Requires:
  // locked.
  static Object* takeLost() {
    std::vector<Noted>& noted = m_vNoted.value;
    const auto lost = std::find_if(noted.begin(), noted.end(), [](const Noted& entry) {
      return pthread_equal(entry.thread, pthread_self()) == 0;
    });
    if (lost == noted.end())
      return nullptr;
    Object* const object = lost->object;
    noted.erase(lost);
    return object;
  }

 private:
  struct Noted {
    Object* object;
    pthread_t thread;
  };

  // The platform keeps what describes a thread at the upper end of its stack, but that of the main
  // thread elsewhere, below it.
  static bool isOnThreadStack(const void* object) {
    const std::less<const void*> before;
    return before(__builtin_frame_address(0), object) &&
           before(object, reinterpret_cast<const void*>(pthread_self()));
  }

  static inline constinit std::mutex m_oMutex;
  static inline constinit NeverDestroyed<std::vector<Noted>> m_vNoted;  // guarded by the mutex
};

}  // namespace VarnSupport

#endif
