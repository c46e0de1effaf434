// What frees a thread's block as the thread ends is noted with the first block that is kept; a
// thread that keeps none has nothing to do. After that nothing is kept any more, since nobody would
// free it.
//
// It is noted under a key, as thread-local variables with destructors are registered under the
// loader's lock: whoever unloads a library holds that, and may be waiting for this very thread.
#include "runtime/SpareMemory.h"

#include <pthread.h>

namespace VarnSupport {

namespace {

constinit pthread_key_t key = 0;
constinit bool hasKey = false;

}  // namespace

constinit thread_local void* SpareMemory::t_pMemory = nullptr;
constinit thread_local SpareMemory::tState SpareMemory::t_eState = NEW;

void SpareMemory::prepare() {
  if (!hasKey)
    hasKey = pthread_key_create(&key, &SpareMemory::endThread) == 0;
}

void SpareMemory::endThread(void*) noexcept {
  t_eState = ENDED;
  ::operator delete(take());
}

[[gnu::cold]] void SpareMemory::keepSlowly(void* memory) noexcept {
  if (t_eState == NEW && hasKey && pthread_setspecific(key, &key) == 0) {
    t_eState = OWNED;
    t_pMemory = memory;
  } else {
    ::operator delete(memory);
  }
}

}  // namespace VarnSupport
