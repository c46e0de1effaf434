#include "time/StackTimers.h"

#include <pthread.h>

#include <algorithm>
#include <functional>
#include <mutex>
#include <vector>

#include "runtime/NeverDestroyed.h"

namespace VarnSupport {

namespace {

struct Noted {
  VarnTimer* timer;
  pthread_t thread;

  bool isLost() const { return pthread_equal(thread, pthread_self()) == 0; }
};

constinit std::mutex mutex;
constinit NeverDestroyed<std::vector<Noted>> noted;  // guarded by mutex

// The platform keeps what describes a thread at the upper end of its stack, but that of the main
// thread elsewhere, below it.
bool isOnThreadStack(const void* object) {
  const std::less<const void*> before;
  return before(__builtin_frame_address(0), object) &&
         before(object, reinterpret_cast<const void*>(pthread_self()));
}

}  // namespace

void StackTimers::note(VarnTimer& timer) {
  if (!isOnThreadStack(&timer))
    return;
  const std::lock_guard guard(mutex);
  noted.value.push_back({&timer, pthread_self()});
}

// A timer on a stack is one of the last that were noted, as a rule.
void StackTimers::forget(VarnTimer& timer) {
  if (!isOnThreadStack(&timer))
    return;
  const std::lock_guard guard(mutex);
  const auto found = std::find_if(noted.value.rbegin(), noted.value.rend(),
                                  [&](const Noted& entry) { return entry.timer == &timer; });
  if (found != noted.value.rend())
    noted.value.erase(std::next(found).base());
}

void StackTimers::lock() { mutex.lock(); }

void StackTimers::unlock() { mutex.unlock(); }

VarnTimer* StackTimers::takeLost() {
  const auto lost = std::find_if(noted.value.begin(), noted.value.end(),
                                 [](const Noted& entry) { return entry.isLost(); });
  if (lost == noted.value.end())
    return nullptr;
  VarnTimer* const timer = lost->timer;
  noted.value.erase(lost);
  return timer;
}

}  // namespace VarnSupport
