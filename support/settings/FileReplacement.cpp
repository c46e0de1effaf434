// The new contents get a file of a fixed name: under the lock of the folder nobody else has one,
// and what a killed process has left there goes with the next replacement. Nothing between the lock
// and the end of a replacement can be cancelled.
//
// The file is synchronized before it gets its name, and the folder after: so a machine that loses
// its power has the old contents or the new ones. Owner and rights go over to the new file; a link
// stays one, as the file behind it is replaced.
#include "settings/FileReplacement.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <array>
#include <cassert>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <system_error>

#include "VarnSupport/VarnException.h"
#include "runtime/Cancellation.h"
#include "runtime/System.h"
#include "runtime/WithoutWriteSignals.h"
#include "text/PropertyFile.h"
#include "text/TextColumns.h"

namespace VarnSupport {

namespace {

namespace fs = std::filesystem;

constexpr mode_t kModeOfNewFiles = 0644;
constexpr mode_t kModeMeanwhile = 0600;
constexpr timespec kPause{0, 1000000};
constexpr std::size_t kBlock = 65536;

// What a name leads to; a name that leads nowhere stays.
std::string behindLinks(const std::string& fileName) {
  std::error_code error;
  const fs::path found = fs::canonical(fileName, error);
  return error || hasNul(fileName) ? fs::absolute(fileName, error).string() : found.string();
}

std::string folderOf(const std::string& file) { return fs::path(file).parent_path().string(); }

bool isLink(const std::string& file) {
  std::error_code error;
  return fs::is_symlink(fs::symlink_status(file, error));
}

int resultOf(int returned) { return returned == 0 ? 0 : errno; }

}  // namespace

LockedFolder::LockedFolder(const std::string& folder)
    : m_oFolder(Descriptor::open(folder, O_RDONLY | O_DIRECTORY)),
      m_nError(m_oFolder.isOpen() ? 0 : errno) {}

// A child of a fork may have the descriptor, too: the lock would stay with it.
LockedFolder::~LockedFolder() {
  if (m_oFolder.isOpen())
    flock(m_oFolder.get(), LOCK_UN);
}

// The system's own wait for such a lock cannot be cancelled.
int LockedFolder::lock() const {
  int error = m_nError;
  while (error == 0 && flock(m_oFolder.get(), LOCK_EX | LOCK_NB) != 0) {
    if (errno != EWOULDBLOCK && errno != EINTR) {
      error = errno;
    } else {
      const BlockingCall cancellable;
      nanosleep(&kPause, nullptr);
    }
  }
  return error;
}

// Some file systems have nothing to synchronize in folders.
int LockedFolder::synchronize() const {
  const int error = resultOf(retrying([&] { return fsync(m_oFolder.get()); }));
  return error == EINVAL || error == ENOTSUP ? 0 : error;
}

FileReplacement::FileReplacement(const std::string& fileName)
    : m_sName(fileName),
      m_sFile(behindLinks(fileName)),
      m_oFolder(folderOf(m_sFile)),
      m_sNewFile(folderOf(m_sFile) + "/." + fs::path(m_sFile).filename().string() + ".new") {
  if (const int error = m_oFolder.lock(); error != 0)
    fail("its folder cannot be locked", error);
}

std::string FileReplacement::read() {
  m_bRead = true;
  std::string contents;
  CharacterSource<char> source(m_sFile, O_NONBLOCK | O_NOCTTY);
  if (source.error() == ENOENT && !isLink(m_sFile))
    return contents;
  if (source.error() != 0 || fstat(source.file().get(), &m_oStatus) != 0)
    fail("cannot be read", source.error() != 0 ? source.error() : errno);
  if (!source.file().isRegular())
    refuse("is not a regular file");
  m_bExists = true;
  std::array<char, kBlock> block;
  while (const std::size_t count = source.read(block.data(), block.size()))
    contents.append(block.data(), count);
  if (source.error() != 0)
    fail("cannot be read", source.error());
  return contents;
}

void FileReplacement::replace(std::string_view contents) const {
  assert(m_bRead);
  const NoCancellation replacing;
  int error = writeNewFile(contents);
  if (error == 0)
    error = resultOf(rename(m_sNewFile.c_str(), m_sFile.c_str()));
  if (error != 0) {
    unlink(m_sNewFile.c_str());
    fail("cannot be replaced", error);
  }
  error = m_oFolder.synchronize();
  if (error != 0)
    fail("is replaced, but its folder cannot be synchronized", error);
}

// Until it has the rights of the old file, the new one is its writer's alone.
int FileReplacement::writeNewFile(std::string_view contents) const {
  assert(m_bRead && NoCancellation::isInForce());
  unlink(m_sNewFile.c_str());
  const mode_t mode = m_bExists ? kModeMeanwhile : kModeOfNewFiles;
  Descriptor file = Descriptor::open(m_sNewFile, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, mode);
  if (!file.isOpen())
    return errno;
  const int error = fill(file.get(), contents);
  const int closing = resultOf(close(file.release()));
  return error != 0 ? error : closing == EINTR ? 0 : closing;
}

// Rights of the owner and group are worth nothing on a file of another owner and group.
int FileReplacement::fill(int descriptor, std::string_view contents) const {
  if (const int error = writeWhole(descriptor, contents); error != 0)
    return error;
  if (m_bExists) {
    mode_t mode = m_oStatus.st_mode & 07777;
    if (fchown(descriptor, m_oStatus.st_uid, m_oStatus.st_gid) != 0) {
      mode &= 0777;
      if (fchown(descriptor, static_cast<uid_t>(-1), m_oStatus.st_gid) != 0)
        mode &= ~static_cast<mode_t>(070);
    }
    if (fchmod(descriptor, mode) != 0)
      return errno;
  }
  return resultOf(retrying([&] { return fsync(descriptor); }));
}

void FileReplacement::refuse(const std::string& reason) const {
  throw VarnException(escapedText(m_sName) + ": " + reason, 0);
}

void FileReplacement::fail(const std::string& what, int error) const {
  refuse(what + ": " + errorText(error));
}

}  // namespace VarnSupport
