// Sections of other threads are read as copies that the system makes, as they may be changed,
// destroyed or unmapped meanwhile.
//
// The platform's mutex notes the thread that has it, which tells of holders that the section does
// not know: BriefHold does not say who it is.
#include "locks/HeldSections.h"

#include "locks/BriefHold.h"
#include "runtime/OwnMemory.h"

namespace VarnSupport {

namespace {

std::uintptr_t numberOf(const volatile void* address) {
  return reinterpret_cast<std::uintptr_t>(address);
}

}  // namespace

bool HeldSections::read(std::uintptr_t address, Section& section) {
  const auto* const state = reinterpret_cast<const LockImplementation*>(address);
  pthread_mutex_t mutex;
  if (address % alignof(LockImplementation) != 0 || address == 0 ||
      !copyOwnMemory(numberOf(&state->m_hOwner), section.owner) ||
      !copyOwnMemory(numberOf(&state->m_nCount), section.levels) ||
      !copyOwnMemory(numberOf(&state->m_pOlder), section.older) ||
      !copyOwnMemory(numberOf(&state->m_oMutex), mutex))
    return false;
  if (section.owner == BriefHold::kNoThread)
    section.owner = 0;
  section.thread = mutex.__data.__owner;
  return true;
}

// What begins with the address of the same virtual table is such a state.
std::uintptr_t HeldSections::withFutex(std::uintptr_t word) {
  const std::uintptr_t global = addressOf(globalSection());
  if (global == 0)
    return 0;
  const auto* const known = reinterpret_cast<const LockImplementation*>(global);
  const std::uintptr_t candidate = word - (numberOf(&known->m_oMutex.__data.__lock) - global);
  std::uintptr_t ownTable = 0;
  std::uintptr_t table = 0;
  const bool isRead = copyOwnMemory(global, ownTable) && copyOwnMemory(candidate, table);
  return isRead && table == ownTable ? candidate : 0;
}

std::uintptr_t HeldSections::addressOf(const VarnCriticalSectionObject& object) {
  VarnSmartPointer<LockImplementation>* shared = nullptr;
  LockImplementation* state = nullptr;
  if (!copyOwnMemory(numberOf(&object.m_pState), shared) || shared == nullptr ||
      !copyOwnMemory(numberOf(shared), state))
    return 0;
  return numberOf(state);
}

}  // namespace VarnSupport
