// A file that is read and replaced as a whole, by one process and thread at a time.
#ifndef SUPPORT_SETTINGS_FILEREPLACEMENT_H
#define SUPPORT_SETTINGS_FILEREPLACEMENT_H

#include <sys/stat.h>

#include <string>
#include <string_view>

#include "runtime/Descriptor.h"

namespace VarnSupport {

// An open folder, and the lock on it, given back with their owner.
class LockedFolder {
 public:
  explicit LockedFolder(const std::string& folder);
  LockedFolder(const LockedFolder&) = delete;
  LockedFolder& operator=(const LockedFolder&) = delete;
  ~LockedFolder();

  // Waits for others, which can be cancelled. 0, or what is wrong.
  int lock() const;
  int synchronize() const;

 private:
  Descriptor m_oFolder;
  int m_nError;
};

class FileReplacement {
 public:
  // Follows symbolic links. Waits until nobody else replaces a file of the folder. Throws
  // VarnException, as all operations.
  explicit FileReplacement(const std::string& fileName);

  // Empty for a file that does not exist.
  std::string read();
  bool exists() const { return m_bExists; }
  // Requires: read() has been called.
  void replace(std::string_view contents) const;
  [[noreturn]] void refuse(const std::string& reason) const;

 private:
  [[noreturn]] void fail(const std::string& what, int error) const;
  int writeNewFile(std::string_view contents) const;
  int fill(int descriptor, std::string_view contents) const;

  std::string m_sName;  // as it was given
  std::string m_sFile;
  LockedFolder m_oFolder;
  bool m_bRead = false;
  bool m_bExists = false;
  struct stat m_oStatus {};
  std::string m_sNewFile;
};

}  // namespace VarnSupport

#endif
