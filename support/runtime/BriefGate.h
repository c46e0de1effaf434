// Keeps all threads but one out of every brief section, at a price that the one pays alone.
//
// A brief section is a few instructions on the library's own data that neither wait for long nor
// call out. A thread notes that it is inside by a plain store and looks at the gate by a plain
// load; whoever closes the gate makes every processor pass a barrier, and waits until nobody is
// inside. What brief sections change is therefore whole in the child of a fork, whatever other
// threads were in the middle of.
//
// The barrier is membarrier(2), which stands in for a fence in each section. Where the system has
// none, the sections have the fence.
#ifndef SUPPORT_RUNTIME_BRIEFGATE_H
#define SUPPORT_RUNTIME_BRIEFGATE_H

#include <pthread.h>

#include <atomic>
#include <cassert>

namespace VarnSupport {

class BriefGate {
 private:
  struct Visitor;

 public:
  // A brief section of the calling thread. It may contain others.
  class Pass {
   public:
    Pass() : m_pVisitor(t_pVisitor != nullptr ? t_pVisitor : newVisitor()) { enter(*m_pVisitor); }
    Pass(const Pass&) = delete;
    Pass& operator=(const Pass&) = delete;
    ~Pass() { leave(*m_pVisitor); }

   private:
    Visitor* m_pVisitor;
  };

  // Called before there is a second thread, once or several times.
  static void prepare();

  // What other threads have stored before they next load is seen here from then on, and what was
  // stored here before is seen by those loads. For rare cases, in which the others pay nothing.
  static void synchronize();

  // Waits until the calling thread is the only one that is inside a section, or can enter one,
  // until open(). Requires: the thread is inside none.
  static void close();
  static void open();
  // In the child of a fork of the thread that has closed the gate, before open().
  static void forgetOthers();

 private:
  // One thread's mark. Marks are handed from thread to thread and never freed.
  struct alignas(64) Visitor {
    std::atomic<int> depth{0};
    std::atomic<bool> isTaken{false};
    Visitor* next = nullptr;
  };

  enum tState : int { OPEN = 0, CLOSED = 1, FENCED = 2 };  // bits

  static void enter(Visitor& visitor) {
    visitor.depth.store(visitor.depth.load(std::memory_order_relaxed) + 1,
                        std::memory_order_relaxed);
    std::atomic_signal_fence(std::memory_order_seq_cst);
    if (m_nState.load(std::memory_order_acquire) != OPEN)
      enterSlowly(visitor);
  }
  static void leave(Visitor& visitor) {
    assert(visitor.depth.load(std::memory_order_relaxed) > 0);
    visitor.depth.store(visitor.depth.load(std::memory_order_relaxed) - 1,
                        std::memory_order_release);
    if (&visitor == &m_oCrowd)
      leaveCrowd();
  }
  static void chooseBarrier();
  static Visitor* newVisitor();
  static void enterSlowly(Visitor& visitor);
  static void leaveCrowd();

  static constinit thread_local Visitor* t_pVisitor;
  static constinit std::atomic<int> m_nState;
  static constinit Visitor m_oCrowd;  // for threads that get no mark, one at a time
  static constinit std::atomic<Visitor*> m_pVisitors;
  static constinit pthread_key_t m_hKey;                   // hands marks back as threads end
  static constinit std::atomic<const Visitor*> m_pCloser;  // fixed while the gate is closed
};

}  // namespace VarnSupport

#endif
