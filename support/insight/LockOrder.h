// Tells when two critical sections are taken in both orders, in programs that are run with
// VSUPT_CHECK_LOCKS=1 in the environment.
//
// Each pair of sections of which one was held while the other was waited for, or could have been,
// is kept with the stack of its first time. Pairs go with their sections. There is room for some
// thousands: what finds none is told of where the other order has found some before.
#ifndef SUPPORT_INSIGHT_LOCKORDER_H
#define SUPPORT_INSIGHT_LOCKORDER_H

#include <atomic>

namespace VarnSupport {

class LockOrder {
 public:
  // Looks at the environment. Called while there is one thread.
  static void prepare();
  static bool isChecked() { return m_bChecked.load(std::memory_order_relaxed); }

  // The calling thread holds a section and has taken, or is about to wait for, another one, which
  // it did not hold. Writes nothing by itself: a thread that holds no lock does, as this one may
  // never go on. Requires, as forget(): isChecked().
  static void note(const void* held, const void* wanted);
  // The section at that address is no more.
  static void forget(const void* section);

 private:
  static constinit std::atomic<bool> m_bChecked;
};

}  // namespace VarnSupport

#endif
