// A search reads one entry ahead: whether there is more is known before it is asked for. The folder
// stays open as long as the search exists. What follows the last separator is the pattern; what
// stands before it is taken as it is, and leads each name that is found.
#include "VarnSupport/VarnFindFile.h"

#include <unistd.h>

#include <cstddef>
#include <cstring>
#include <string_view>

#include "runtime/Cancellation.h"

namespace VarnSupport {

namespace {

constexpr std::size_t kWorkingDirectorySize = 4096;

// A working directory whose name is too long is opened by its short name.
DIR* openFolder(const std::string& folder) {
  if (!folder.empty())
    return opendir(folder.c_str());
  char workingDirectory[kWorkingDirectorySize];
  const bool known = getcwd(workingDirectory, sizeof workingDirectory) != nullptr;
  return opendir(known ? workingDirectory : ".");
}

}  // namespace

// Both separators count, as paths may come from configurations that were written for other systems.
FindFileBase::FindFileBase(const std::string& path) : m_sPath(path) {
  const std::size_t separator = path.find_last_of("\\/");
  if (separator == std::string::npos) {
    m_sPattern = path;
    return;
  }
  m_sFolder = path.substr(0, separator);
  m_sPattern = path.substr(separator + 1);
  if (m_sPattern.empty())
    m_sPattern += '*';
}

FindFileBase::~FindFileBase() = default;

FindFileImplementation::FindFileImplementation(const std::string& path) : FindFileBase(path) {
  const CancellationGuard closed;
  m_pStream = openFolder(m_sFolder);
  if (m_pStream != nullptr)
    findNext();
}

FindFileImplementation::~FindFileImplementation() {
  const QuietCancellationGuard closed;
  if (m_pStream != nullptr)
    closedir(m_pStream);
}

bool FindFileImplementation::hasMore() { return !m_bEnd; }

std::string FindFileImplementation::next() {
  const CancellationGuard closed;
  std::string found;
  if (m_bEnd)
    return found;
  const std::string_view name(m_pEntry->d_name);
  if (!m_sFolder.empty()) {
    found.reserve(m_sFolder.size() + 1 + name.size());
    found.append(m_sFolder).append(1, '/');
  }
  found.append(name);
  findNext();
  return found;
}

// Most searches are for everything: no name is matched then.
void FindFileImplementation::findNext() {
  const bool all = m_sPattern == "*";
  do {
    m_pEntry = readdir(m_pStream);
  } while (m_pEntry != nullptr && !all && !IsPatternMatch(m_sPattern.c_str(), m_pEntry->d_name));
  m_bEnd = m_pEntry == nullptr;
}

// Only the last "*" seen needs remembering: if the rest can match behind an earlier one, it can
// also match behind the later. Each mismatch lets that one take one character more; what stands
// behind the very last is the end of the name.
bool FindFileImplementation::IsPatternMatch(const char* pattern, const char* name) {
  const char* behindStar = nullptr;
  const char* restart = nullptr;
  while (*name != '\0') {
    if (*pattern == '*') {
      behindStar = ++pattern;
      restart = name;
      if (*pattern == '\0')
        return true;
      if (std::strchr(pattern, '*') == nullptr) {
        const std::size_t rest = std::strlen(pattern);
        const std::size_t left = std::strlen(name);
        if (left < rest)
          return false;
        name += left - rest;
        behindStar = nullptr;
      }
    } else if (*pattern == '?' || *pattern == *name) {
      ++pattern;
      ++name;
    } else if (behindStar != nullptr) {
      pattern = behindStar;
      name = ++restart;
    } else {
      return false;
    }
  }
  while (*pattern == '*')
    ++pattern;
  return *pattern == '\0';
}

VarnFindFile::VarnFindFile(const std::string& path) {
  const CancellationGuard closed;
  m_pImplementation = new FindFileImplementation(path);
}

VarnFindFile::~VarnFindFile() {
  const QuietCancellationGuard closed;
  delete m_pImplementation;
}

bool VarnFindFile::hasMore() { return m_pImplementation->hasMore(); }

std::string VarnFindFile::next() {
  const CancellationGuard closed;
  return m_pImplementation->next();
}

}  // namespace VarnSupport
