// Timers that are started, stopped and destroyed while they fire, on many threads.
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <memory>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include "TestTools.h"

using namespace VarnSupport;
using namespace TestTools;

namespace {

std::atomic<int> fired{0};

struct Counter : VarnDependent {
  void handleNotification(VarnCollaborator&, const VarnNotification&) override { ++fired; }
};

// Destroys the timer that it is told by, from the callback.
struct Destroyer : VarnDependent {
  void handleNotification(VarnCollaborator&, const VarnNotification&) override {
    timer.reset();
    done = true;
  }
  std::unique_ptr<VarnTimer> timer;
  std::atomic<bool> done{false};
};

}  // namespace

TEST(TimerStress, LivesThroughAnyOrderOfOperations) {
  const auto end = Clock::now() + stressTime();
  Counter counter;
  VarnTimer shared(1, false);
  shared.addDependent(counter);
  std::vector<std::thread> threads;
  for (unsigned seed = 1; seed <= 4; ++seed) {
    threads.emplace_back([&counter, &shared, end, seed] {
      std::mt19937 random(seed);
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
  }
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_GT(fired, 0);
}

TEST(TimerStress, TimersDestroyedByTheirOwnCallbacks) {
  const auto end = Clock::now() + stressTime();
  int destroyed = 0;
  while (Clock::now() < end) {
    std::array<Destroyer, 8> destroyers;
    for (Destroyer& destroyer : destroyers) {
      destroyer.timer = std::make_unique<VarnTimer>(1, true);
      destroyer.timer->addDependent(destroyer);
      destroyer.timer->reset();
    }
    for (Destroyer& destroyer : destroyers)
      ASSERT_TRUE(eventually([&] { return destroyer.done.load(); }));
    ++destroyed;
  }
  EXPECT_GT(destroyed, 0);
}

TEST(TimerStress, SignalsDuringALongCallbackDoNotPileUpThreads) {
  struct Long : VarnDependent {
    void handleNotification(VarnCollaborator&, const VarnNotification&) override {
      entered = true;
      EXPECT_TRUE(eventually([this] { return released.load(); }));
    }
    std::atomic<bool> entered{false};
    std::atomic<bool> released{false};
  } callback;
  VarnTimer timer(1, true);
  timer.addDependent(callback);
  timer.reset();
  ASSERT_TRUE(eventually([&] { return callback.entered.load(); }));
  const int threads = entriesIn("/proc/self/task");
  for (int i = 0; i < 200; ++i) {
    kill(getpid(), SIGALRM);
    sleepMs(1);
  }
  EXPECT_LE(entriesIn("/proc/self/task"), threads + 10);
  callback.released = true;
}

TEST(TimerStress, ACallbackLongerThanItsPeriodDoesNotDeepenTheStack) {
  struct Slow : VarnDependent {
    void handleNotification(VarnCollaborator&, const VarnNotification&) override {
      char here = 0;
      const auto address = reinterpret_cast<std::uintptr_t>(&here);
      if (calls == 0)
        first = address;
      deepest = std::max(deepest, first > address ? first - address : address - first);
      sleepMs(1100);
      ++calls;
    }
    std::uintptr_t first = 0;
    std::uintptr_t deepest = 0;
    std::atomic<int> calls{0};
  } slow;
  VarnTimer timer(1000, false);
  timer.addDependent(slow);
  timer.reset();
  EXPECT_TRUE(eventually([&] { return slow.calls >= 3; }));
  timer.stopAndWait();
  EXPECT_LT(slow.deepest, 200U);
}
