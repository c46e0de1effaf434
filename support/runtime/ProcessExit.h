// Whether the process is on its way out.
#ifndef SUPPORT_RUNTIME_PROCESSEXIT_H
#define SUPPORT_RUNTIME_PROCESSEXIT_H

#include <atomic>
#include <chrono>

#include "runtime/System.h"

namespace VarnSupport {

// While a process exits, the destructors of its static objects must not wait for ever: who could
// end what they wait for may be gone. exit() runs handlers and the destructors of static objects in
// the reverse order of their beginnings, so that a handler tells of the exit only to objects that
// are older than itself.
class ProcessExit {
 public:
  // How long all such destructors together may hold up the end of the process.
  static constexpr std::chrono::seconds kPatience{3};

  // For the constructor of an object whose destructor asks whether the exit has begun.
  static void noteObject() { m_bOutdated.store(true, std::memory_order_release); }
  // Called before anything begins that such a destructor waits for: the objects that were noted
  // until now will be told of the exit.
  static void watch() {
    if (m_bOutdated.load(std::memory_order_acquire))
      renewHandler();
  }

  // Has `function` called when the exit begins, before the destructors of the objects that were
  // noted until then: it waits for what must not run beside them, no longer than latestEnd().
  static void callAtBegin(void (*function)());

  // std::atexit(); false, too, where that would never return: in the child of a fork another thread
  // may have left the platform's list of handlers locked.
  static bool addHandler(void (*function)());

  static bool hasBegun();
  // The same for who is about to wait without limit, at the price of a walk over its frames: true,
  // too, inside of an exit() that the handler has missed.
  static bool hasBegunHere();
  // Until when a destructor may wait that begins to do so now, with hasBegunHere().
  static MonotonicTime latestEnd();

  // Waits until `isDone()`, which is asked again after each change that `changes` is notified of.
  // Nobody may be left to do so while the process exits: then it is asked now and then, no longer
  // than until latestEnd(). No cancellation point.
  template <typename Question>
  static void await(const std::atomic<unsigned>& changes, Question isDone) {
    for (unsigned seen = changes; !isDone(); seen = changes) {
      if (!hasBegunHere())
        changes.wait(seen);
      else if (!pause())
        return;
    }
  }
  // For a millisecond; false, at once, when latestEnd() has come. No cancellation point.
  static bool pause();

 private:
  static void renewHandler();

  static std::atomic<bool> m_bOutdated;
};

}  // namespace VarnSupport

#endif
