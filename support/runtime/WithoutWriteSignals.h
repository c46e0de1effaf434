// Writing without the signals that end a process: of a pipe that nobody reads, and of a limit for
// the size of files.
#ifndef SUPPORT_RUNTIME_WITHOUTWRITESIGNALS_H
#define SUPPORT_RUNTIME_WITHOUTWRITESIGNALS_H

#include <pthread.h>

#include <cerrno>
#include <csignal>
#include <ctime>

#include "runtime/System.h"

namespace VarnSupport {

// Keeps the signals by which a write tells of its failure from the calling thread. One that was
// sent before, while the thread had it blocked, stays.
class WithoutWriteSignals {
 public:
  WithoutWriteSignals() {
    sigemptyset(&m_oOfWrites);
    sigaddset(&m_oOfWrites, SIGPIPE);
    sigaddset(&m_oOfWrites, SIGXFSZ);
    pthread_sigmask(SIG_BLOCK, &m_oOfWrites, &m_oPrevious);
    if (isBlocked(SIGPIPE) || isBlocked(SIGXFSZ))
      sigpending(&m_oPending);
  }
  WithoutWriteSignals(const WithoutWriteSignals&) = delete;
  WithoutWriteSignals& operator=(const WithoutWriteSignals&) = delete;
  ~WithoutWriteSignals() { pthread_sigmask(SIG_SETMASK, &m_oPrevious, nullptr); }

  // After a failed write: takes back the signal that it has raised.
  void take(int error) const {
    const int signal = error == EPIPE ? SIGPIPE : SIGXFSZ;
    if ((error != EPIPE && error != EFBIG) ||
        (isBlocked(signal) && sigismember(&m_oPending, signal) == 1))
      return;
    sigset_t raised;
    sigemptyset(&raised);
    sigaddset(&raised, signal);
    const timespec atOnce{};
    retrying([&] { return sigtimedwait(&raised, nullptr, &atOnce); });
    errno = error;
  }

 private:
  bool isBlocked(int signal) const { return sigismember(&m_oPrevious, signal) == 1; }

  sigset_t m_oOfWrites{};
  sigset_t m_oPrevious{};
  sigset_t m_oPending{};
};

}  // namespace VarnSupport

#endif
