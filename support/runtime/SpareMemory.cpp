#include "runtime/SpareMemory.h"

#include <new>
#include <utility>

namespace VarnSupport {

namespace {

// Events are set to the very end of a thread, beyond the destructors of its variables: these
// variables have none.
constinit thread_local void* t_pMemory = nullptr;
constinit thread_local bool t_bThreadEnds = false;

// Frees the block as the thread ends: the first use of a thread's owner registers the destructor.
class Owner {
 public:
  Owner() = default;
  Owner(const Owner&) = delete;
  Owner& operator=(const Owner&) = delete;
  ~Owner() {
    t_bThreadEnds = true;
    ::operator delete(std::exchange(t_pMemory, nullptr));
  }

  void keep(void* memory) { t_pMemory = memory; }
};

constinit thread_local Owner t_oOwner;

}  // namespace

void* SpareMemory::take() noexcept { return std::exchange(t_pMemory, nullptr); }

void SpareMemory::keep(void* memory) noexcept {
  if (t_pMemory == nullptr && !t_bThreadEnds)
    t_oOwner.keep(memory);
  else
    ::operator delete(memory);
}

}  // namespace VarnSupport
