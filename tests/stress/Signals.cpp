// Storms of the library's own signals, from inside and outside the process.
#include "LibraryTools.h"

namespace {

constexpr int kSignals = 20000;

// Sends the three signals in turn.
void sendStorm(pid_t target) {
  const int signals[] = {SIGUSR1, SIGALRM, SIGUSR2};
  for (int i = 0; i < kSignals; ++i) {
    kill(target, signals[i % 3]);
    if (i % 64 == 0)
      std::this_thread::yield();
  }
}

}  // namespace

TEST(SignalStress, AStormLosesNothingAndTimersGoOn) {
  // Split off before there are threads, and told when to begin.
  TempFolder folder;
  const std::string begin = folder / "begin";
  const pid_t target = getpid();
  const pid_t outside = startChild([&] {
    if (!eventually([&] { return !contentsOf(begin).empty(); }))
      return 1;
    sendStorm(target);
    return 0;
  });

  FileLog log(5);
  VarnTimer periodic(1000, false);
  const Observer ticks(periodic);
  periodic.reset();

  VarnCriticalSectionObject lock;
  long turns = 0;
  // What a busy process does: allocates, locks, counts, logs and restarts timers.
  const auto beBusy = [&] {
    thread_local VarnTimer timer(1000, false);
    const VarnSmartPointer<VarnWorkInformation> counted(new VarnWorkInformation);
    const VarnCriticalSection guard(lock, true);
    std::vector<std::string> garbage(20, "a text that does not fit into a small string");
    VarnLogRecord(5) << "turn " << ++turns;
    if (turns % 8 == 0)
      timer.start(1000 + turns % 3, turns % 2 == 0);
    if (turns % 16 == 0)
      timer.stop();
  };
  {
    const std::jthread threads[] = {repeating(beBusy), repeating(beBusy), repeating(beBusy)};
    writeFile(begin, "now");
    sendStorm(target);
    EXPECT_EQ(0, outcomeOf(outside));
  }

  EXPECT_EQ(static_cast<std::size_t>(turns), log.lines().size());
  const int before = ticks.calls;
  EXPECT_TRUE(eventually([&] { return ticks.calls > before + 1; }));
  periodic.stopAndWait();
}
