// A target can take a part of a record: a full disk does, and a limit of the size. That record
// stays torn, and what comes next is put on a line of its own by writing the line feed which every
// record begins with but which is left out otherwise. Nothing is buffered, so that an end of the
// process loses nothing and a copy of it writes nothing twice.
#include "log/LogTarget.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cassert>
#include <cerrno>
#include <cstddef>

namespace VarnSupport {

namespace {

// All logs share standard output. Changed under the lock of the stream.
constinit std::atomic<bool> outputTorn{false};

// Gives the file another descriptor if it has that of a standard stream; -1 if there is no other.
int leaveStandardStreams(int descriptor) {
  if (descriptor < 0 || descriptor > STDERR_FILENO)
    return descriptor;
  const int moved = fcntl(descriptor, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  const int error = errno;
  close(descriptor);
  errno = error;
  return moved;
}

}  // namespace

std::FILE* openForRecords(const std::string& name) {
  const int descriptor = leaveStandardStreams(
      open(name.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0644));
  if (descriptor < 0)
    return nullptr;
  std::FILE* const file = fdopen(descriptor, "w");
  if (file == nullptr) {
    const int error = errno;
    close(descriptor);
    errno = error;
  }
  return file;
}

void writeLine(int descriptor, std::string_view line, bool& torn) {
  assert(line.size() > 1 && line.front() == '\n' && line.back() == '\n');
  std::size_t done = torn ? 0 : 1;
  while (done < line.size()) {
    const ssize_t written = ::write(descriptor, line.data() + done, line.size() - done);
    if (written > 0) {
      done += static_cast<std::size_t>(written);
      torn = line[done - 1] != '\n';
    } else if (written == 0 || errno != EINTR) {
      break;
    }
  }
}

void writeLineToStandardOutput(std::string_view line) {
  flockfile(stdout);
  fflush_unlocked(stdout);
  const int descriptor = fileno_unlocked(stdout);
  if (descriptor >= 0) {
    bool torn = outputTorn.load(std::memory_order_relaxed);
    writeLine(descriptor, line, torn);
    outputTorn.store(torn, std::memory_order_relaxed);
  } else {
    line.remove_prefix(1);
    fwrite_unlocked(line.data(), 1, line.size(), stdout);
    fflush_unlocked(stdout);
  }
  funlockfile(stdout);
}

}  // namespace VarnSupport
