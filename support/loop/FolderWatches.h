// What inotify tells, and to whom.
#ifndef SUPPORT_LOOP_FOLDERWATCHES_H
#define SUPPORT_LOOP_FOLDERWATCHES_H

#include <sys/inotify.h>

#include <array>
#include <cstdint>
#include <unordered_map>
#include <vector>

#include "runtime/Descriptor.h"

namespace VarnSupport {

// Who is told of events. Both are called under the lock of the loop.
class FolderListener {
 public:
  virtual void hear(const inotify_event& event) = 0;
  virtual void hearLoss() = 0;

 protected:
  ~FolderListener() = default;
};

// One inotify object for all: the system gives few of them to a user. A file or folder has one
// watch, whoever asks for it. Guarded by the lock of the loop.
class FolderWatches {
 public:
  FolderWatches() = default;
  FolderWatches(const FolderWatches&) = delete;
  FolderWatches& operator=(const FolderWatches&) = delete;

  // Throws VarnException.
  void open();
  void close() { m_oInotify.close(); }
  bool isOpen() const { return m_oInotify.isOpen(); }
  int descriptor() const { return m_oInotify.get(); }

  // Returns the watch, or minus the system's code. The lock is given back while the system looks
  // for the file, which may take long; what comes before this returns may not be told.
  template <typename Lock>
  int add(Lock& lock, FolderListener& listener, const char* path, std::uint32_t events) {
    while (true) {
      const std::uint64_t changes = m_nChanges;
      lock.unlock();
      const int watch = addToSystem(path, events);
      lock.lock();
      if (watch < 0)
        return watch;
      if (changes == m_nChanges) {
        addListener(watch, listener);
        return watch;
      }
      removeUnused(watch);
    }
  }
  void remove(int watch, FolderListener& listener);

  // Tells the listeners of what has come by now, on whichever thread.
  void read();

 private:
  void addListener(int watch, FolderListener& listener);
  void removeUnused(int watch);
  int addToSystem(const char* path, std::uint32_t events) const;
  void tellLoss();
  void tell(const inotify_event& event);

  Descriptor m_oInotify;
  std::unordered_map<int, std::vector<FolderListener*>> m_mapListeners;
  // Removed watches, and events of watches that had no listener: while a watch is being added,
  // another thread may remove it, and what is told of it reaches nobody. It is added again then.
  std::uint64_t m_nChanges = 0;
  alignas(inotify_event) std::array<char, 65536> m_aBuffer;
};

}  // namespace VarnSupport

#endif
