#include "Cancellation.h"

#include <pthread.h>
#include <sched.h>

#include <exception>

namespace VarnSupport {

constinit thread_local CancellationState* t_pCancellation
    __attribute__((tls_model("initial-exec"))) = nullptr;

void CancellationState::close() {
  if (m_nClosures++ == 0)
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
}

void CancellationState::open() {
  if (--m_nClosures > 0)
    return;
  if (std::uncaught_exceptions() > 0) {
    ++m_nClosures;
    openQuietly();
    return;
  }
  if (m_bDeferred) {
    m_bDeferred = false;
    pthread_setcanceltype(PTHREAD_CANCEL_ASYNCHRONOUS, nullptr);
  }
  pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
}

void CancellationState::openQuietly() {
  if (--m_nClosures > 0)
    return;
  // Either this thread sees the request, or the requester sees that it is opening and waits; in the
  // second case the cancellation arrives after this function, like any other.
  m_bOpening.store(true);
  if (m_bRequested.load() && !m_bDeferred) {
    m_bDeferred = true;
    pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, nullptr);
  }
  pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
  m_bOpening.store(false);
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
  pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, nullptr);
  pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
}

void CancellationState::leaveBlockingCall() {
  if (!m_bInBody)
    return;
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
  if (!m_bDeferred)
    pthread_setcanceltype(PTHREAD_CANCEL_ASYNCHRONOUS, nullptr);
}

void CancellationState::requestCancellation() noexcept {
  m_bRequested.store(true);
  while (m_bOpening.load())
    sched_yield();
}

NoCancellation::NoCancellation() noexcept {
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &m_nPrevious);
}

NoCancellation::~NoCancellation() { pthread_setcancelstate(m_nPrevious, nullptr); }

}  // namespace VarnSupport
