// The lock is one of flock(2): it belongs to the open file, not to the process as those of fcntl(2)
// do, so that it survives the fork in which a daemon begins, and the system frees it when the last
// descriptor of that file goes. Hence every child of a fork but a daemon closes its descriptor at
// once, lest a worker keep the lock of a daemon that has been killed.
//
// A file is removed while it is locked. Whoever has opened it before and gets the lock afterwards
// has a file without a name, sees so, and begins anew: a path has one locked file at most.
#include "VarnSupport/VarnPidFile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cassert>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <string_view>
#include <utility>

#include "runtime/Cancellation.h"
#include "runtime/Descriptor.h"
#include "runtime/Fork.h"
#include "runtime/LinkedNodes.h"
#include "runtime/System.h"
#include "runtime/WithoutWriteSignals.h"
#include "text/NumberText.h"
#include "text/TextColumns.h"

namespace VarnSupport {

namespace {

constexpr mode_t kFileMode = 0644;

// A process that has been killed keeps the lock until it has ended, and one that has just got it
// has yet to write its identifier.
constexpr int kLooks = 100;
constexpr useconds_t kBetweenLooksMicroseconds = 1000;

[[noreturn]] void refuse(const std::string& path, const std::string& reason, int code = 0) {
  throw VarnStartRefused(escapedText(path) + ' ' + reason, code);
}

[[noreturn]] void refuseForError(const std::string& path, const std::string& attempt,
                                 int error = errno) {
  refuse(path, attempt + ": " + errorText(error));
}

// The text of a PID file, without the line feed; more than an identifier has if it is anything
// else.
std::string contentsOf(int descriptor) {
  std::array<char, 32> bytes{};
  const ssize_t length = retrying([&] { return pread(descriptor, bytes.data(), bytes.size(), 0); });
  std::string text(bytes.data(), length > 0 ? static_cast<std::size_t>(length) : 0);
  if (const std::size_t end = text.find('\n'); end != std::string::npos && end + 1 == text.size())
    text.pop_back();
  return text;
}

// 0 for what is no identifier.
pid_t identifierIn(std::string_view text) { return std::max(numberIn<pid_t>(text).value_or(0), 0); }

[[noreturn]] void refuseHeld(const std::string& path, pid_t process) {
  if (process == 0)
    refuse(path, "is held by another process", -1);
  refuse(path, "is held by process " + std::to_string(process), process);
}

// 0, or what is wrong. Async-signal-safe. What an earlier process has written is longer at most,
// and is cut off last.
int writeIdentifier(int descriptor, pid_t process) {
  std::array<char, 16> text{};
  char* const end = std::to_chars(text.data(), text.data() + text.size() - 1, process).ptr;
  *end = '\n';
  const std::string_view line(text.data(), static_cast<std::size_t>(end + 1 - text.data()));
  if (lseek(descriptor, 0, SEEK_SET) != 0)
    return errno;
  if (const int error = writeWhole(descriptor, line); error != 0)
    return error;
  const auto length = static_cast<off_t>(line.size());
  return retrying([&] { return ftruncate(descriptor, length); }) == 0 ? 0 : errno;
}

bool isStillAt(const std::string& path, int descriptor) {
  struct stat here {};
  struct stat there {};
  return fstat(descriptor, &here) == 0 && lstat(path.c_str(), &there) == 0 &&
         isSameFile(here, there);
}

// Does not block at a pipe that somebody has put there.
Descriptor openFile(const std::string& path) {
  Descriptor file =
      Descriptor::open(path, O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY, kFileMode);
  if (!file.isOpen() && errno == ELOOP)
    refuse(path, "is a symbolic link");
  if (!file.isOpen())
    refuseForError(path, "cannot be opened");
  return file;
}

// The system may be busy with an open() that is about to get the number of the stream.
bool replaceStream(int stream, int file) {
  int result = -1;
  do {
    result = dup2(file, stream);
  } while (result == -1 && (errno == EINTR || errno == EBUSY));
  return result != -1;
}

}  // namespace

// What an object has in the process that has the file. All are in a list, for those who fork: the
// list's mutex is held from before a file is opened until its lock is in the list.
class PidFileState {
 public:
  explicit PidFileState(std::string path) : m_sPath(std::move(path)) {}
  PidFileState(const PidFileState&) = delete;
  PidFileState& operator=(const PidFileState&) = delete;
  ~PidFileState();

  // Locks the file at the path, whichever that is in the end.
  void lock();
  void write();

  const std::string& path() const { return m_sPath; }

  struct Fork;

 private:
  bool tryLock(Descriptor& held);

  static constinit std::mutex m_oMutex;
  static constinit PidFileState* m_pFirst;  // guarded by the mutex

