// Waits for several threads, or events, at once.
#ifndef SUPPORT_THREADS_WAITFORSEVERAL_H
#define SUPPORT_THREADS_WAITFORSEVERAL_H

#include <vector>

#include "VarnSupport/VarnThread.h"

namespace VarnSupport {

class WaitForSeveral {
 public:
  // What the caller knows of the threads: nothing, that their ends are not to be missed, or that
  // they are to be started.
  enum tThreads { ANY, RUNNING, TO_START };

  // VarnThread::wait() for several.
  static int run(std::vector<VarnThread*>& threads, bool waitAll, int timeoutMs, tThreads known);

  // The objects of an array; a count below 1 is none.
  template <typename Object>
  static std::vector<Object*> addressesOf(int count, Object* objects) {
    std::vector<Object*> addresses;
    for (int i = 0; i < count; ++i)
      addresses.push_back(&objects[i]);
    return addresses;
  }

 private:
  static void watchEnd(VarnThread& thread, class ThreadWaitDependent& dependent, bool wasRunning);
};

}  // namespace VarnSupport

#endif
