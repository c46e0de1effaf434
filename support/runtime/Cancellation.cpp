// The platform's own cancellation ends a thread at any system call it happens to be in, or not at
// all while it computes. Here a request is a flag, and a signal to the thread. The handler looks
// where the thread is: in a wait that a cancellation may end it unwinds at once; inside the
// library it leaves the flag, which the next operation's guard sees; in code of the user it
// unwinds when that can be done (UnwindCheck.h), and otherwise a timer of the thread tries again.
// Unwinding is the platform's forced unwinding, so that destructors run and catch (...) sees it.
#include "runtime/Cancellation.h"

#include <cxxabi.h>
#include <execinfo.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cassert>
#include <csignal>
#include <exception>
#include <utility>

#include "runtime/BriefGate.h"
#include "runtime/LinkedNodes.h"
#include "runtime/UnwindCheck.h"

// Of AddressSanitizer's runtime, where there is one: the frames that an unwinding leaves behind are
// no longer in use.
extern "C" [[gnu::weak]] void __asan_handle_no_return();

namespace VarnSupport {

namespace {

// A thread that could not be unwound where it was interrupted may be a moment later; later still it
// is likely to be in for a longer time.
constexpr int kSoonInterruptions = 100;
// A body that uses the library does so before: that is the better place. It takes 110 ms.
constexpr int kPatientInterruptions = 120;
constexpr long kSoonNanoseconds = 100'000;
constexpr long kLaterNanoseconds = 5'000'000;

// The platform loads what it unwinds with at its first use, which must not be in a signal handler.
void loadUnwinder() {
  static constinit std::atomic<bool> isLoaded{false};
  void* frame = nullptr;
  if (!isLoaded.exchange(true))
    static_cast<void>(backtrace(&frame, 1));
}

// The exceptions that the calling thread is in handlers of: the first field of what the C++ binary
// interface keeps for a thread.
void*& caughtExceptions() { return *reinterpret_cast<void**>(abi::__cxa_get_globals()); }

// Whether the signal handler that asks has interrupted a call at a moment at which the platform
// lets it be cancelled. Requires: cancellation is deferred otherwise.
bool isInterruptedAtCancellationPoint() {
  int type = PTHREAD_CANCEL_DEFERRED;
  pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, &type);
  pthread_setcanceltype(type, nullptr);
  return type == PTHREAD_CANCEL_ASYNCHRONOUS;
}

}  // namespace

constinit thread_local CancellationState* t_pCancellation = nullptr;

bool isInHandlerOfExceptions() { return caughtExceptions() != nullptr; }

CancellationState::~CancellationState() {
  if (m_bHasTimer)
    timer_delete(m_hTimer);
}

[[gnu::cold]] void CancellationState::unwindIfPossible() {
  if (!canUnwindNow())
    return;
  addToDepth(1);  // so that destructors on the way do not look for a request again
  unwind(false);
  addToDepth(-1);
}

// Returns only when the thread has disabled cancellation: then it unwinds when it enables it again.
// Handlers inside handlers must not meet the unwinding, or the C++ run-time ends the process; so
// the exceptions that are being handled are set aside.
void CancellationState::unwind(bool isInHandler) {
  if (&__asan_handle_no_return != nullptr)
    __asan_handle_no_return();
  m_pCaught = std::exchange(caughtExceptions(), nullptr);
  pthread_cancel(pthread_self());
  if (!isInHandler)
    pthread_testcancel();  // for a body that has made cancellation deferred
  caughtExceptions() = std::exchange(m_pCaught, nullptr);
}

void CancellationState::releaseCaughtExceptions() {
  if (m_pCaught == nullptr)
    return;
  caughtExceptions() = std::exchange(m_pCaught, nullptr);
  while (caughtExceptions() != nullptr)
    abi::__cxa_end_catch();
}

// Two unwindings cannot be on their way at once.
bool CancellationState::canUnwindNow() const {
  return m_bInBody && m_nQuiet == 0 && !BriefGate::isInCount() && std::uncaught_exceptions() == 0 &&
         UnwindCheck::isPossibleHere();
}

void CancellationState::enterBlockingCall() {
  if (!m_bInBody || m_nQuiet > 0)
    return;
  if (m_bRequested)
    unwindIfPossible();
  pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, &m_nCallersType);
  m_bBlocking = true;
}

void CancellationState::leaveBlockingCall() {
  if (!m_bBlocking)
    return;
  m_bBlocking = false;
  pthread_setcanceltype(m_nCallersType, nullptr);
}

void CancellationState::enterBody() {
  assert(!m_bInBody && m_nDepth == 1);
  m_nThread = gettid();
  m_bInBody = true;
  if (m_bRequested)
    unwindIfPossible();
  m_nDepth = 0;
}

void CancellationState::leaveBody() {
  assert(m_bInBody);
  m_nDepth = 1;
  m_bInBody = false;
}

void CancellationState::forget(Held& held) { takeOut(m_pNewestHeld, held, &Held::older); }

void CancellationState::giveBackAll() {
  while (Held* const held = m_pNewestHeld) {
    m_pNewestHeld = held->older;
    held->giveBack(*held);
  }
}

void CancellationState::request() {
  loadUnwinder();
  if (m_bRequested.exchange(true) || m_nThread == 0)
    return;
  sigevent event{};
  event.sigev_notify = SIGEV_THREAD_ID;
  event.sigev_signo = SIGUSR2;
  event._sigev_un._tid = m_nThread;
  if (timer_create(CLOCK_MONOTONIC, &event, &m_hTimer) != 0) {
    syscall(SYS_tgkill, getpid(), m_nThread.load(), SIGUSR2);
    return;
  }
  m_bHasTimer = true;
  interruptAfter(1);
}

bool CancellationState::handleSignal() {
  if (!m_bRequested)
    return false;
  if (!m_bInBody || kSignalsAreHeldBack)
    return true;
  const bool isFree =
      m_nDepth == 0 && !m_bInMoment &&
      UnwindCheck::isPossibleWhereInterrupted(m_nInterruptions < kPatientInterruptions);
  const bool isWaiting = m_bBlocking && isInterruptedAtCancellationPoint() &&
                         UnwindCheck::isPossibleAroundCancellationPoint();
  if ((isFree || isWaiting) && !BriefGate::isInCount() && std::uncaught_exceptions() == 0) {
    addToDepth(1);
    unwind(true);
    addToDepth(-1);
  }
  interruptAfter(++m_nInterruptions < kSoonInterruptions ? kSoonNanoseconds : kLaterNanoseconds);
  return true;
}

void CancellationState::interruptAfter(long nanoseconds) {
  if (!m_bHasTimer)
    return;
  itimerspec time{};
  time.it_value.tv_nsec = nanoseconds;
  timer_settime(m_hTimer, 0, &time, nullptr);
}

// The child has none of the parent's timers.
void CancellationState::forgetRequest() {
  m_bRequested = false;
  m_bHasTimer = false;
  m_nInterruptions = 0;
  m_nThread = gettid();
}

bool NoCancellation::isInForce() noexcept {
  int state = PTHREAD_CANCEL_ENABLE;
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state);
  pthread_setcancelstate(state, nullptr);
  return state == PTHREAD_CANCEL_DISABLE;
}

NoCancellation::NoCancellation() noexcept {
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &m_nPrevious);
}

NoCancellation::~NoCancellation() { pthread_setcancelstate(m_nPrevious, nullptr); }

}  // namespace VarnSupport