  const std::string m_sPath;
  // Guarded by the mutex.
  Descriptor m_oFile;  // none in a process that does not have the file
  PidFileState* m_pNext = nullptr;
};

constinit std::mutex PidFileState::m_oMutex;
constinit PidFileState* PidFileState::m_pFirst = nullptr;

PidFileState::~PidFileState() {
  const std::lock_guard guard(m_oMutex);
  if (!m_oFile.isOpen())
    return;
  takeOut(m_pFirst, *this, &PidFileState::m_pNext);
  if (isStillAt(m_sPath, m_oFile.get()))
    unlink(m_sPath.c_str());
  // A child that another thread is just making has the descriptor, too.
  flock(m_oFile.get(), LOCK_UN);
  m_oFile.close();
}

void PidFileState::lock() {
  for (int look = 0;; ++look) {
    Descriptor held;
    if (tryLock(held))
      return;
    if (!held.isOpen())
      continue;
    if (look >= kLooks)
      refuseHeld(m_sPath, identifierIn(contentsOf(held.get())));
    usleep(kBetweenLooksMicroseconds);
  }
}

// False when the file has lost its name meanwhile, or another process has it, and then `held` is
// it.
bool PidFileState::tryLock(Descriptor& held) {
  assert(!held.isOpen());
  const std::lock_guard guard(m_oMutex);
  assert(!m_oFile.isOpen());
  Descriptor file = openFile(m_sPath);
  struct stat status {};
  if (fstat(file.get(), &status) != 0)
    refuseForError(m_sPath, "cannot be looked at");
  if (!S_ISREG(status.st_mode) || status.st_nlink > 1)
    refuse(m_sPath, "is no plain file of one name");
  if (retrying([&] { return flock(file.get(), LOCK_EX | LOCK_NB); }) != 0) {
    if (errno != EWOULDBLOCK)
      refuseForError(m_sPath, "cannot be locked");
    held = std::move(file);
    return false;
  }
  if (!isStillAt(m_sPath, file.get()))
    return false;
  const std::string text = contentsOf(file.get());
  if (!text.empty() && identifierIn(text) == 0)
    refuse(m_sPath, "contains something else than the number of a process");
  m_oFile = std::move(file);
  m_pNext = m_pFirst;
  m_pFirst = this;
  return true;
}

void PidFileState::write() {
  assert(m_oFile.isOpen());
  if (const int error = writeIdentifier(m_oFile.get(), getpid()); error != 0)
    refuseForError(m_sPath, "cannot be written", error);
}

struct PidFileState::Fork {
  static void prepare() { m_oMutex.lock(); }
  // Async-signal-safe, as the child may have lost other threads.
  static void release(ForkSide side) {
    if (side == ForkSide::CHILD && ForkToGoOn::innermost() != nullptr)
      takeOver();
    else if (side == ForkSide::CHILD)
      giveUp();
    m_oMutex.unlock();
  }

 private:
  static void takeOver() {
    for (const PidFileState* state = m_pFirst; state != nullptr; state = state->m_pNext)
      static_cast<void>(writeIdentifier(state->m_oFile.get(), getpid()));
  }
  static void giveUp() {
    for (; m_pFirst != nullptr; m_pFirst = m_pFirst->m_pNext)
      m_pFirst->m_oFile.close();
  }
};

constinit const ForkPart pidFileFork{&PidFileState::Fork::prepare, &PidFileState::Fork::release};

VarnStartRefused::~VarnStartRefused() = default;

VarnPidFile::VarnPidFile(const std::string& path) {
  const CancellationGuard closed;
  const NoCancellation taking;
  std::error_code error;
  const std::string absolute = std::filesystem::absolute(path, error).string();
  if (error)
    refuse(path, std::string("has no folder: ") + errorText(error.value()));
  m_pState = std::make_unique<PidFileState>(absolute);
  m_pState->lock();
  m_pState->write();
}

VarnPidFile::~VarnPidFile() {
  const QuietCancellationGuard closed;
  const NoCancellation removing;
  m_pState.reset();
}

const std::string& VarnPidFile::path() const { return m_pState->path(); }

bool VarnDetachStreams(mode_t mask) {
  const CancellationGuard closed;
  const NoCancellation detaching;
  const int nothing = retrying([] { return open("/dev/null", O_RDWR | O_CLOEXEC); });
  if (nothing < 0)
    return false;
  std::fflush(stdout);
  bool isDetached = true;
  for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (stream == nothing)
      fcntl(nothing, F_SETFD, 0);
    else
      isDetached &= replaceStream(stream, nothing);
  }
  if (nothing > STDERR_FILENO)
    close(nothing);
  umask(mask);
  return isDetached;
}

}  // namespace VarnSupport
