// The waits for sections that are held, and what becomes of such sections in a fork.
#include "locks/BriefHold.h"

#include <array>
#include <cstddef>
#include <cstdint>

#include "runtime/ShortWait.h"
#include "runtime/WaitNote.h"

namespace VarnSupport {

namespace {

// Late waits for a lock, and for others whose addresses are alike: a lock has no room for a count.
ShortWait::tLateWaits& lateWaitsFor(const LockImplementation* lock) {
  static constinit std::array<ShortWait::tLateWaits, 256> counts{};
  return counts[reinterpret_cast<std::uintptr_t>(lock) / alignof(std::max_align_t) % counts.size()];
}

}  // namespace

// Here a thread may wait for ever: all that is to be known of that is noted before.
[[gnu::noinline, gnu::cold]] void LockImplementation::awaitMutex() {
  ShortWait::tLateWaits& lateWaits = lateWaitsFor(this);
  const auto get = [this] {
    return m_hOwner.load(std::memory_order_relaxed) == 0 && pthread_mutex_trylock(&m_oMutex) == 0;
  };
  if (ShortWait::isWorthALook(lateWaits) && ShortWait::brings(lateWaits, get))
    return;
  const WaitNote note(WaitNote::SECTION, this);
  pthread_mutex_lock(&m_oMutex);
}

// The mutex tells, not the owner: a thread notes itself as the owner a moment after it has the
// mutex. No other thread exists, so that the state can be made anew where it stands, for all who
// share it.
bool BriefHold::renewIfLost(VarnCriticalSectionObject& object) {
  const auto* const shared = object.m_pState.load();
  if (shared == nullptr || (*shared)->isHeldByCaller())
    return false;
  LockImplementation& state = **shared;
  if (pthread_mutex_trylock(&state.m_oMutex) == 0) {
    pthread_mutex_unlock(&state.m_oMutex);
    return false;
  }
  pthread_mutex_init(&state.m_oMutex, nullptr);
  state.m_hOwner = 0;
  state.m_pOlder = nullptr;
  state.m_pNewer = nullptr;
  state.m_nCount = 0;
  return true;
}

}  // namespace VarnSupport
