// Which file a name stands for.
#ifndef SUPPORT_LOOP_FILESTATUS_H
#define SUPPORT_LOOP_FILESTATUS_H

#include <cstdint>
#include <set>
#include <string>

namespace VarnSupport {

struct FileStatus {
  // Symbolic links are followed.
  static FileStatus of(const std::string& path);

  // Whether both are the same file. A file system gives the number of a file that is gone to the
  // next one, and not each can tell when a file was made: `isSure` says whether this one can.
  bool isSameFile(const FileStatus& other) const {
    return device == other.device && number == other.number && birth == other.birth;
  }
  bool isSure() const { return birth != 0; }

  bool exists = false;
  bool isLink = false;  // the name is a symbolic link, wherever it leads to
  bool isFolder = false;
  std::uint64_t device = 0;
  std::uint64_t number = 0;
  std::int64_t birth = 0;  // in nanoseconds; 0 when the file system has none
  std::uint64_t size = 0;
  std::int64_t changed = 0;  // in nanoseconds
};

// Returns when the changes of names in a folder that can be seen have been told by the system,
// which does so at their end, under the lock that reading the folder takes. False when it is short
// of descriptors or of memory for that.
bool awaitChangesIn(const std::string& folder);

// Adds the names in a folder that match a wildcard, without "." and "..". False when there may be
// more of them, as the folder could not be read to its end. One that is not there has none.
bool addNamesIn(const std::string& folder, const std::string& wildcard,
                std::set<std::string>& names);

}  // namespace VarnSupport

#endif
