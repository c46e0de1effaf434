#include "Cancellation.h"

#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <exception>

namespace VarnSupport {

namespace {

constexpr int kLooksForNotice = 50;
constexpr useconds_t kLookMicroseconds = 50;

}  // namespace

constinit thread_local CancellationState* t_pCancellation = nullptr;

void CancellationState::close() {
  if (m_nClosures++ > 0)
    return;
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
  if (m_bRequested.load())
    defer();
}

// The signal of a request that was made while cancellation was enabled may still be on its way, and
// the platform then looks at the type alone. A request that is not seen here is made, and finds
// cancellation disabled, later.
void CancellationState::defer() {
  if (m_bDeferred)
    return;
  m_bDeferred = true;
  pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, nullptr);
}

void CancellationState::open() {
  openQuietly();
  if (m_nClosures > 0 || !m_bDeferred || std::uncaught_exceptions() > 0)
    return;
  // At a cancellation point, as only there the platform gives the thread its result. Nothing
  // happens when the thread is unwinding already.
  while (!m_bIssued.load())
    sched_yield();
  pthread_testcancel();
}

// Either this thread sees a request, or the requester sees that it is opening and waits; in the
// second case the cancellation arrives after this function, like any other.
void CancellationState::openQuietly() {
  if (--m_nClosures > 0)
    return;
  m_bOpening.store(true);
  if (m_bRequested.load())
    defer();
  pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
  m_bOpening.store(false, std::memory_order_release);
}

void CancellationState::enterBody() {
  m_bInBody = true;
  open();
}

void CancellationState::leaveBody() {
  close();
  m_bInBody = false;
}

void CancellationState::enterBlockingCall() {
  if (!m_bInBody)
    return;
  m_bBlocking = true;
  pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, nullptr);
  pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
}

void CancellationState::leaveBlockingCall() {
  if (!m_bInBody)
    return;
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
  m_bBlocking = false;
  if (m_bRequested.load())
    m_bDeferred = true;
  if (!m_bDeferred)
    pthread_setcanceltype(PTHREAD_CANCEL_ASYNCHRONOUS, nullptr);
}

void CancellationState::cancel(pthread_t thread) {
  const NoCancellation whole;  // a thread that has noticed the request waits for the rest
  m_bRequested.store(true);
  const auto isSafe = [this] { return m_bDeferred || m_bBlocking || t_pCancellation == this; };
  for (int look = 0; look < kLooksForNotice && !isSafe(); ++look)
    usleep(kLookMicroseconds);
  while (m_bOpening.load())
    sched_yield();
  pthread_cancel(thread);
  m_bIssued.store(true);
}

NoCancellation::NoCancellation() noexcept {
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &m_nPrevious);
}

NoCancellation::~NoCancellation() { pthread_setcancelstate(m_nPrevious, nullptr); }

}  // namespace VarnSupport
