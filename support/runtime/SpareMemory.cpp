// The destructor that frees a thread's block is registered with the first block that is kept; a
// thread that keeps none has none to run. After that destructor nothing is kept any more, since
// nobody would free it.
#include "runtime/SpareMemory.h"

#include <new>

namespace VarnSupport {

constinit thread_local void* SpareMemory::t_pMemory = nullptr;
constinit thread_local SpareMemory::tState SpareMemory::t_eState = NEW;

// Frees the block as the thread ends: the first use of a thread's owner registers the destructor.
class SpareMemory::Owner {
 public:
  Owner() = default;
  Owner(const Owner&) = delete;
  Owner& operator=(const Owner&) = delete;
  ~Owner() {
    t_eState = ENDED;
    ::operator delete(take());
  }

  void begin() { t_eState = OWNED; }
};

// Not within keepSlowly(): there its guard would take eight bytes more of every thread's storage.
constinit thread_local SpareMemory::Owner SpareMemory::t_oOwner;

[[gnu::cold]] void SpareMemory::keepSlowly(void* memory) noexcept {
  if (t_eState == NEW) {
    t_oOwner.begin();
    t_pMemory = memory;
  } else {
    ::operator delete(memory);
  }
}

}  // namespace VarnSupport
