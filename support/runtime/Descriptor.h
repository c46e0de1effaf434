// Who owns a file descriptor.
#ifndef SUPPORT_RUNTIME_DESCRIPTOR_H
#define SUPPORT_RUNTIME_DESCRIPTOR_H

#include <fcntl.h>
#include <unistd.h>

#include <cassert>
#include <cerrno>
#include <string>
#include <utility>

#include "runtime/Cancellation.h"
#include "runtime/System.h"

namespace VarnSupport {

// Closes its descriptor, which is none of a standard stream: those are free in a process that has
// closed them, and the program may open, or write to, them later.
class Descriptor {
 public:
  // As open(), closed on exec. Is no cancellation point: a thread that is cancelled inside may lose
  // the number.
  static Descriptor open(const char* path, int flags, mode_t mode = 0) {
    const NoCancellation whole;
    return Descriptor(retrying([&] { return ::open(path, flags | O_CLOEXEC, mode); }));
  }
  // A path with a NUL is refused.
  static Descriptor open(const std::string& path, int flags, mode_t mode = 0) {
    if (!hasNul(path))
      return open(path.c_str(), flags, mode);
    errno = EINVAL;
    return {};
  }

  Descriptor() = default;
  // Takes over what a call of the system has returned, under another number if need be. Not open,
  // with errno, when the call has failed or there is no other number. Requires: close-on-exec.
  explicit Descriptor(int number) : m_nNumber(number) {
    assert(number < 0 || (fcntl(number, F_GETFD) & FD_CLOEXEC) != 0);
    if (number < 0 || number > STDERR_FILENO)
      return;
    const NoCancellation whole;
    m_nNumber = fcntl(number, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    const int error = errno;
    ::close(number);
    errno = error;
  }
  Descriptor(Descriptor&& source) noexcept : m_nNumber(source.release()) {}
  Descriptor& operator=(Descriptor&& source) noexcept {
    std::swap(m_nNumber, source.m_nNumber);
    return *this;
  }
  ~Descriptor() { close(); }

  bool isOpen() const { return m_nNumber >= 0; }
  int get() const { return m_nNumber; }
  // Both can be called in the child of a fork. close() keeps errno.
  void close() {
    if (!isOpen())
      return;
    const NoCancellation whole;
    const int error = errno;
    ::close(release());
    errno = error;
  }
  int release() { return std::exchange(m_nNumber, -1); }

 private:
  int m_nNumber = -1;
};

// The ends of a pipe. Neither is open, with errno, when the system refuses.
struct Pipe {
  static Pipe open() {
    int ends[2];
    Pipe pipe;
    if (pipe2(ends, O_CLOEXEC) != 0)
      return pipe;
    pipe.reading = Descriptor(ends[0]);
    const int error = errno;
    pipe.writing = Descriptor(ends[1]);
    if (pipe.reading.isOpen() && pipe.writing.isOpen())
      return pipe;
    if (!pipe.reading.isOpen())
      errno = error;
    pipe.close();
    return pipe;
  }

  bool isOpen() const { return reading.isOpen(); }
  void close() {
    reading.close();
    writing.close();
  }

  Descriptor reading;
  Descriptor writing;
};

}  // namespace VarnSupport

#endif
