// What a report of a crash says. Async-signal-safe, but for what an exception says of itself.
#ifndef SUPPORT_INSIGHT_CRASHTEXT_H
#define SUPPORT_INSIGHT_CRASHTEXT_H

#include <csignal>

namespace VarnSupport {

class CrashText {
 public:
  // Of a signal, as its handler is told of it.
  static void write(int descriptor, const siginfo_t& info, const void* context);
  // Of a std::terminate() by the calling thread.
  static void writeTermination(int descriptor);

  // For the handler of a fault on the thread that is inside one of these: goes on with the next
  // part. Returns when the thread is in no part.
  static void leavePart();
};

}  // namespace VarnSupport

#endif
