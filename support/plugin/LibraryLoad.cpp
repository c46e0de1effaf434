// One list holds the loads under way and, behind each, the registrations that it has brought. A
// load that runs inside another one of the same thread, as a library's initialiser may load a
// second library, leaves its registrations to the outer load: they become visible when that ends.
#include "plugin/LibraryLoad.h"

#include <pthread.h>

#include <algorithm>
#include <cassert>
#include <mutex>
#include <vector>

#include "runtime/NeverDestroyed.h"

namespace VarnSupport {

namespace {

constinit std::mutex listMutex;

bool isCalling(pthread_t thread) { return pthread_equal(thread, pthread_self()) != 0; }

// A library that a thread is loading, or a registration that it has brought until then.
struct Load {
  pthread_t loader;
  const VarnObjectFactoryRegistration* registration;  // null for the load itself
};

constinit NeverDestroyed<std::vector<Load>> loads;  // guarded by listMutex

bool isOwnLoad(const Load& load) { return load.registration == nullptr && isCalling(load.loader); }

// Whether the calling thread is loading a library. Requires: listMutex is held.
bool isLoading() { return std::any_of(loads.value.begin(), loads.value.end(), isOwnLoad); }

}  // namespace

LibraryLoad::LibraryLoad() {
  const std::lock_guard guard(listMutex);
  loads.value.push_back({pthread_self(), nullptr});
}

LibraryLoad::~LibraryLoad() {
  const std::lock_guard guard(listMutex);
  const auto own = std::find_if(loads.value.begin(), loads.value.end(), isOwnLoad);
  assert(own != loads.value.end());
  loads.value.erase(own);
  if (!isLoading())
    std::erase_if(loads.value, [](const Load& load) { return isCalling(load.loader); });
}

void LibraryLoad::note(const VarnObjectFactoryRegistration& registration) {
  const std::lock_guard guard(listMutex);
  if (isLoading())
    loads.value.push_back({pthread_self(), &registration});
}

bool LibraryLoad::isElsewhere(const VarnObjectFactoryRegistration& registration) {
  const std::lock_guard guard(listMutex);
  return std::any_of(loads.value.begin(), loads.value.end(), [&](const Load& load) {
    return load.registration == &registration && !isCalling(load.loader);
  });
}

void LibraryLoad::lockList() { listMutex.lock(); }

void LibraryLoad::unlockList() { listMutex.unlock(); }

void LibraryLoad::forgetLost() {
  for (Load& load : loads.value) {
    if (!isCalling(load.loader))
      load.loader = pthread_t{};  // of no thread
  }
}

}  // namespace VarnSupport
