// Timers that lie on the stacks of threads.
#ifndef SUPPORT_TIME_STACKTIMERS_H
#define SUPPORT_TIME_STACKTIMERS_H

namespace VarnSupport {

class VarnTimer;

// In the child of a fork the stacks of all other threads are free for new ones. The main thread's
// is not: a timer there goes on.
class StackTimers {
 public:
  // For the constructor and the destructor of a timer. The first may throw std::bad_alloc.
  static void note(VarnTimer& timer);
  static void forget(VarnTimer& timer);

  // Around a fork.
  static void lock();
  static void unlock();
  // In the child: takes out a timer of a vanished thread; null when there is none left. Requires:
  // locked.
  static VarnTimer* takeLost();
};

}  // namespace VarnSupport

#endif
