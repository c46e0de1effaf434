// Writing without the signals that end a process: of a pipe that nobody reads, and of a limit for
// the size of files.
#ifndef SUPPORT_RUNTIME_WITHOUTWRITESIGNALS_H
#define SUPPORT_RUNTIME_WITHOUTWRITESIGNALS_H

#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <ctime>
#include <string_view>

#include "runtime/SignalSet.h"
#include "runtime/System.h"

namespace VarnSupport {

// Keeps the signals by which a write tells of its failure from the calling thread. One that was
// sent before, while the thread had it blocked, stays.
class WithoutWriteSignals {
 public:
  WithoutWriteSignals() {
    const sigset_t ofWrites = signalSet({SIGPIPE, SIGXFSZ});
    pthread_sigmask(SIG_BLOCK, &ofWrites, &m_oPrevious);
    if (isBlocked(SIGPIPE) || isBlocked(SIGXFSZ))
      sigpending(&m_oPending);
  }
  WithoutWriteSignals(const WithoutWriteSignals&) = delete;
  WithoutWriteSignals& operator=(const WithoutWriteSignals&) = delete;
  ~WithoutWriteSignals() { pthread_sigmask(SIG_SETMASK, &m_oPrevious, nullptr); }

  // After a failed write: takes back the signal that it has raised. The platform's function for
  // that is a cancellation point, and the signal would end a process whose thread left from here.
  void take(int error) const {
    const int signal = error == EPIPE ? SIGPIPE : SIGXFSZ;
    if ((error != EPIPE && error != EFBIG) ||
        (isBlocked(signal) && sigismember(&m_oPending, signal) == 1))
      return;
    const sigset_t raised = signalSet({signal});
    const timespec atOnce{};
    retrying([&] {
      return syscall(SYS_rt_sigtimedwait, &raised, nullptr, &atOnce, std::size_t{_NSIG / 8});
    });
    errno = error;
  }

 private:
  bool isBlocked(int signal) const { return sigismember(&m_oPrevious, signal) == 1; }

  sigset_t m_oPrevious{};
  sigset_t m_oPending{};
};

// Writes all bytes, and raises no signal. 0, or what is wrong: the error behind a write that was
// cut short, too. Async-signal-safe, and a cancellation point.
inline int writeWhole(int descriptor, std::string_view bytes) {
  const WithoutWriteSignals quiet;
  while (!bytes.empty()) {
    const ssize_t count = retrying([&] { return write(descriptor, bytes.data(), bytes.size()); });
    if (count <= 0) {
      const int error = count < 0 ? errno : EIO;
      quiet.take(error);
      return error;
    }
    bytes.remove_prefix(static_cast<std::size_t>(count));
  }
  return 0;
}

}  // namespace VarnSupport

#endif
