// The entries of one folder whose names match a wildcard pattern, one at a time.
//
//   for (VarnFindFile search("/var/log/*.log"); search.hasMore();)
//     read(search.next());
//
// The folder is walked once, in the system's order; a new object starts a new search. An object
// belongs to one thread at a time. A folder that cannot be opened has no entries.
#ifndef VARNSUPPORT_VARNFINDFILE_H
#define VARNSUPPORT_VARNFINDFILE_H

#include <dirent.h>

#include <string>

#include "VarnSupport/VarnExport.h"

namespace VarnSupport {

// The state of a search, apart from the way in which a folder is read.
class VSUPT_EXPORT FindFileBase {
 public:
  // Splits the path at its last "/" or "\"; an empty pattern behind one becomes "*".
  explicit FindFileBase(const std::string& path);
  FindFileBase(const FindFileBase&) = delete;
  FindFileBase& operator=(const FindFileBase&) = delete;
  virtual ~FindFileBase();

  virtual bool hasMore() = 0;
  virtual std::string next() = 0;

 protected:
  std::string m_sPath;
  std::string m_sFolder;  // empty when the path has no separator
  std::string m_sPattern;
  bool m_bEnd = true;
};

// A search over a folder as the system reads it; the folder stays open for as long as it lives.
class VSUPT_EXPORT FindFileImplementation : public FindFileBase {
 public:
  // Finds the first entry. Without a folder, also for a path like "/x*", the working directory is
  // read; callers rely on it.
  explicit FindFileImplementation(const std::string& path);
  ~FindFileImplementation() override;

  bool hasMore() override;
  std::string next() override;

  // Whether a whole name matches: "?" is any one character, "*" any run of them, everything else is
  // itself. There are no escapes, and a leading dot is nothing special.
  static bool IsPatternMatch(const char* pattern, const char* name);

 private:
  void findNext();

  DIR* m_pStream;              // null when the folder cannot be read
  dirent* m_pEntry = nullptr;  // what next() will return; null at the end
};

// A search. The path's last element is the pattern: "*" and "?" are wildcards, and "." and ".." are
// entries like others. "/x*" reads the working directory, and "//x*" the root.
class VSUPT_EXPORT VarnFindFile {
 public:
  explicit VarnFindFile(const std::string& path);
  VarnFindFile(const VarnFindFile&) = delete;
  VarnFindFile& operator=(const VarnFindFile&) = delete;
  ~VarnFindFile();

  bool hasMore();
  // The next entry, behind the folder and "/" as the path gave it; empty at the end.
  std::string next();

 private:
  FindFileImplementation* m_pImplementation;
};

}  // namespace VarnSupport

#endif
