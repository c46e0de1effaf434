// The system names a watch by a number, and gives the same number to all who watch one file: a
// watch is shared, and goes with the last of its listeners. A watch is added without the lock, as
// the system may look for the file for long. If another thread removes it meanwhile, the number is
// dead when it comes back: whoever adds finds that watches have gone, and begins anew.
#include "loop/FolderWatches.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <new>

#include "loop/LoopLock.h"
#include "loop/LoopThread.h"

namespace VarnSupport {

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

void FolderWatches::addListener(int watch, FolderListener& listener) {
  assert(LoopLock::isHeld() && watch >= 0);
  try {
    m_mapListeners[watch].push_back(&listener);
  } catch (const std::bad_alloc&) {
    removeUnused(watch);
    throw;
  }
}

void FolderWatches::remove(int watch, FolderListener& listener) {
  assert(LoopLock::isHeld());
  const auto found = m_mapListeners.find(watch);
  if (found == m_mapListeners.end())
    return;
  const auto entry = std::find(found->second.begin(), found->second.end(), &listener);
  if (entry != found->second.end())
    found->second.erase(entry);
  removeUnused(watch);
}

// The number may be another file's from now on, which counts as a change.
void FolderWatches::removeUnused(int watch) {
  assert(LoopLock::isHeld() && watch >= 0);
  const auto found = m_mapListeners.find(watch);
  if (found != m_mapListeners.end() && !found->second.empty())
    return;
  if (found != m_mapListeners.end())
    m_mapListeners.erase(found);
  ++m_nChanges;
  inotify_rm_watch(m_oInotify.get(), watch);
}

// What comes while this reads may be left for the next time, so that it ends.
void FolderWatches::read() {
  assert(LoopLock::isHeld());
  int left = 0;
  if (ioctl(m_oInotify.get(), FIONREAD, &left) != 0)
    return;
  while (left > 0) {
    const ssize_t length = ::read(m_oInotify.get(), m_aBuffer.data(), m_aBuffer.size());
    if (length <= 0)
      return;
    left -= static_cast<int>(length);
    const char* const end = m_aBuffer.data() + length;
    for (const char* next = m_aBuffer.data(); next < end;) {
      const auto& event = *reinterpret_cast<const inotify_event*>(next);
      next += sizeof event + event.len;
      if ((event.mask & IN_Q_OVERFLOW) != 0)
        tellLoss();
      else
        tell(event);
    }
  }
}

void FolderWatches::tellLoss() {
  for (const auto& [watch, listeners] : m_mapListeners) {
    for (FolderListener* const listener : listeners)
      listener->hearLoss();
  }
}

// With IN_IGNORED the system has removed the watch, as its file or folder is no more.
void FolderWatches::tell(const inotify_event& event) {
  const auto found = m_mapListeners.find(event.wd);
  if (found == m_mapListeners.end()) {
    if ((event.mask & IN_IGNORED) == 0)
      ++m_nChanges;
    return;
  }
  for (FolderListener* const listener : found->second)
    listener->hear(event);
  if ((event.mask & IN_IGNORED) == 0)
    return;
  m_mapListeners.erase(found);
  ++m_nChanges;
}

}  // namespace VarnSupport
