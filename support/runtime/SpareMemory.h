// A block of memory that a thread keeps for its next use.
#ifndef SUPPORT_RUNTIME_SPAREMEMORY_H
#define SUPPORT_RUNTIME_SPAREMEMORY_H

#include <utility>

namespace VarnSupport {

// For the notifications of events: a set() makes one and destroys it, over and over.
class SpareMemory {
 public:
  // Until this is called, by the first thread, nothing is kept.
  static void prepare();

  // The block that the calling thread has kept; null when it has none. The caller owns it.
  static void* take() noexcept { return std::exchange(t_pMemory, nullptr); }
  // Takes over a block of operator new, which is freed when the thread ends, or at once.
  static void keep(void* memory) noexcept {
    if (t_eState == OWNED && t_pMemory == nullptr)
      t_pMemory = memory;
    else
      keepSlowly(memory);
  }

 private:
  // Whether what frees the block as the thread ends is yet to come, there, or gone.
  enum tState : unsigned char { NEW, OWNED, ENDED };

  static void keepSlowly(void* memory) noexcept;
  static void endThread(void*) noexcept;

  // Events are set to the very end of a thread, beyond the destructors of its variables: these
  // variables have none.
  static constinit thread_local void* t_pMemory;
  static constinit thread_local tState t_eState;
};

}  // namespace VarnSupport

#endif
