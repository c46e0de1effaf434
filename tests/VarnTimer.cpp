#include <sys/time.h>

#include "LibraryTools.h"
#include "VarnSupport/VarnTimer.h"

using Interval = VarnTimer::TimeInterval;

TEST(VarnTimer, IntervalsNormalizeByTruncation) {
  static constexpr std::array<int, 4> cases[] = {// seconds and milliseconds before and after
                                                 {0, 1500, 1, 500},
                                                 {0, -1500, -1, -500},
                                                 {3, -1, 3, -1},
                                                 {-2, 2500, 0, 500}};
  for (const auto& [seconds, milliseconds, normalSeconds, normalMilliseconds] : cases) {
    const Interval interval(seconds, milliseconds);
    EXPECT_EQ(std::pair(normalSeconds, normalMilliseconds),
              std::pair(interval.seconds, interval.milliseconds));
  }
}

TEST(VarnTimer, IntervalsCompareAsymmetrically) {
  struct {
    Interval left, right;
    bool less, lessOrEqual, equal;
  } const rows[] = {{{1, 0}, {2, 0}, true, true, false},   {{2, 0}, {1, 0}, false, false, false},
                    {{5, 1}, {5, 900}, true, true, false}, {{5, 900}, {5, 1}, false, false, false},
                    {{7, 7}, {7, 1}, false, true, true},   {{7, 1}, {7, 7}, true, true, false},
                    {{0, 0}, {0, 0}, false, true, true}};
  for (const auto& [left, right, less, lessOrEqual, equal] : rows)
    EXPECT_EQ(std::tuple(less, lessOrEqual, equal),
              std::tuple(left < right, left <= right, left == right))
        << left.seconds << ' ' << left.milliseconds;
}

TEST(VarnTimer, PeriodicTimersRepeatAndOneShotTimersDoNotWhateverOthersThrow) {
  VarnTimer periodic(1000, false);
  VarnTimer once(1, 0, true);
  VarnTimer stopped;
  VarnTimer never(1000, false);
  VarnTimer bad(1000, false);
  Observer onBad(bad, [] { throw 1; });
  Observer onPeriodic(periodic);
  Observer onOnce(once);
  Observer onStopped(stopped);
  Observer onNever(never);
  EXPECT_TRUE(once.isOneShot());
  periodic.reset();
  bad.reset();
  VarnTimerManager::getInstance().add(once);
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
  Observer onFirst(first, [&] { order += '1'; });
  Observer onSecond(second, [&] { order += '2'; });
  // Both must be added within one second.
  ASSERT_TRUE(eventually([] {
    timeval now{};
    gettimeofday(&now, nullptr);
    return now.tv_usec > 50000 && now.tv_usec < 400000;  // time() lags a little
  }));
  first.reset();
  second.reset();
  EXPECT_TRUE(eventually([&] { return onFirst.calls + onSecond.calls == 2; }));
  EXPECT_EQ("21", order);
}

TEST(VarnTimer, ACallbackUnderWayIsWaitedForThoughItRestartsTheTimer) {
  for (const bool isDestroyed : {false, true}) {
    std::optional<VarnTimer> timer(std::in_place, 1, true);
    std::atomic<int> entered{0};
    const Observer onTimer(*timer, [&] {
      ++entered;
      sleepMs(50);
      if (!isDestroyed)
        timer->reset();
    });
    timer->reset();
    ASSERT_TRUE(eventually([&] { return entered > 0; }));
    isDestroyed ? timer.reset() : timer->stopAndWait();
    const int before = entered;
    EXPECT_EQ(before, onTimer.calls);
    sleepMs(100);
    EXPECT_EQ(before, entered);
  }
}

TEST(VarnTimer, FarDeadlinesComeLast) {
  VarnTimer never;
  VarnTimer near(1, true);
  const Observer onNever(never);
  const Observer onNear(near);
  never.start(INT_MAX, 0, true);
  near.reset();
  VarnTimerManager::getInstance().elapsed();
  EXPECT_TRUE(eventually([&] { return onNear.calls == 1; }));
  EXPECT_EQ(0, onNever.calls);
}

// Whoever owns the new timer may be waited for in the callback of the old one.
TEST(VarnTimer, ATimerAtTheAddressOfOneThatIsGoneIsAnother) {
  std::optional<VarnTimer> timer(std::in_place, 1, true);
  const Observer observer(*timer, [&] {
    timer.emplace();
    std::thread([&] { timer.reset(); }).join();
  });
  timer->reset();
  EXPECT_TRUE(eventually([&] { return observer.calls == 1; }));
}

TEST(VarnTimer, CallbacksOfOverdueTimersRunOnAnotherThreadWithTheMaskOfWhoStartedThem) {
  expectInChild([] {
    sigset_t mask;
    sigemptyset(&mask);
    sigaddset(&mask, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &mask, nullptr);
    VarnTimer overdue;
    const Observer observer(overdue, [self = VarnThread::getCurrentThreadId()] {
      EXPECT_NE(self, pthread_self());
      sigset_t now;
      pthread_sigmask(SIG_BLOCK, nullptr, &now);
      EXPECT_EQ(1, sigismember(&now, SIGHUP));
    });
    overdue.start(-5, 1, true);
    EXPECT_TRUE(eventually([&] { return observer.calls == 1; }));
  });
}

TEST(VarnTimer, ResetGoesThroughStartAfterTheShutDownAsWell) {
  EXPECT_EQ(2, runInChild([] {
              struct Counting : VarnTimer {
                using VarnTimer::start;
                void start(long, long, bool) override { ++starts; }
                int starts = 0;
              } timer;
              timer.reset();
              VSUPTFinitVarnTimer();
              timer.reset();
              return timer.starts;
            }));
}
