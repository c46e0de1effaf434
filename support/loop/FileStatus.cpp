// What is compared to tell one file from another of the same name: device and number, and the birth
// where the file system has one, as the number of a file that is gone is soon given to another.
// Times count in nanoseconds, as writers of logs are faster than a second.
#include "loop/FileStatus.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <memory>
#include <string_view>

#include "VarnSupport/VarnFindFile.h"
#include "runtime/Descriptor.h"

namespace VarnSupport {

namespace {

using Folder = std::unique_ptr<DIR, int (*)(DIR*)>;

std::int64_t nanosecondsOf(const statx_timestamp& time) {
  return std::int64_t{time.tv_sec} * 1000000000 + time.tv_nsec;
}

}  // namespace

// A link counts as what it leads to, and as nothing when it leads nowhere.
FileStatus FileStatus::of(const std::string& path) {
  FileStatus status;
  struct statx found {};
  constexpr unsigned wanted = STATX_BASIC_STATS | STATX_BTIME;
  if (statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT, wanted, &found) != 0)
    return status;
  status.isLink = S_ISLNK(found.stx_mode);
  if (status.isLink && statx(AT_FDCWD, path.c_str(), 0, wanted, &found) != 0)
    return status;
  status.exists = true;
  status.isFolder = S_ISDIR(found.stx_mode);
  status.device = std::uint64_t{found.stx_dev_major} << 32 | found.stx_dev_minor;
  status.number = found.stx_ino;
  status.birth = (found.stx_mask & STATX_BTIME) != 0 ? nanosecondsOf(found.stx_btime) : 0;
  status.size = found.stx_size;
  status.changed = nanosecondsOf(found.stx_mtime);
  return status;
}

// One entry is enough: the lock is taken for the first, and given back before the call returns. A
// stream would read some hundreds of them.
bool awaitChangesIn(const std::string& folder) {
  const Descriptor opened = Descriptor::open(folder, O_RDONLY | O_DIRECTORY);
  if (!opened.isOpen())
    return errno != EMFILE && errno != ENFILE && errno != ENOMEM;
  alignas(std::uint64_t) std::array<char, 512> entry;
  static_cast<void>(syscall(SYS_getdents64, opened.get(), entry.data(), entry.size()));
  return true;
}

bool addNamesIn(const std::string& folder, const std::string& wildcard,
                std::set<std::string>& names) {
  const Folder stream(opendir(folder.c_str()), closedir);
  if (stream == nullptr)
    return errno == ENOENT || errno == ENOTDIR;
  while (true) {
    errno = 0;
    const dirent* const entry = readdir(stream.get());
    if (entry == nullptr)
      return errno == 0;
    const std::string_view name(entry->d_name);
    if (name != "." && name != ".." &&
        FindFileImplementation::IsPatternMatch(wildcard.c_str(), entry->d_name))
      names.emplace(name);
  }
}

}  // namespace VarnSupport
