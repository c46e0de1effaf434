// Processes that exit while everything else is under way.
#include "LibraryTools.h"

TEST(ProcessStress, ExitFromAnywhereKeepsItsCode) {
  const auto exitsAmongOthers = [](const std::function<void()>& exiting) {
    static FileLog log(9);
    static VarnTimer timer(1000, false);
    timer.reset();
    log.log() << "an open record";
    log.log().endrecord();
    static VarnEvent never;
    static struct : VarnBaseSynchronizedQueue {
      void clear() override {}
    } queue;
    static VarnBaseProducerConsumer consumers(queue);
    startSleeper([] { never.wait(-1); }).detach();
    startSleeper([] {
      consumers.lockSyncMutex();
      while (true)
        consumers.waitForSyncEvent();
    }).detach();
    exiting();
    sleepMs(30000);
    return 1;
  };
  const std::function<void()> places[] = {
      [] { std::exit(7); }, [] { std::thread([] { std::exit(7); }).detach(); },
      [] {
        static VarnTimer last(1, true);
        static const Observer callback(last, [] { std::exit(7); });
        last.reset();
      },
      [] {
        struct Worker : VarnThread {
          int run() override { std::exit(7); }
        };
        (new Worker)->start();
      }};
  const auto end = Clock::now() + stressTime(1);
  do {
    for (const auto& place : places)
      EXPECT_EQ(7, runInChild([&] { return exitsAmongOthers(place); })) << &place - places;
  } while (Clock::now() < end);
}

// Static objects that are younger than the timers' manager, and wait for what never returns.
TEST(ProcessStress, ExitWaitsOnlyForAWhileForCallbacksAndBodiesThatHang) {
  if (kThreadSanitizer)
    return;  // what hangs goes on while its object is destroyed
  static std::atomic<bool> hangs{false};
  const auto hangInACallback = [] {
    VarnTimer(1000, true).reset();
    static VarnTimer timer(1, true);
    static const Observer callback(timer, [] {
      hangs = true;
      pause();
    });
    timer.reset();
  };
  struct Worker : VarnThread {
    int run() override {
      hangs = true;
      return pause();
    }
  };
  const auto hangInABody = [] {
    static Worker worker;
    worker.start();
  };
  // Its handler is younger than the library's, and comes first.
  const auto hangInABodyEndedByAHandler = [] {
    static Worker* worker = nullptr;
    worker = new Worker;
    worker->start();
    std::atexit([] { delete worker; });
  };
  const auto hangInRecordsOfLogs = [] {
    static FileLog logs[3]{FileLog(9), FileLog(9), FileLog(9)};
    for (FileLog& log : logs) {
      hangs = false;
      VarnLogging::setInstance(log.log());
      std::thread([] {
        const VarnLogRecord open(5);
        hangs = true;
        pause();
      }).detach();
      EXPECT_TRUE(eventually([] { return hangs.load(); }));
    }
  };
  const auto begin = Clock::now();
  std::vector<pid_t> children;
  for (const std::function<void()> hang :
       {+hangInACallback, +hangInABody, +hangInABodyEndedByAHandler, +hangInRecordsOfLogs}) {
    children.push_back(startChild([&] {
      hang();
      EXPECT_TRUE(eventually([] { return hangs.load(); }));
      return hangs ? 7 : 1;
    }));
  }
  for (const pid_t child : children)
    EXPECT_EQ(7, outcomeOf(child));
  EXPECT_LT(Clock::now() - begin, 8s);
}

TEST(ProcessStress, AThreadThatIsKilledInsideExitEndsTheProcess) {
  if (kThreadSanitizer)
    return;  // the platform cancels the thread there
  const auto exitMeanwhile = [] {
    static std::atomic<bool> exits{false};
    struct Worker : VarnThread {
      int run() override { std::exit(7); }
    };
    std::atexit([] {
      exits = true;
      sleepMs(300);
    });
    auto* const worker = new Worker;
    worker->start();
    EXPECT_TRUE(eventually([] { return exits.load(); }));
    worker->kill();
    sleepMs(30000);
    return 1;
  };
  EXPECT_EQ(7, runInChild(exitMeanwhile));
}
