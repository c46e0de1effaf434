// The descriptors that the loop waits for.
#ifndef SUPPORT_LOOP_DESCRIPTORSET_H
#define SUPPORT_LOOP_DESCRIPTORSET_H

#include <sys/epoll.h>

#include <cstdint>
#include <unordered_map>
#include <utility>
#include <vector>

#include "runtime/Descriptor.h"

namespace VarnSupport {

// What waits for a descriptor. Guarded by the lock of the loop.
class DescriptorListener {
 public:
  // `isOneShot`: the system tells once, until the listener is released.
  DescriptorListener(int descriptor, bool isEdge, bool isOneShot)
      : m_nDescriptor(descriptor), m_bEdge(isEdge), m_bOneShot(isOneShot) {}
  DescriptorListener(const DescriptorListener&) = delete;
  DescriptorListener& operator=(const DescriptorListener&) = delete;

  int descriptor() const { return m_nDescriptor; }
  bool isEdge() const { return m_bEdge; }
  bool isOneShot() const { return m_bOneShot; }

  // Both in the system's words. False when the events that have come are not for the listener.
  virtual unsigned wanted() const = 0;
  virtual bool hear(unsigned events) = 0;

  // For the set: its descriptor is not looked at while it is busy. Returns what it was.
  bool setBusy(bool isBusy) { return std::exchange(m_bBusy, isBusy); }

 protected:
  ~DescriptorListener() = default;

 private:
  const int m_nDescriptor;
  const bool m_bEdge;
  const bool m_bOneShot;
  bool m_bBusy = false;
};

// The descriptors of an epoll object, each with those who wait for it. Guarded by the lock
// of the loop.
class DescriptorSet {
 public:
  DescriptorSet() = default;
  DescriptorSet(const DescriptorSet&) = delete;
  DescriptorSet& operator=(const DescriptorSet&) = delete;

  // Throws VarnException.
  void open();
  void closeInChild();
  int epoll() const { return m_oEpoll.get(); }
  int wakeDescriptor() const { return m_oWake.get(); }
  // A descriptor of the loop's own, under the key that is told then. False, with errno, when that
  // fails.
  [[nodiscard]] bool addOwn(int descriptor, std::uint64_t key);

  // Throws VarnException, and changes nothing then.
  void add(DescriptorListener& listener);
  void remove(DescriptorListener& listener);
  // What the listener wants was changed.
  void update(DescriptorListener& listener);
  // Its call has ended.
  void release(DescriptorListener& listener);
  // Its call is about to begin. False when its descriptor was closed: then it is left alone.
  bool isStillOf(const DescriptorListener& listener);

  // Has those hear for whom an event has come.
  void deliver(const epoll_event& event);
  // Makes the epoll object anew if it holds what can be taken out of it in no other way, or
  // `isBroken`. False when the system refuses: then it has to be tried again.
  bool repair(bool isBroken);
  // The descriptors that were found to be closed since the last time.
  std::vector<int> takeClosed() { return std::exchange(m_vClosed, {}); }

  static constexpr std::uint64_t kWakeKey = ~std::uint64_t{0};
  static constexpr std::uint64_t kFoldersKey = kWakeKey - 1;

 private:
  struct Entry {
    std::vector<DescriptorListener*> listeners;
    std::uint32_t number = 0;  // tells it from earlier ones of the same descriptor
    int busy = 0;              // listeners that are
  };
  using Entries = std::unordered_map<int, Entry>;

  bool addWake();
  int control(int operation, int descriptor, unsigned events, std::uint64_t key) const;
  bool isStillThere(int descriptor) const;
  int arm(int operation, int descriptor, const Entry& entry) const;
  void rearm(Entries::iterator entry);
  Entries::iterator find(const DescriptorListener& listener);
  template <typename Test>
  void keepThose(Test test);
  void noteClosed(Entries::iterator entry);
  void suspect(std::uint64_t key);

  Descriptor m_oEpoll;
  Descriptor m_oWake;
  int m_nFolders = -1;
  Entries m_mapEntries;
  std::uint32_t m_nEntries = 0;
  std::vector<std::uint64_t> m_vSuspects;  // keys of events for nobody
  bool m_bMustRepair = false;              // registrations are missing, or cannot be taken out
  std::vector<int> m_vClosed;
};

}  // namespace VarnSupport

#endif
