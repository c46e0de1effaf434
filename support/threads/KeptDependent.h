// Dependents that belong to their source.
#ifndef SUPPORT_THREADS_KEPTDEPENDENT_H
#define SUPPORT_THREADS_KEPTDEPENDENT_H

#include <cstdint>

#include "VarnSupport/VarnCollaborator.h"

namespace VarnSupport {

// Stays in the list of its source to the end of that. A source has one at most.
class KeptDependent : public VarnDependent {
 public:
  // The entry in a list of dependents: the address with the second bit set.
  static VarnDependent* entryOf(KeptDependent& dependent) {
    static_assert(alignof(KeptDependent) > kKept, "the second bit of an address is free");
    return reinterpret_cast<VarnDependent*>(bitsOf(&dependent) | kKept);
  }
  // Null for another's entry.
  static KeptDependent* findIn(VarnDependent* entry) {
    return (bitsOf(entry) & kKept) != 0 ? static_cast<KeptDependent*>(dependentOf(entry)) : nullptr;
  }
  static VarnDependent* dependentOf(VarnDependent* entry) {
    return reinterpret_cast<VarnDependent*>(bitsOf(entry) & ~kKept);
  }

  // The source goes.
  virtual void leaveSource() = 0;

 protected:
  KeptDependent() = default;
  // What the source has already, or else `made`, which it has from then on.
  static KeptDependent& keptBy(VarnCollaborator& source, KeptDependent& made) {
    return source.keep(made);
  }

 private:
  static constexpr std::uintptr_t kKept = 2;
  static std::uintptr_t bitsOf(const VarnDependent* entry) {
    return reinterpret_cast<std::uintptr_t>(entry);
  }
};

}  // namespace VarnSupport

#endif
