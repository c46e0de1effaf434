// Keeps asynchronous cancellation out of the library's own bookkeeping.
//
// VarnThread::kill() takes effect at any instruction of a thread's body. Inside the library that
// would leave a mutex locked for ever or the heap damaged, so every operation that locks, counts,
// allocates or logs closes cancellation for its duration. Only threads that run a VarnThread body
// can be cancelled this way; on all others a guard costs one thread-local load.
//
// A frame that has destructors to run cannot be unwound at every instruction (the process would
// end), and the first and last instructions of a guarded operation still run open. Therefore a
// request waits a little for the thread to notice it inside the library, and what threads call all
// the time closes and opens by hand, around an inner function.
#ifndef SUPPORT_CANCELLATION_H
#define SUPPORT_CANCELLATION_H

#include <pthread.h>

#include <atomic>

namespace VarnSupport {

// The cancellation of one library thread. Used by that thread, but for cancel().
class CancellationState {
 public:
  // Cancellation is closed while any guard exists, and outside the body.
  void close();
  // Ends one closure. The last one lets a cancellation that was requested meanwhile begin to unwind
  // right here, unless an exception is in flight: two unwindings cannot be on their way at once.
  void open();
  // As open(), for places that must not throw: the unwinding begins at the thread's next
  // cancellation point or library call instead.
  void openQuietly();

  // Opens cancellation for the body of the thread, and closes it again.
  void enterBody();
  void leaveBody();

  // Between these a blocking call is a cancellation point, however many guards there are, provided
  // that the body is running.
  void enterBlockingCall();
  void leaveBlockingCall();

  // Cancels `thread`, whose state this is, from another thread. A thread that is busy with the
  // library is given the time to notice the request at one of its operations, where it can always
  // be unwound; what does not notice within milliseconds is cancelled where it is, though not in
  // the middle of opening, so that what it decides there still holds.
  void cancel(pthread_t thread);

 private:
  void defer();

  int m_nClosures = 1;
  bool m_bInBody = false;
  std::atomic<bool> m_bDeferred{false};  // the request has been noticed
  std::atomic<bool> m_bBlocking{false};
  std::atomic<bool> m_bRequested{false};
  std::atomic<bool> m_bIssued{false};
  std::atomic<bool> m_bOpening{false};
};

// The calling thread's state; null on threads that the library does not run.
extern constinit thread_local CancellationState* t_pCancellation;

// False on threads that the library does not run.
inline bool isCancellable() { return t_pCancellation != nullptr; }

// What the guards below do, by hand.
inline void closeCancellation() {
  if (t_pCancellation != nullptr)
    t_pCancellation->close();
}
inline void openCancellation() {
  if (t_pCancellation != nullptr)
    t_pCancellation->open();
}
inline void openCancellationQuietly() {
  if (t_pCancellation != nullptr)
    t_pCancellation->openQuietly();
}

// Closes cancellation for a scope, at whose end a cancelled thread may begin to unwind.
class CancellationGuard {
 public:
  CancellationGuard() { closeCancellation(); }
  CancellationGuard(const CancellationGuard&) = delete;
  CancellationGuard& operator=(const CancellationGuard&) = delete;
  ~CancellationGuard() noexcept(false) { openCancellation(); }
};

// The same for destructors and whatever they call: never unwinds.
class QuietCancellationGuard {
 public:
  QuietCancellationGuard() { closeCancellation(); }
  QuietCancellationGuard(const QuietCancellationGuard&) = delete;
  QuietCancellationGuard& operator=(const QuietCancellationGuard&) = delete;
  ~QuietCancellationGuard() { openCancellationQuietly(); }
};

// Lets a cancelled thread unwind out of the blocking call of one scope, as from any cancellation
// point. Requires: destructors undo whatever the library has under way on this thread.
class BlockingCall {
 public:
  BlockingCall() {
    if (t_pCancellation != nullptr)
      t_pCancellation->enterBlockingCall();
  }
  BlockingCall(const BlockingCall&) = delete;
  BlockingCall& operator=(const BlockingCall&) = delete;
  ~BlockingCall() {
    if (t_pCancellation != nullptr)
      t_pCancellation->leaveBlockingCall();
  }
};

// Keeps the calls of one scope from being cancellation points on threads that the library does not
// run: for system calls made while something is half done.
// Requires: on a library thread, an outer guard.
class NoCancellation {
 public:
  NoCancellation() noexcept;
  NoCancellation(const NoCancellation&) = delete;
  NoCancellation& operator=(const NoCancellation&) = delete;
  ~NoCancellation();

 private:
  int m_nPrevious = 0;
};

}  // namespace VarnSupport

#endif
