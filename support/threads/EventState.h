// What an event keeps: a number that each set() raises, and the condition that it hands out.
#ifndef SUPPORT_THREADS_EVENTSTATE_H
#define SUPPORT_THREADS_EVENTSTATE_H

#include <pthread.h>

#include <atomic>
#include <bit>
#include <climits>
#include <cstddef>
#include <cstdint>

#include "runtime/System.h"

namespace VarnSupport {

// Threads wait for the number, by futex(2). The number, the threads that wait and whether the
// condition was handed out are one word, so that a set() for which nobody waits is one operation;
// and as soon as the number has moved nothing of the state is touched any more, because a waiter
// that sees it move may destroy the event at once. (Waking those who wait at an address that is
// gone does no harm: the system only compares the address.)
//
// The condition and the mutex come first: getHandle() hands out their address. Who waits on them is
// not counted, and the library itself never does.
class EventState {
 public:
  pthread_cond_t condition = PTHREAD_COND_INITIALIZER;
  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;

  EventState();
  EventState(const EventState&) = delete;
  EventState& operator=(const EventState&) = delete;
  // Requires: nobody waits, and nobody will.
  ~EventState();

  std::uint32_t number() const {
    return static_cast<std::uint32_t>(m_nWord.load(std::memory_order_acquire) >> kNumberBits);
  }
  void raise() {
    if ((m_nWord.load(std::memory_order_relaxed) & kHandedOut) != 0)
      broadcast();
    std::uint32_t* const half = numberHalf();
    if (moveOn())
      wake(half, INT_MAX);
  }

  // Stands for a thread that waits, from its first look to its end, for isWaitedFor().
  class Wait {
   public:
    explicit Wait(EventState& state);
    Wait(const Wait&) = delete;
    Wait& operator=(const Wait&) = delete;
    ~Wait() { m_oState.m_nWaits.fetch_sub(1, std::memory_order_release); }

   private:
    EventState& m_oState;
  };

  // False when `deadline`, if there is one, has passed before the number left `ticket`.
  bool waitSince(std::uint32_t ticket, const MonotonicTime* deadline) {
    const Wait wait(*this);
    return comesSoon(ticket, deadline) || sleepSince(ticket, deadline);
  }
  // The first half of that: looks at the number for a while, unless this was in vain the last
  // times.
  bool comesSoon(std::uint32_t ticket, const MonotonicTime* deadline);
  // The second half, and a wait of its own for what does not come soon.
  bool sleepSince(std::uint32_t ticket, const MonotonicTime* deadline);

  // From here on raise() signals the condition, too.
  void handOut();
  // Whether the state is to stay when its owner goes. At exit threads may be waiting for an owner
  // that is static, or be about to: they wait on, on memory that stays. So does that of the static
  // owners in a library that is unloaded.
  bool staysBehind(const void* owner);
  // Makes the condition anew unless somebody may be waiting for it.
  void resetCondition();

 protected:
  // The first half of raise(). True when somebody waits, who is then to be woken at numberHalf().
  bool moveOn() { return (m_nWord.fetch_add(kOneSet, std::memory_order_acq_rel) & kWaiters) != 0; }
  // The same, if the number is even, or odd; otherwise false.
  bool moveOnIf(bool odd);
  static void wake(std::uint32_t* number, int count);
  // Counts one more, or less, who waits in a way of its own.
  void addWaiter();
  // Whether any thread waits, or is about to look or to leave.
  bool isWaitedFor();
  void removeWaiter() { m_nWord.fetch_sub(1, std::memory_order_release); }
  // The half of the word that holds the number: the system waits on 32 bits.
  std::uint32_t* numberHalf() {
    constexpr std::size_t kUpperHalf = std::endian::native == std::endian::little ? 1 : 0;
    return reinterpret_cast<std::uint32_t*>(&m_nWord) + kUpperHalf;
  }

 private:
  class Waiter;

  static constexpr unsigned kNumberBits = 32;
  static constexpr std::uint64_t kOneSet = std::uint64_t{1} << kNumberBits;
  static constexpr std::uint64_t kHandedOut = std::uint64_t{1} << 31;
  static constexpr std::uint64_t kWaiters = kHandedOut - 1;

  void renewAfterFork();
  void broadcast();

  std::atomic<std::uint64_t> m_nWord{0};
  // The process that the rest belongs to, by how often it came of a fork: twice that, one more
  // while it is being renewed.
  std::atomic<std::uint32_t> m_nOwner;
  // Those that have a Wait, and waits in a row that in the end had to sleep.
  std::atomic<std::uint32_t> m_nWaits{0};
  std::atomic<std::uint32_t> m_nLateWaits{0};
};

}  // namespace VarnSupport

#endif
