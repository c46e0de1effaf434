// Waits that look for what comes soon, before they sleep for it.
#ifndef SUPPORT_RUNTIME_SHORTWAIT_H
#define SUPPORT_RUNTIME_SHORTWAIT_H

#include <sched.h>

#include <atomic>
#include <cstdint>

namespace VarnSupport {

// To sleep and to be woken costs a hundred times what a look costs. Whoever waits therefore looks
// for a while first, as long as that has paid off: waits that looked in vain make the next ones
// sleep at once, but for one in a while that tries again. What costs the processor least over all
// waits is thereby found for each thing that is waited for, which keeps the count of such waits.
class ShortWait {
 public:
  using tLateWaits = std::atomic<std::uint32_t>;

  // Whether this wait is to look. Counts it as late, until it has looked with success.
  static bool isWorthALook(tLateWaits& lateWaits) {
    const std::uint32_t late = lateWaits.load(std::memory_order_relaxed);
    lateWaits.store(late + 1, std::memory_order_relaxed);
    return late % kWaitsBetweenTrials == 0;
  }

  // Looks for a while; false when it did not come. Between two looks the processor is given up, as
  // whoever is about to bring it may need just this one.
  template <typename Look>
  static bool brings(tLateWaits& lateWaits, Look look) {
    bool has = look();
    for (int looks = 0; !has && looks < kLooksBeforeSleeping; ++looks) {
      sched_yield();
      has = look();
    }
    if (has)
      lateWaits.store(0, std::memory_order_relaxed);
    return has;
  }

 private:
  static constexpr int kLooksBeforeSleeping = 40;
  // After a wait that looked in vain only one of so many looks before it sleeps.
  static constexpr std::uint32_t kWaitsBetweenTrials = 32;
};

}  // namespace VarnSupport

#endif
