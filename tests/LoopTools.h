// What the tests of all objects of the loop share.
#ifndef TESTS_LOOPTOOLS_H
#define TESTS_LOOPTOOLS_H

#include "LibraryTools.h"

// Makes objects on three threads over and over, and destroys them while they call: on the loop, in
// their own call, and in a pool. `make(called, pool)` gives one that calls `called` all the time.
template <typename Make>
void destroyWhileTheyCall(Make make) {
  VarnCallbackPool pool(2);
  const auto end = Clock::now() + stressTime(1);
  onThreads(3, [&](int thread) {
    for (int round = 0; Clock::now() < end; ++round) {
      std::atomic<bool> alive{true};
      std::atomic<int> calls{0};
      std::atomic<bool> isReady{false};
      std::atomic<bool> isGone{false};
      decltype(make(std::function<void()>(), &pool)) object;
      const std::function<void()> called = [&] {
        const int before = calls++;
        spin(100);
        EXPECT_EQ(before + 1, calls) << "calls overlap";
        EXPECT_TRUE(alive);
        EXPECT_FALSE(isGone);
        if (isReady) {
          object.reset();
          isGone = true;
        }
      };
      object = make(called, thread == 0 ? nullptr : &pool);
      ASSERT_TRUE(eventually([&] { return calls >= round % 3; }));
      if (thread == 1) {
        isReady = true;
        ASSERT_TRUE(eventually([&] { return isGone.load(); }));
        sleepMs(1);
      } else {
        spin(static_cast<unsigned>(round % 50 * 400));
        object.reset();
      }
      alive = false;
    }
  });
}

#endif
