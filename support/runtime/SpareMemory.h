// A block of memory that a thread keeps for its next use.
#ifndef SUPPORT_RUNTIME_SPAREMEMORY_H
#define SUPPORT_RUNTIME_SPAREMEMORY_H

namespace VarnSupport {

// For the notifications of events: a set() makes one and destroys it, over and over.
class SpareMemory {
 public:
  // The block that the calling thread has kept; null when it has none. The caller owns it.
  static void* take() noexcept;
  // Takes over a block of operator new, which is freed when the thread ends, or at once.
  static void keep(void* memory) noexcept;
};

}  // namespace VarnSupport

#endif
