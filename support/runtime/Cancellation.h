// Where VarnThread::kill() takes effect.
//
// A killed thread is unwound, and only ever by itself: kill() notes the request and has the thread
// interrupted until it has ended. The thread begins to unwind
//   - when it enters an operation that takes something (CancellationGuard), before it has taken it;
//   - while it waits inside such an operation (BlockingCall), whose frames undo what they began;
//   - in its own code, at an instruction from which it can be unwound (UnwindCheck.h): at once
//     where that destroys nothing, else when it has done none of the above for 110 ms.
// It never does so at another instruction of the library, nor inside an operation that gives
// something back (QuietCancellationGuard). What an operation has handed out therefore belongs to
// its caller, and nothing of the library is left half done.
//
// Threads that the library does not run have no state; a guard costs them one thread-local load.
#ifndef SUPPORT_RUNTIME_CANCELLATION_H
#define SUPPORT_RUNTIME_CANCELLATION_H

#include <pthread.h>
#include <sys/types.h>

#include <atomic>
#include <cassert>
#include <ctime>
#include <exception>

namespace VarnSupport {

// The cancellation of one library thread. All but request() is for that thread.
class CancellationState {
 public:
  // ThreadSanitizer's run-time library delivers a signal when the thread calls into it, which may
  // be never, and does not survive that the thread is unwound from there. The platform's own signal
  // it lets through: there, who kills a thread has the platform cancel it.
#if defined(__SANITIZE_THREAD__)
  static constexpr bool kSignalsAreHeldBack = true;
#else
  static constexpr bool kSignalsAreHeldBack = false;
#endif

  // Something that a thread holds between two operations of the library, and gives back when it
  // ends, however it ends.
  struct Held {
    void (*giveBack)(Held& held) = nullptr;
    Held* older = nullptr;
  };

  CancellationState() = default;
  CancellationState(const CancellationState&) = delete;
  CancellationState& operator=(const CancellationState&) = delete;
  // Requires: the thread has ended or does not exist in this process.
  ~CancellationState();

  // Around an operation that takes something. A request is acted on before the first of several
  // operations that are inside each other, and nowhere in between.
  void enter() {
    if (addToDepth(1) == 1 && m_bRequested.load(std::memory_order_relaxed))
      unwindIfPossible();
  }
  void leave() {
    assert(m_nDepth > 0);
    addToDepth(-1);
  }

  // Around an operation that gives something back: no request is acted on inside.
  void enterQuietly() {
    addToDepth(1);
    ++m_nQuiet;
  }
  void leaveQuietly() {
    assert(m_nQuiet > 0 && m_nDepth >= m_nQuiet);
    --m_nQuiet;
    addToDepth(-1);
  }

  // Around a few instructions that call nothing that waits: half the price of the others. Only
  // handlers of signals on this thread look at the moment, so it is the compiler alone that must
  // not move those instructions out of it.
  void enterMoment() {
    assert(!m_bInMoment);
    m_bInMoment.store(true, std::memory_order_relaxed);
    std::atomic_signal_fence(std::memory_order_seq_cst);
  }
  void leaveMoment() {
    assert(m_bInMoment);
    std::atomic_signal_fence(std::memory_order_seq_cst);
    m_bInMoment.store(false, std::memory_order_relaxed);
  }

  bool isDue() const { return m_bRequested.load(std::memory_order_relaxed) && isOutermost(); }
  // Returns when the thread cannot be unwound from here, or has disabled cancellation itself.
  void unwindIfPossible();

  // Around a call that may wait for long.
  void enterBlockingCall();
  void leaveBlockingCall();

  // Around the body of the thread.
  void enterBody();
  void leaveBody();

  void note(Held& held) {
    held.older = m_pNewestHeld;
    m_pNewestHeld = &held;
  }
  void forget(Held& held);
  void giveBackAll();
  // For the end of the thread: the exceptions in whose handlers it was when it began to unwind.
  void releaseCaughtExceptions();

  // Requests the cancellation; the thread acts on it in its body.
  void request();
  bool isRequested() const { return m_bRequested; }
  // For the requester: whether the thread is outside of the library, or waits in a call that can be
  // cancelled. It may go on at once.
  bool isOpen() const { return m_nDepth == 0 || m_bBlocking; }

  // What interrupts the thread: acts on a request if that is possible there. False when the thread
  // was not asked to end. Runs in signal context.
  bool handleSignal();

  // For the child of a fork: a request was meant for the thread in the parent.
  void forgetRequest();

 private:
  bool isOutermost() const { return m_bInBody && m_nDepth == 1 && m_nQuiet == 0; }
  // Only the thread itself changes its depth, but others may look at it.
  int addToDepth(int levels) {
    const int depth = m_nDepth.load(std::memory_order_relaxed) + levels;
    m_nDepth.store(depth, std::memory_order_relaxed);
    return depth;
  }
  bool canUnwindNow() const;
  void unwind(bool isInHandler);
  void interruptAfter(long nanoseconds);

