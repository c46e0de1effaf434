// Dependents that live on a waiter's stack.
#ifndef SUPPORT_TRACKEDDEPENDENT_H
#define SUPPORT_TRACKEDDEPENDENT_H

#include <atomic>

#include "VarnSupport/VarnCollaborator.h"

namespace VarnSupport {

// A dependent whose calls are counted, so that its owner can remove it everywhere, wait until the
// last call has returned, and go. It is called once for each time that it was added.
class TrackedDependent : public VarnDependent {
 public:
  TrackedDependent();
  TrackedDependent(const TrackedDependent&) = delete;
  TrackedDependent& operator=(const TrackedDependent&) = delete;
  // Requires: removed from every collaborator, and awaitCalls() has returned.
  ~TrackedDependent() override;

  // Waits until no call is under way. Requires: removed from every collaborator.
  void awaitCalls();

  // One call of a dependent: counted while it lasts, if the dependent is a tracked one.
  class Call {
   public:
    Call() = default;
    Call(const Call&) = delete;
    Call& operator=(const Call&) = delete;
    ~Call();

    // True when the dependent is a tracked one.
    // Requires: the lock of the collaborator that the dependent was found in is held.
    bool begin(VarnDependent& dependent);

   private:
    TrackedDependent* m_pTracked = nullptr;
  };

 private:
  std::atomic<int> m_nCalls{0};
};

}  // namespace VarnSupport

#endif
