// A stack for signal handlers, as that of the thread may be used up.
#ifndef SUPPORT_RUNTIME_ALTERNATESTACK_H
#define SUPPORT_RUNTIME_ALTERNATESTACK_H

#include <atomic>

namespace VarnSupport {

// Stands around what a thread of the library does, and gives the thread a stack for its handlers if
// somebody wants that by then. A thread that has one, or for which there is no memory, stays as it
// is.
class AlternateStack {
 public:
  AlternateStack() {
    if (m_bWanted.load(std::memory_order_relaxed))
      set();
  }
  AlternateStack(const AlternateStack&) = delete;
  AlternateStack& operator=(const AlternateStack&) = delete;
  ~AlternateStack() {
    if (m_pMemory != nullptr)
      giveBack();
  }

  // For threads that start from now on.
  static void want(bool wanted) { m_bWanted = wanted; }

 private:
  void set();
  void giveBack();

  static constinit std::atomic<bool> m_bWanted;

  void* m_pMemory = nullptr;
};

}  // namespace VarnSupport

#endif
