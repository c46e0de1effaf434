// Timers on a clock that is set, and in a process that is stopped for a while.
#include <ctime>

#include "LibraryTools.h"

namespace {

std::atomic<long> clockOffset{0};

}  // namespace

// What the library takes for the wall clock.
extern "C" std::time_t time(std::time_t* result) noexcept {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  const std::time_t seconds = now.tv_sec + clockOffset;
  if (result != nullptr)
    *result = seconds;
  return seconds;
}

TEST(ClockStress, TimersMeasureTimeAlthoughTheClockIsSet) {
  for (const long step : {3600L, -3600L}) {
    VarnTimer timer(3000, true);
    const Observer counter(timer);
    const auto start = Clock::now();
    timer.reset();
    sleepMs(300);
    clockOffset += step;
    // Another timer makes the manager look at the clock at once.
    VarnTimer other(60000, true);
    other.reset();
    EXPECT_TRUE(eventually([&] { return counter.calls == 1; }, 10s));
    EXPECT_GT(Clock::now() - start, 1900ms);
    timer.stopAndWait();
  }
}

TEST(ClockStress, APeriodicTimerOutlivesAStopOfTheProcess) {
  expectInChild([] {
    VarnTimer timer(1000, false);
    const Observer counter(timer);
    timer.reset();
    startBareChild([self = getpid()] {
      sleepMs(3500);
      kill(self, SIGCONT);
    });
    raise(SIGSTOP);
    const int before = counter.calls;
    EXPECT_TRUE(eventually([&] { return counter.calls >= before + 2; }));
    timer.stopAndWait();
  });
}

TEST(ClockStress, TheLogWritesYearsBeyondTheCalendarsAndZerosWhereNoneIsLeft) {
  FileLog log(5);
  const auto dateAt = [&](long time) {
    clockOffset += time - std::time(nullptr);
    VarnLogRecord(5) << "text";
    clockOffset = 0;
    return log.lines().back();
  };
  EXPECT_TRUE(dateAt(67768036191500000).starts_with("214748554712"));
  EXPECT_TRUE(dateAt(67768036191800000).starts_with("00000000_00:00:00 5 Global "));
}
