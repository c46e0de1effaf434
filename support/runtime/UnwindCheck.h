// Whether a thread can be unwound where it stands.
//
// To unwind a thread runs the destructors of its frames. A frame that has some lists the calls at
// which they can run in its exception table; unwound anywhere else, or through a function that must
// not throw, the platform ends the process. Unwound inside the heap or another part of the
// platform, a thread leaves a lock of the platform locked; unwound out of exit(), it leaves a
// process that never ends. So the library looks first.
#ifndef SUPPORT_RUNTIME_UNWINDCHECK_H
#define SUPPORT_RUNTIME_UNWINDCHECK_H

namespace VarnSupport {

class UnwindCheck {
 public:
  // Finds out where the platform's code lies. Called once, before the first look.
  static void prepare();

  // Whether the calling thread can be unwound from this very call.
  static bool isPossibleHere();

  // Whether the calling thread, which is in a signal handler, can be unwound where the signal has
  // interrupted it: in code that is neither the library's nor the platform's, or in a system call
  // that does nothing but wait or was called directly. Destructors may run in the middle of what
  // other code does with their objects, as compilers list more instructions than the calls: with
  // `destroysNothing` only code without such frames counts. Async-signal-safe.
  static bool isPossibleWhereInterrupted(bool destroysNothing);

  // The same for a thread that is known to be inside a cancellation point of the platform.
  static bool isPossibleAroundCancellationPoint();

  // Whether the calling thread is inside of exit(). False, too, where there is a frame without
  // unwind tables in between.
  static bool isInsideExit();
};

}  // namespace VarnSupport

#endif
