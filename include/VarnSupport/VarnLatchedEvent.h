// An event that remembers that it was set, for threads that wait for something to be done.
//
// All operations are safe from any thread. Whoever has seen an event set may destroy it at once,
// though set() is still on its way out; nobody may wait for an event that is being destroyed. A
// wait ends when the VarnFunctionThread that waits is asked to stop, and unwinds where a VarnThread
// is killed; neither changes the event. The child of a fork has events as they were, and no
// waiters.
#ifndef VARNSUPPORT_VARNLATCHEDEVENT_H
#define VARNSUPPORT_VARNLATCHEDEVENT_H

#include <chrono>
#include <cstddef>
#include <optional>
#include <vector>

#include "VarnSupport/VarnExport.h"

namespace VarnSupport {

class LatchState;

// The end of a wait that begins now and lasts `limit`, at once when that is not above 0. Beyond a
// hundred years it is the latest moment that there is, which waits take for never.
template <typename Number, typename Period>
std::chrono::steady_clock::time_point VarnDeadline(
    const std::chrono::duration<Number, Period>& limit) {
  using tMoment = std::chrono::steady_clock::time_point;
  using tSeconds = std::chrono::duration<double>;
  constexpr tSeconds kForEver(100.0 * 365 * 24 * 3600);
  const tMoment now = std::chrono::steady_clock::now();
  if (!(limit > limit.zero()))
    return now;
  if (tSeconds(limit) > kForEver)
    return tMoment::max();
  return now + std::chrono::ceil<tMoment::duration>(limit);
}

class VSUPT_EXPORT VarnLatchedEvent {
 public:
  explicit VarnLatchedEvent(bool isSet = false) : m_pState(makeState(isSet)) {}
  // Threads wait for its address.
  VarnLatchedEvent(const VarnLatchedEvent&) = delete;
  VarnLatchedEvent& operator=(const VarnLatchedEvent&) = delete;
  ~VarnLatchedEvent() { giveUpState(); }

  // Sets the event and wakes all who wait. What was done before is seen by those who find it set.
  // With nobody waiting it is one atomic operation.
  void set() { change(true); }
  // A wait that was under way at a set() ends all the same.
  void reset() { change(false); }
  bool isSet() const;

  // Waits until the event is set, at once if it is. False when the thread was asked to stop before.
  bool wait() { return waitUntil(tMoment::max()); }
  // The same; false also when `limit` has passed.
  template <typename Number, typename Period>
  bool waitFor(const std::chrono::duration<Number, Period>& limit) {
    return waitUntil(VarnDeadline(limit));
  }

  // Waits until one of the events is set. The index of one that is, the lowest; nothing when the
  // thread was asked to stop before, or when there are no events. Requires: no null, here and
  // below.
  static std::optional<std::size_t> waitForAny(const std::vector<VarnLatchedEvent*>& events) {
    return waitForSeveral(events, false, tMoment::max());
  }
  template <typename Number, typename Period>
  static std::optional<std::size_t> waitForAny(const std::vector<VarnLatchedEvent*>& events,
                                               const std::chrono::duration<Number, Period>& limit) {
    return waitForSeveral(events, false, VarnDeadline(limit));
  }
  // Waits until each of the events is set, or has been set since the wait began. True for none.
  static bool waitForAll(const std::vector<VarnLatchedEvent*>& events) {
    return waitForSeveral(events, true, tMoment::max()).has_value();
  }
  template <typename Number, typename Period>
  static bool waitForAll(const std::vector<VarnLatchedEvent*>& events,
                         const std::chrono::duration<Number, Period>& limit) {
    return waitForSeveral(events, true, VarnDeadline(limit)).has_value();
  }

 private:
  using tMoment = std::chrono::steady_clock::time_point;
  friend LatchState& latchOf(VarnLatchedEvent& event);  // of the library itself
  struct State;

  static State* makeState(bool isSet);
  void giveUpState();
  void change(bool isSet);
  bool waitUntil(tMoment deadline);
  static std::optional<std::size_t> waitForSeveral(const std::vector<VarnLatchedEvent*>& events,
                                                   bool all, tMoment deadline);

  State* const m_pState;
};

}  // namespace VarnSupport

#endif