  // Operations of the library that the thread is inside of, one more outside of the body.
  std::atomic<int> m_nDepth{1};
  int m_nQuiet = 0;
  std::atomic<bool> m_bInMoment{false};
  bool m_bInBody = false;
  std::atomic<bool> m_bBlocking{false};
  int m_nCallersType = 0;  // of cancellation, around a blocking call
  int m_nInterruptions = 0;
  Held* m_pNewestHeld = nullptr;
  void* m_pCaught = nullptr;  // exceptions, once the thread unwinds
  std::atomic<bool> m_bRequested{false};
  // Interrupts the thread; there is none before the request.
  std::atomic<bool> m_bHasTimer{false};
  timer_t m_hTimer{};
  std::atomic<pid_t> m_nThread{0};  // the system's identifier, once the body has begun
};

// The calling thread's state; null on threads that the library does not run.
extern constinit thread_local CancellationState* t_pCancellation;

// False on threads that the library does not run.
inline bool isCancellable() { return t_pCancellation != nullptr; }

// What the guards below do, by hand.
inline void closeCancellation() {
  if (t_pCancellation != nullptr)
    t_pCancellation->enter();
}
inline void openCancellation() {
  if (t_pCancellation != nullptr)
    t_pCancellation->leave();
}
inline void closeCancellationQuietly() {
  if (t_pCancellation != nullptr)
    t_pCancellation->enterQuietly();
}
inline void openCancellationQuietly() {
  if (t_pCancellation != nullptr)
    t_pCancellation->leaveQuietly();
}

// For an operation that has waited for what it has now: whether to give it back and to call
// unwindIfPossible(), after which it may have to take it again.
inline bool isCancellationDue() { return t_pCancellation != nullptr && t_pCancellation->isDue(); }
inline void unwindIfPossible() { t_pCancellation->unwindIfPossible(); }

// For what takes something: a thread that is to be cancelled unwinds out of the constructor.
class CancellationGuard {
 public:
  CancellationGuard() { closeCancellation(); }
  CancellationGuard(const CancellationGuard&) = delete;
  CancellationGuard& operator=(const CancellationGuard&) = delete;
  ~CancellationGuard() { openCancellation(); }
};

// For what gives something back, destructors above all: never unwinds, and blocking calls inside
// cannot be cancelled.
class QuietCancellationGuard {
 public:
  QuietCancellationGuard() { closeCancellationQuietly(); }
  QuietCancellationGuard(const QuietCancellationGuard&) = delete;
  QuietCancellationGuard& operator=(const QuietCancellationGuard&) = delete;
  ~QuietCancellationGuard() { openCancellationQuietly(); }
};

// Whether the calling thread is in a handler of exceptions, be it of the unwinding of a thread.
bool isInHandlerOfExceptions();

// Keeps the thread from being unwound by a signal, for an operation that calls no code but the
// library's own and some of the platform's that does not wait. Does not look for a request, and
// must not stand inside another of its kind.
class MomentaryGuard {
 public:
  // ThreadSanitizer's platform cancels threads by other means, which look at the other guards.
  static bool isPossible() {
    return t_pCancellation != nullptr && !CancellationState::kSignalsAreHeldBack;
  }
  // Whether the thread is to be cancelled. Requires: isPossible(), as below.
  static bool isRequested() {
    assert(isPossible());
    return t_pCancellation->isRequested();
  }

  MomentaryGuard() : m_oState(*t_pCancellation) { m_oState.enterMoment(); }
  MomentaryGuard(const MomentaryGuard&) = delete;
  MomentaryGuard& operator=(const MomentaryGuard&) = delete;
  ~MomentaryGuard() { m_oState.leaveMoment(); }

 private:
  CancellationState& m_oState;
};

// For a handler of all exceptions: lets the unwinding of a cancelled thread go on.
inline void passOnCancellation() {
  if (std::current_exception() == nullptr)
    throw;
}

// Lets a cancelled thread unwind out of the blocking call of one scope, or out of the constructor.
// Requires: the call is a cancellation point of the platform; destructors undo whatever the library
// has under way on this thread.
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

// Keeps the calls of one scope from being cancellation points of the platform, for system calls
// made while something is half done: anybody may cancel a thread that the library does not run.
class NoCancellation {
 public:
  // For the asserts of what requires one.
  static bool isInForce() noexcept;

  NoCancellation() noexcept;
  NoCancellation(const NoCancellation&) = delete;
  NoCancellation& operator=(const NoCancellation&) = delete;
  ~NoCancellation();

 private:
  int m_nPrevious = 0;
};

}  // namespace VarnSupport

#endif
