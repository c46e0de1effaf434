// The system names a watch by a number, and gives the same number to all who watch one file: a
// watch is shared, and goes with the last of its listeners. A watch is added without the lock, as
// the system may look for the file for long. If another thread removes it meanwhile, the number is
// dead when it comes back: whoever adds finds that watches have gone, and begins anew.
#include "loop/FolderWatches.h"

#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <cstring>

#include "loop/LoopLock.h"
#include "loop/LoopThread.h"

namespace VarnSupport {

namespace {

// Of a buffer that is read in one turn of the loop.
constexpr int kMostReads = 16;

std::string_view nameOf(const inotify_event& event) {
  return event.len > 0 ? std::string_view(event.name) : std::string_view();
}

}  // namespace

void FolderWatches::open() {
  assert(LoopLock::isHeld() && !isOpen());
  m_oInotify = Descriptor(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
  if (!m_oInotify.isOpen())
    throwSystemError("VarnFileWatch", errno);
}

int FolderWatches::addToSystem(const char* path, std::uint32_t events) const {
  const int watch = inotify_add_watch(m_oInotify.get(), path, events | IN_MASK_ADD);
  return watch >= 0 ? watch : -errno;
}

void FolderWatches::remove(int watch, FolderListener& listener) {
  assert(LoopLock::isHeld());
  const auto found = m_mapListeners.find(watch);
  if (found == m_mapListeners.end())
    return;
  const auto entry = std::find(found->second.begin(), found->second.end(), &listener);
  if (entry != found->second.end())
    found->second.erase(entry);
  if (!found->second.empty())
    return;
  m_mapListeners.erase(found);
  removeUnused(watch);
}

void FolderWatches::removeUnused(int watch) {
  if (m_mapListeners.contains(watch))
    return;
  ++m_nChanges;
  inotify_rm_watch(m_oInotify.get(), watch);
}

void FolderWatches::read() {
  assert(LoopLock::isHeld());
  for (int turn = 0; turn < kMostReads; ++turn) {
    const ssize_t length = ::read(m_oInotify.get(), m_aBuffer.data(), m_aBuffer.size());
    if (length <= 0)
      return;
    const char* const end = m_aBuffer.data() + length;
    for (const char* event = m_aBuffer.data(); event < end;)
      event += tell(event, end);
  }
}

// A move within a folder is two events, one behind the other. Returns the length of the first.
std::size_t FolderWatches::tell(const char* begin, const char* end) {
  const auto& event = *reinterpret_cast<const inotify_event*>(begin);
  const std::size_t length = sizeof event + event.len;
  std::string_view newName;
  if ((event.mask & IN_MOVED_FROM) != 0 && begin + length < end) {
    const auto& next = *reinterpret_cast<const inotify_event*>(begin + length);
    if ((next.mask & IN_MOVED_TO) != 0 && next.cookie == event.cookie && next.wd == event.wd)
      newName = nameOf(next);
  }
  if ((event.mask & IN_Q_OVERFLOW) != 0)
    tellLoss();
  else
    tellOne(event, newName);
  return length;
}

void FolderWatches::tellLoss() {
  for (const auto& [watch, listeners] : m_mapListeners) {
    for (FolderListener* const listener : listeners)
      listener->hearLoss();
  }
}

// With IN_IGNORED the system has removed the watch, as its file or folder is no more.
void FolderWatches::tellOne(const inotify_event& event, std::string_view newName) {
  const auto found = m_mapListeners.find(event.wd);
  if (found == m_mapListeners.end()) {
    if ((event.mask & IN_IGNORED) == 0)
      ++m_nChanges;
    return;
  }
  for (FolderListener* const listener : found->second)
    listener->hear(event.wd, event.mask, nameOf(event), newName);
  if ((event.mask & IN_IGNORED) == 0)
    return;
  m_mapListeners.erase(found);
  ++m_nChanges;
}

}  // namespace VarnSupport
