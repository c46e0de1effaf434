// Storms of the library's own signals, from inside and outside the process.
#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <memory>
#include <thread>
#include <vector>

#include "TestTools.h"

using namespace VarnSupport;
using namespace TestTools;

namespace {

constexpr int kSignals = 20000;

struct Counter : VarnDependent {
  void handleNotification(VarnCollaborator&, const VarnNotification&) override { ++count; }
  std::atomic<int> count{0};
};

// Sends the three signals in turn; from another process when `fromOutside`.
void sendStorm(pid_t target) {
  const int signals[] = {SIGUSR1, SIGALRM, SIGUSR2};
  for (int i = 0; i < kSignals; ++i) {
    kill(target, signals[i % 3]);
    if (i % 64 == 0)
      std::this_thread::yield();
  }
}

// What a busy process does: allocates, locks, counts, logs and restarts timers.
void beBusy(const std::atomic<bool>& stop, VarnCriticalSectionObject& lock, long& turns) {
  VarnTimer timer(1000, false);
  while (!stop) {
    const VarnSmartPointer<VarnWorkInformation> counted(new VarnWorkInformation);
    const VarnCriticalSection guard(lock, true);
    std::vector<std::string> garbage(20, "a text that does not fit into a small string");
    VarnLogRecord(5) << "turn " << ++turns;
    if (turns % 8 == 0)
      timer.start(1000 + turns % 3, turns % 2 == 0);
    if (turns % 16 == 0)
      timer.stop();
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
  Counter ticks;
  VarnTimer periodic(1000, false);
  periodic.addDependent(ticks);
  periodic.reset();

  std::atomic<bool> stop{false};
  VarnCriticalSectionObject lock;
  long turns = 0;
  std::vector<std::thread> threads;
  for (int i = 0; i < 3; ++i)
    threads.emplace_back([&] { beBusy(stop, lock, turns); });

  writeFile(begin, "now");
  std::thread inside([&] { sendStorm(target); });
  inside.join();
  EXPECT_EQ(0, outcomeOf(outside));
  stop = true;
  for (std::thread& thread : threads)
    thread.join();

  EXPECT_EQ(static_cast<std::size_t>(turns), log.lines().size());
  const int before = ticks.count;
  EXPECT_TRUE(eventually([&] { return ticks.count > before + 1; }));
  periodic.stopAndWait();
}
