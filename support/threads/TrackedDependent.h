// Dependents that live on a waiter's stack.
#ifndef SUPPORT_THREADS_TRACKEDDEPENDENT_H
#define SUPPORT_THREADS_TRACKEDDEPENDENT_H

#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "VarnSupport/VarnCollaborator.h"

namespace VarnSupport {

// A dependent whose calls are counted, so that its owner can remove it everywhere, wait until the
// last call has returned, and go. It is called once for each time that it was added.
class TrackedDependent : public VarnDependent {
 public:
  TrackedDependent(const TrackedDependent&) = delete;
  TrackedDependent& operator=(const TrackedDependent&) = delete;
  // Requires: removed from every collaborator, and awaitCalls() has returned.
  ~TrackedDependent() override;

  // Adds the dependent, in place of addDependent().
  void addTo(VarnCollaborator& collaborator);

  // Whether there is any: walks need not look for one otherwise.
  static bool exist() { return m_nCount.load(std::memory_order_relaxed) > 0; }

  // The entry of a tracked dependent in a list of dependents: its address with the lowest bit set.
  static VarnDependent* entryOf(TrackedDependent& dependent);
  static TrackedDependent* findIn(VarnDependent* entry);
  // The dependent of an entry, tracked or not; a kept one's entry stays as it is.
  static VarnDependent* dependentOf(VarnDependent* entry) {
    return reinterpret_cast<VarnDependent*>(bitsOf(entry) & ~kTracked);
  }
  static bool isEntryOf(VarnDependent* entry, const VarnDependent& dependent) {
    return dependentOf(entry) == &dependent;
  }

  // One call, counted while it lasts.
  class Call {
   public:
    Call() = default;
    Call(const Call&) = delete;
    Call& operator=(const Call&) = delete;
    ~Call();

    // Requires: the lock of the collaborator that the dependent was found in is held.
    void begin(TrackedDependent& dependent);

   private:
    TrackedDependent* m_pDependent = nullptr;
  };

  // Around a fork. The waiters of vanished threads leave; nothing on their stacks is touched later.
  static void prepareFork();
  static void parentAfterFork();
  static void childAfterFork();

 protected:
  TrackedDependent();
  // Between these a fork removes the dependent in the child, unless the child has its owner.
  void enlist();
  void strikeOff();
  // Waits until no call is under way. Requires: removed from every collaborator.
  void awaitCalls();

 private:
  static constexpr std::uintptr_t kTracked = 1;
  static std::uintptr_t bitsOf(const VarnDependent* entry) {
    return reinterpret_cast<std::uintptr_t>(entry);
  }

  // Removes the dependent from all collaborators that may still call it. Takes no lock of its own:
  // in a child a vanished thread may have it.
  virtual void removeEverywhere() = 0;

  static std::atomic<int> m_nCount;
  static TrackedDependent* m_pFirst;  // guarded by the list's mutex

  std::atomic<int> m_nCalls{0};
  const pthread_t m_hOwner;
  TrackedDependent* m_pNext = nullptr;
};

}  // namespace VarnSupport

#endif
