#include "StackTimers.h"

#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <mutex>
#include <vector>

#include "NeverDestroyed.h"

namespace VarnSupport {

namespace {

struct Noted {
  VarnTimer* timer;
  pthread_t thread;

  bool isLost() const { return pthread_equal(thread, pthread_self()) == 0; }
};

constinit std::mutex mutex;
constinit NeverDestroyed<std::vector<Noted>> noted;  // guarded by mutex

// The calling thread's stack; empty for the main thread.
struct Stack {
  Stack() {
    if (gettid() == getpid())
      return;
    pthread_attr_t attributes;
    if (pthread_getattr_np(pthread_self(), &attributes) != 0)
      return;
    void* lowest = nullptr;
    std::size_t size = 0;
    pthread_attr_getstack(&attributes, &lowest, &size);
    pthread_attr_destroy(&attributes);
    begin = static_cast<const char*>(lowest);
    end = begin + size;
  }

  bool contains(const void* object) const {
    const std::less<const void*> before;
    return !before(object, begin) && before(object, end);
  }

  const char* begin = nullptr;
  const char* end = nullptr;
};

bool isOnThreadStack(const void* object) {
  static const thread_local Stack stack;
  return stack.contains(object);
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
