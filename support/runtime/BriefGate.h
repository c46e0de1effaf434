// Keeps all threads but one out of every brief section, at a price that the one pays alone.
//
// A brief section is a few instructions on the library's own data that neither wait for long nor
// call out. A thread notes that it is inside by a plain store and looks at the gate by a plain
// load; whoever closes the gate makes every processor pass a barrier, and waits until nobody is
// inside. What brief sections change is therefore whole in the child of a fork, whatever other
// threads were in the middle of.
//
// Counts are the second thing that is kept out, by whoever holds the global section by hand. The
// change of a count is a section of its own kind (Count), as short as the atomic operation.
//
// The barrier is membarrier(2), which stands in for a fence in each section. Where the system has
// none, the sections have the fence, and counts change under the global section.
#ifndef SUPPORT_RUNTIME_BRIEFGATE_H
#define SUPPORT_RUNTIME_BRIEFGATE_H

#include <pthread.h>

#include <atomic>
#include <cassert>
#include <utility>

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

  // What `call` gives from inside of a section. For what the platform does under a lock of its own
  // that no fork waits for: the lock is free in the child.
  template <typename Call>
  static auto inside(Call call) {
    const Pass pass;
    return call();
  }

  // The change of a count, an atomic operation and nothing else: it may be made when isOpen(), and
  // otherwise under the global section alone. Nothing waits inside, but for a signal handler.
  class Count {
   public:
    // Not inside the one that a signal handler has interrupted.
    Count() : m_pVisitor(t_pVisitor) {
      if (m_pVisitor == nullptr || m_pVisitor->isCounting.load(std::memory_order_relaxed))
        m_pVisitor = nullptr;
      else
        m_pVisitor->isCounting.store(true, std::memory_order_relaxed);
      std::atomic_signal_fence(std::memory_order_seq_cst);
    }
    Count(Count&& other) noexcept : m_pVisitor(std::exchange(other.m_pVisitor, nullptr)) {}
    Count& operator=(Count&&) = delete;
    ~Count() { end(); }

    bool isOpen() const {
      return m_pVisitor != nullptr && m_nState.load(std::memory_order_acquire) == OPEN;
    }
    // Ends the section before the scope does.
    void end() {
      if (m_pVisitor != nullptr)
        m_pVisitor->isCounting.store(false, std::memory_order_release);
      m_pVisitor = nullptr;
    }

   private:
    Visitor* m_pVisitor;
  };

  // Whether the calling thread is in a signal handler that has interrupted the change of a count.
  static bool isInCount() {
    return t_pVisitor != nullptr && t_pVisitor->isCounting.load(std::memory_order_relaxed);
  }

  // For the thread that has just taken the global section by hand: no count of other threads
  // changes from then on but under the section.
  static void holdCounts() {
    const int state = m_nState.load(std::memory_order_relaxed);
    if ((state & FENCED) == 0 && ((state & COUNTS_HELD) == 0 || m_bMustAwaitAgain))
      awaitCounts();
  }

  // Around the change of a count under the global section: before the section is taken, and while
  // it is held, be it by hand. The result, whether the change interrupts another, is for the
  // latter.
  static bool interruptCount() {
    if (t_pVisitor == nullptr && newVisitor() == &m_oCrowd)
      leaveCrowd();
    const bool isInterrupting = isInCount();
    if (isInterrupting)
      t_pVisitor->isCounting.store(false, std::memory_order_release);
    return isInterrupting;
  }
  static void resumeCount(bool isInterrupted, bool isHeldByHand) {
    if (isInterrupted) {
      assert(t_pVisitor != nullptr);
      t_pVisitor->isCounting.store(true, std::memory_order_relaxed);
      m_bMustAwaitAgain = true;
    }
    if (!isHeldByHand && (m_nState.load(std::memory_order_relaxed) & COUNTS_HELD) != 0 &&
        --m_nSlowCounts <= 0)
      m_nState.fetch_and(~COUNTS_HELD);
  }

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
    std::atomic<bool> isCounting{false};
    std::atomic<bool> isTaken{false};
    Visitor* next = nullptr;
  };

  enum tState : int { OPEN = 0, CLOSED = 1, FENCED = 2, COUNTS_HELD = 4 };  // bits

  static void enter(Visitor& visitor) {
    visitor.depth.store(visitor.depth.load(std::memory_order_relaxed) + 1,
                        std::memory_order_relaxed);
    std::atomic_signal_fence(std::memory_order_seq_cst);
    if ((m_nState.load(std::memory_order_acquire) & ~COUNTS_HELD) != OPEN)
      enterSlowly(visitor);
  }
  static void leave(Visitor& visitor) {
    assert(visitor.depth.load(std::memory_order_relaxed) > 0);
    visitor.depth.store(visitor.depth.load(std::memory_order_relaxed) - 1,
                        std::memory_order_release);
    if (&visitor == &m_oCrowd)
      leaveCrowd();
  }
  static void awaitCounts();
  static void chooseBarrier();
  static Visitor* newVisitor();
  static Visitor* takeHandedBack();
  static Visitor* makeVisitors();
  static void enterSlowly(Visitor& visitor);
  static void leaveCrowd();

  static constinit thread_local Visitor* t_pVisitor;
  static constinit std::atomic<int> m_nState;
  static constinit Visitor m_oCrowd;  // for threads that get no mark, one at a time
  static constinit std::atomic<Visitor*> m_pVisitors;
  static constinit pthread_key_t m_hKey;                   // hands marks back as threads end
  static constinit std::atomic<const Visitor*> m_pCloser;  // fixed while the gate is closed
  static constinit int m_nSlowCounts;       // until counts are free again; guarded by the global
  static constinit bool m_bMustAwaitAgain;  // section, as is this: a count may be under way
};

}  // namespace VarnSupport

#endif
