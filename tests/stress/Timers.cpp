// Timers that are started, stopped and destroyed while they fire, on many threads.
#include "LibraryTools.h"

TEST(TimerStress, LivesThroughAnyOrderOfOperations) {
  const auto end = Clock::now() + stressTime();
  Observer counter;
  VarnTimer shared(1, false);
  shared.addDependent(counter);
  onThreads(4, [&](int seed) {
    std::mt19937 random(static_cast<unsigned>(seed));
    std::array<std::unique_ptr<VarnTimer>, 8> timers;
    while (Clock::now() < end) {
      std::unique_ptr<VarnTimer>& timer = timers[random() % timers.size()];
      if (timer == nullptr) {
        timer = std::make_unique<VarnTimer>(static_cast<long>(random() % 3), false);
        timer->addDependent(counter);
      }
      switch (random() % 4) {
        case 0:
          timer->start(static_cast<long>(random() % 1200), random() % 2 == 0);
          shared.reset();
          break;
        case 1:
          timer->stop();
          shared.stop();
          break;
        case 2:
          timer->reset();
          shared.start(static_cast<long>(random() % 1200), random() % 2 == 0);
          break;
        default:
          timer.reset();
      }
    }
  });
  EXPECT_GT(counter.calls, 0);
}

TEST(TimerStress, SignalsDuringALongCallbackDoNotPileUpThreads) {
  std::atomic<bool> entered{false};
  std::atomic<bool> released{false};
  VarnTimer timer(1, true);
  const Observer observer(timer, [&] {
    entered = true;
    EXPECT_TRUE(eventually([&] { return released.load(); }));
  });
  timer.reset();
  ASSERT_TRUE(eventually([&] { return entered.load(); }));
  const int threads = threadCount();
  for (int i = 0; i < 200; ++i) {
    kill(getpid(), SIGALRM);
    sleepMs(1);
  }
  EXPECT_LE(entriesIn("/proc/self/task"), threads + 10);
  released = true;
}

TEST(TimerStress, ACallbackLongerThanItsPeriodDoesNotDeepenTheStack) {
  std::uintptr_t first = 0;
  std::uintptr_t deepest = 0;
  VarnTimer timer(1000, false);
  const Observer slow(timer, [&] {
    char here = 0;
    const auto address = reinterpret_cast<std::uintptr_t>(&here);
    if (first == 0)
      first = address;
    deepest = std::max(deepest, first > address ? first - address : address - first);
    sleepMs(1100);
  });
  timer.reset();
  EXPECT_TRUE(eventually([&] { return slow.calls >= 3; }));
  timer.stopAndWait();
  EXPECT_LT(deepest, 200U);
}
