// A set() moves the number first and wakes the sleepers afterwards, if the same operation has
// shown that there are any; a waiter counts itself first and compares the number afterwards. In
// every order of the two, the waiter sees the number moved or is woken.
#include "threads/EventState.h"

#include <dlfcn.h>
#include <linux/futex.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <chrono>
#include <utility>

#include "runtime/BriefGate.h"
#include "runtime/Cancellation.h"
#include "runtime/Fork.h"
#include "runtime/ShortWait.h"
#include "runtime/WaitNote.h"

namespace VarnSupport {

namespace {

constexpr std::chrono::microseconds kDearLook(100);
constexpr std::chrono::milliseconds kDearestLook(10);  // what takes longer has other reasons
constinit std::atomic<MonotonicTime> processorsAreFree{MonotonicTime::min()};  // from then on

// Returns when the number may have changed, or the deadline passed. A cancellation point, which
// syscall() is not; there is nothing to destroy in this frame.
[[gnu::noinline]] void waitForChange(std::uint32_t* number, std::uint32_t from,
                                     const timespec* deadline) {
  int type = PTHREAD_CANCEL_DEFERRED;
  pthread_setcanceltype(PTHREAD_CANCEL_ASYNCHRONOUS, &type);
  syscall(SYS_futex, number, FUTEX_WAIT_BITSET_PRIVATE, from, deadline, nullptr,
          FUTEX_BITSET_MATCH_ANY);
  pthread_setcanceltype(type, nullptr);
}

}  // namespace

// Counts a waiting thread for a scope, which a cancellation may end.
class EventState::Waiter {
 public:
  explicit Waiter(EventState& state) : m_oState(state) { m_oState.addWaiter(); }
  Waiter(const Waiter&) = delete;
  Waiter& operator=(const Waiter&) = delete;
  ~Waiter() { m_oState.removeWaiter(); }

 private:
  EventState& m_oState;
};

// In the child of a fork the waits of lost threads are forgotten before another is counted.
EventState::Wait::Wait(EventState& state) : m_oState(state) {
  m_oState.renewAfterFork();
  m_oState.m_nWaits.fetch_add(1, std::memory_order_relaxed);
}

EventState::EventState() : m_nOwner(g_nForks * 2) {}

EventState::~EventState() {
  assert(!isWaitedFor());
  pthread_cond_destroy(&condition);
  pthread_mutex_destroy(&mutex);
}

// A raise() that has not seen the flag is over for the caller: what its thread did before is seen
// from here on.
void EventState::handOut() {
  if ((m_nWord.fetch_or(kHandedOut) & kHandedOut) == 0)
    BriefGate::synchronize();
}

void EventState::wake(std::uint32_t* number, int count) {
  syscall(SYS_futex, number, FUTEX_WAKE_PRIVATE, count, nullptr, nullptr, 0);
}

void EventState::addWaiter() {
  renewAfterFork();
  m_nWord.fetch_add(1, std::memory_order_acquire);
  assert((m_nWord & kWaiters) != 0 && "more waiters than there is room for");
}

// The word is written in either case: who lowers the number later sees what was done before.
bool EventState::moveOnIf(bool odd) {
  std::uint64_t word = m_nWord.load(std::memory_order_relaxed);
  bool moves = false;
  do {
    moves = ((word & kOneSet) != 0) == odd;
  } while (!m_nWord.compare_exchange_weak(word, moves ? word + kOneSet : word,
                                          std::memory_order_acq_rel, std::memory_order_relaxed));
  return moves && (word & kWaiters) != 0;
}

// Without the mutex, which is for those alone who wait on the handle: one of them may hold it here.
void EventState::broadcast() {
  renewAfterFork();
  pthread_cond_broadcast(&condition);
}

bool EventState::sleepSince(std::uint32_t ticket, const MonotonicTime* deadline) {
  const Waiter waiter(*this);
  const WaitNote note(WaitNote::EVENT, this);
  const timespec until = deadline != nullptr ? toTimespec(*deadline) : timespec{};
  while (number() == ticket) {
    if (deadline != nullptr && monotonicNow() >= *deadline)
      return false;
    const BlockingCall cancellable;
    waitForChange(numberHalf(), ticket, deadline != nullptr ? &until : nullptr);
  }
  return true;
}

// Where others want the processor, a look that gives it up comes back after milliseconds. No wait
// of the process looks then for twenty times as long as that look took.
bool EventState::comesSoon(std::uint32_t ticket, const MonotonicTime* deadline) {
  const auto hasCome = [&] { return number() != ticket; };
  MonotonicTime before = monotonicNow();
  const auto isOver = [&] {
    const MonotonicTime now = monotonicNow();
    const auto cost =
        std::min<MonotonicTime::duration>(now - std::exchange(before, now), kDearestLook);
    if (cost > kDearLook)
      processorsAreFree.store(now + cost * 20, std::memory_order_relaxed);
    return hasCome() || cost > kDearLook || (deadline != nullptr && now >= *deadline);
  };
  if (before >= processorsAreFree.load(std::memory_order_relaxed) && !isOver() &&
      ShortWait::isWorthALook(m_nLateWaits) && ShortWait::brings(m_nLateWaits, isOver) &&
      !hasCome())
    m_nLateWaits.store(1, std::memory_order_relaxed);  // it is over, but was in vain
  return hasCome();
}

bool EventState::isWaitedFor() {
  renewAfterFork();
  return (m_nWord.load(std::memory_order_acquire) & kWaiters) != 0 ||
         m_nWaits.load(std::memory_order_acquire) != 0;
}

bool EventState::staysBehind(const void* owner) {
  dl_find_object found;
  return isWaitedFor() || _dl_find_object(const_cast<void*>(owner), &found) == 0;
}

void EventState::resetCondition() {
  if ((m_nWord.load(std::memory_order_relaxed) & kHandedOut) != 0)
    return;
  renewAfterFork();
  pthread_mutex_lock(&mutex);
  pthread_cond_init(&condition, nullptr);
  pthread_mutex_unlock(&mutex);
}

// Waiters that a fork left behind would hold up the broadcasts of the child, for good. Tickets stay
// good: the number goes on.
void EventState::renewAfterFork() {
  const std::uint32_t own = g_nForks * 2;
  std::uint32_t seen = m_nOwner.load(std::memory_order_acquire);
  while (seen != own) {
    if (seen == own + 1) {
      sched_yield();
      seen = m_nOwner.load(std::memory_order_acquire);
    } else if (m_nOwner.compare_exchange_weak(seen, own + 1, std::memory_order_acquire)) {
      pthread_cond_init(&condition, nullptr);
      pthread_mutex_init(&mutex, nullptr);
      m_nWord.fetch_and(~kWaiters, std::memory_order_relaxed);
      m_nWaits.store(0, std::memory_order_relaxed);
      m_nOwner.store(seen = own, std::memory_order_release);
    }
  }
}

}  // namespace VarnSupport
