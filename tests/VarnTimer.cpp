#include "VarnSupport/VarnTimer.h"

#include <gtest/gtest.h>

#include <sys/time.h>

#include <functional>
#include <memory>
#include <vector>

#include "TestTools.h"

using namespace VarnSupport;
using namespace TestTools;

namespace {

using Interval = VarnTimer::TimeInterval;

// Runs a function whenever its timer is set.
class OnSet : public VarnDependent {
 public:
  OnSet(VarnTimer& timer, std::function<void()> action) : m_oAction(std::move(action)) {
    timer.addDependent(*this);
  }
  void handleNotification(VarnCollaborator&, const VarnNotification&) override {
    m_oAction();
    ++calls;
  }
  std::atomic<int> calls{0};

 private:
  std::function<void()> m_oAction;
};

void nothing() {}

}  // namespace

TEST(VarnTimer, IntervalsNormalizeByTruncation) {
  const struct {
    long seconds, milliseconds;
    int expectedSeconds, expectedMilliseconds;
  } cases[] = {{0, 1500, 1, 500},
               {2, 999, 2, 999},
               {0, -1500, -1, -500},
               {3, -1, 3, -1},
               {-2, 2500, 0, 500}};
  for (const auto& c : cases) {
    const Interval interval(c.seconds, c.milliseconds);
    EXPECT_EQ(c.expectedSeconds, interval.seconds);
    EXPECT_EQ(c.expectedMilliseconds, interval.milliseconds);
  }
}

TEST(VarnTimer, IntervalsCompareAsymmetrically) {
  const Interval longer(5, 900);
  const Interval shorter(5, 1);
  EXPECT_TRUE(Interval(1, 0) < Interval(2, 0));
  EXPECT_FALSE(Interval(2, 0) < Interval(1, 0));
  EXPECT_TRUE(shorter < longer && shorter <= longer && !(shorter == longer));
  EXPECT_FALSE(longer < shorter || longer <= shorter);
  EXPECT_TRUE(Interval(7, 7) == Interval(7, 1) && Interval(7, 7) <= Interval(7, 1));
  EXPECT_FALSE(Interval(7, 1) == Interval(7, 7));
  EXPECT_FALSE(Interval(0, 0) < Interval(0, 0));
}

TEST(VarnTimer, PeriodicTimersRepeatAndOneShotTimersDoNot) {
  VarnTimer periodic(1000, false);
  VarnTimer once(1, 0, true);
  VarnTimer stopped;
  VarnTimer never(1000, false);
  OnSet onPeriodic(periodic, nothing);
  OnSet onOnce(once, nothing);
  OnSet onStopped(stopped, nothing);
  OnSet onNever(never, nothing);
  EXPECT_TRUE(once.isOneShot());
  periodic.reset();
  once.reset();
  stopped.start(0, 0, false);
  stopped.reset();
  never.reset();
  never.stop();
  never.stop();
  EXPECT_TRUE(eventually([&] { return onPeriodic.calls >= 3; }));
  periodic.stopAndWait();
  const int calls = onPeriodic.calls;
  once.start(1000, true);
  EXPECT_TRUE(eventually([&] { return onOnce.calls == 2; }));
  sleepMs(1200);
  EXPECT_EQ(calls, onPeriodic.calls);
  EXPECT_EQ(2, onOnce.calls);
  EXPECT_EQ(0, onStopped.calls + onNever.calls);
}

TEST(VarnTimer, TimersOfOneSecondFireInOnePassTheLaterOneFirst) {
  std::string order;
  VarnTimer first(1500, true);
  VarnTimer second(1200, true);
  OnSet onFirst(first, [&] { order += '1'; });
  OnSet onSecond(second, [&] { order += '2'; });
  // Both must be added within one second.
  ASSERT_TRUE(eventually([] {
    timeval now{};
    gettimeofday(&now, nullptr);
    return now.tv_usec < 500000;
  }));
  first.reset();
  second.reset();
  EXPECT_TRUE(eventually([&] { return onFirst.calls + onSecond.calls == 2; }));
  EXPECT_EQ("21", order);
}

TEST(VarnTimer, CallbacksRunOnTimerThreadsAndMayStartAndStopTimers) {
  VarnTimer timer(1000, false);
  VarnTimer other(60000, false);
  pthread_t thread{};
  OnSet onTimer(timer, [&] {
    thread = pthread_self();
    other.reset();
    other.stop();
    timer.start(1000, true);
  });
  timer.reset();
  EXPECT_TRUE(eventually([&] { return onTimer.calls == 2; }));
  EXPECT_FALSE(pthread_equal(thread, pthread_self()));
  EXPECT_FALSE(pthread_equal(thread, pthread_t{}));
}

TEST(VarnTimer, MayBeDestroyedByItsOwnCallback) {
  auto timer = std::make_unique<VarnTimer>(1000, false);
  OnSet onTimer(*timer, [&] { timer.reset(); });
  timer->reset();
  EXPECT_TRUE(eventually([&] { return onTimer.calls == 1; }));
  EXPECT_EQ(nullptr, timer);
}

TEST(VarnTimer, DestructionWaitsForACallbackUnderWay) {
  std::atomic<bool> entered{false};
  std::atomic<bool> left{false};
  auto timer = std::make_unique<VarnTimer>(500, true);
  OnSet onTimer(*timer, [&] {
    entered = true;
    sleepMs(100);
    left = true;
  });
  timer->reset();
  ASSERT_TRUE(eventually([&] { return entered.load(); }));
  timer.reset();
  EXPECT_TRUE(left);
}

TEST(VarnTimer, StopAndWaitStopsATimerThatItsCallbackRestarts) {
  VarnTimer timer(1, true);
  std::atomic<int> entered{0};
  OnSet onTimer(timer, [&] {
    ++entered;
    sleepMs(50);
    timer.reset();
  });
  timer.reset();
  ASSERT_TRUE(eventually([&] { return entered > 0; }));
  timer.stopAndWait();
  const int before = entered;
  sleepMs(100);
  EXPECT_EQ(before, entered);
}

TEST(VarnTimer, ACallbackThatThrowsDoesNotStopTheOthers) {
  VarnTimer bad(1000, false);
  VarnTimer good(1000, false);
  OnSet onBad(bad, [] { throw 1; });
  OnSet onGood(good, nothing);
  good.reset();
  bad.reset();
  EXPECT_TRUE(eventually([&] { return onGood.calls >= 2; }));
}

TEST(VarnTimer, OverdueTimersArePassedOnATimerThread) {
  VarnTimer overdue;
  pthread_t thread = pthread_self();
  OnSet onOverdue(overdue, [&] { thread = pthread_self(); });
  overdue.start(-5, 1, true);
  EXPECT_TRUE(eventually([&] { return onOverdue.calls == 1; }));
  EXPECT_FALSE(pthread_equal(thread, pthread_self()));
}

TEST(VarnTimer, ManyTimersFireTogether) {
  constexpr int kTimers = 200;
  std::atomic<int> fired{0};
  std::vector<std::unique_ptr<OnSet>> dependents;
  std::vector<std::unique_ptr<VarnTimer>> timers;  // destroyed first, which waits for callbacks
  for (int i = 0; i < kTimers; ++i) {
    timers.push_back(std::make_unique<VarnTimer>(500, true));
    dependents.push_back(std::make_unique<OnSet>(*timers.back(), [&] { ++fired; }));
    timers.back()->reset();
  }
  EXPECT_TRUE(eventually([&] { return fired == kTimers; }));
}
