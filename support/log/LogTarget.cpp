// A target can take a part of a record: a full disk does, and a limit of the size. That record
// stays torn, and what comes next is put on a line of its own by writing the line feed which every
// record begins with but which is left out otherwise. Nothing is buffered, so that an end of the
// process loses nothing and a copy of it writes nothing twice.
#include "log/LogTarget.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cassert>
#include <cerrno>
#include <cstddef>
#include <optional>
#include <utility>

#include "runtime/Descriptor.h"
#include "runtime/System.h"
#include "runtime/WithoutWriteSignals.h"

namespace VarnSupport {

namespace {

// All logs share standard output. Changed under the lock of the stream.
constinit std::atomic<bool> outputTorn{false};

// Whether the file ends in the middle of a line, as one that was full does.
bool isTorn(int descriptor, off_t size) {
  if (size == 0)
    return false;
  const std::string name = "/proc/self/fd/" + std::to_string(descriptor);
  const Descriptor reader = Descriptor::open(name, O_RDONLY);
  char last = '\n';
  return reader.isOpen() && pread(reader.get(), &last, 1, size - 1) == 1 && last != '\n';
}

using Pieces = std::array<iovec, 257>;

// The records that are yet to be written, the first perhaps in part.
class RecordsLeft {
 public:
  RecordsLeft(const std::string_view* records, std::size_t count, bool& torn)
      : m_pRecords(records), m_nCount(count), m_bTorn(torn) {}

  bool isEmpty() const { return m_nDone == m_nCount; }
  // How many are written in whole.
  std::size_t done() const { return m_nDone; }

  // The line feed that ends a torn line, and as many records as there is room for. Returns how many
  // pieces these are.
  std::size_t gather(Pieces& pieces) const {
    static char lineFeed = '\n';
    std::size_t used = 0;
    if (hasLead())
      pieces[used++] = {&lineFeed, 1};
    for (std::size_t next = m_nDone, from = m_nOffset; next < m_nCount && used < pieces.size();
         ++next) {
      const std::string_view record = m_pRecords[next].substr(std::exchange(from, 0));
      pieces[used++] = {const_cast<char*>(record.data()), record.size()};
    }
    return used;
  }

  // Takes off what was written of the pieces. Requires: it is more than nothing.
  void take(std::size_t written) {
    assert(written > 0);
    if (hasLead()) {
      m_bTorn = false;
      --written;
    }
    m_nOffset += written;
    for (; m_nDone < m_nCount && m_nOffset >= m_pRecords[m_nDone].size(); ++m_nDone) {
      m_nOffset -= m_pRecords[m_nDone].size();
      m_bTorn = false;
    }
    if (m_nOffset > 0)
      m_bTorn = m_pRecords[m_nDone][m_nOffset - 1] != '\n';
  }

 private:
  bool hasLead() const { return m_bTorn && m_nOffset == 0; }

  const std::string_view* const m_pRecords;
  const std::size_t m_nCount;
  std::size_t m_nDone = 0;
  std::size_t m_nOffset = 0;  // what is written of the next
  bool& m_bTorn;              // the target's last line has no end
};

}  // namespace

std::FILE* openForRecords(const std::string& name) {
  Descriptor descriptor = Descriptor::open(name.c_str(),  // which ends at a NUL
                                           O_WRONLY | O_CREAT | O_TRUNC | O_APPEND, 0644);
  if (!descriptor.isOpen())
    return nullptr;
  std::FILE* const file = fdopen(descriptor.get(), "w");
  if (file != nullptr)
    descriptor.release();
  return file;
}

// A name that leads elsewhere by a symbolic link is refused, as logs of daemons are opened with all
// rights in folders that others may write to. Opening must not wait either, as that of a pipe
// without a reader does.
AppendedFile openForAppending(const std::string& name) {
  Descriptor file = Descriptor::open(
      name, O_WRONLY | O_CREAT | O_APPEND | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY, 0640);
  if (!file.isOpen())  // ENXIO: a pipe without a reader, or a socket
    return {-1, errno == ENXIO ? kNotForRecords : errno, false};
  struct stat status {};
  if (fstat(file.get(), &status) != 0 || fcntl(file.get(), F_SETFL, O_APPEND) != 0)
    return {-1, errno, false};
  if (!S_ISREG(status.st_mode) && !S_ISCHR(status.st_mode))
    return {-1, kNotForRecords, false};
  const bool torn = S_ISREG(status.st_mode) && isTorn(file.get(), status.st_size);
  return {file.release(), 0, torn};
}

// Only a regular file without a limit of its size never raises a signal.
bool mayWriteRaise(int descriptor) {
  struct stat status {};
  rlimit limit{};
  return fstat(descriptor, &status) != 0 || !S_ISREG(status.st_mode) ||
         getrlimit(RLIMIT_FSIZE, &limit) != 0 || limit.rlim_cur != RLIM_INFINITY;
}

std::size_t writeRecords(int descriptor, const std::string_view* records, std::size_t count,
                         bool isQuiet, bool& torn) {
  assert(descriptor >= 0 && count > 0);
  Pieces pieces;
  std::optional<WithoutWriteSignals> quiet;
  if (isQuiet)
    quiet.emplace();
  RecordsLeft left(records, count, torn);
  while (!left.isEmpty()) {
    const std::size_t used = left.gather(pieces);
    const ssize_t written = retrying([&] {
      return used == 1 ? write(descriptor, pieces[0].iov_base, pieces[0].iov_len)
                       : writev(descriptor, pieces.data(), static_cast<int>(used));
    });
    if (written <= 0) {
      if (quiet)
        quiet->take(errno);
      break;
    }
    left.take(static_cast<std::size_t>(written));
    if (!left.isEmpty() && !quiet)
      quiet.emplace();
  }
  return left.done();
}

void writeLine(int descriptor, std::string_view line, bool& torn) {
  assert(line.size() > 1 && line.front() == '\n' && line.back() == '\n');
  std::size_t done = torn ? 0 : 1;
  while (done < line.size()) {
    const ssize_t written =
        retrying([&] { return write(descriptor, line.data() + done, line.size() - done); });
    if (written <= 0)
      return;
    done += static_cast<std::size_t>(written);
    torn = line[done - 1] != '\n';
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
