#include "VarnSupport/VarnMonotonicTimer.h"

#include "LoopTools.h"
#include "loop/DeadlineHeap.h"

TEST(DeadlineHeap, TakesWhatIsDueInTheOrderOfDeadlinesAndOfSetting) {
  Random random;
  DeadlineHeap<int> heap;
  std::array<int, 300> items{};
  std::vector<DeadlineHeap<int>::Slot> slots;
  for (int& item : items)
    slots.push_back(heap.acquire(item));
  std::multimap<int, std::size_t> model;  // equal keys keep the order of insertion
  const auto at = [](int time) { return MonotonicTime(std::chrono::nanoseconds(time)); };
  for (int step = 0; step < 20000; ++step) {
    const std::size_t chosen = random() % items.size();
    std::erase_if(model, [&](const auto& entry) { return entry.second == chosen; });
    const int time = static_cast<int>(random() % 200);
    if (random() % 3 != 0) {
      heap.set(slots[chosen], at(time));
      model.emplace(time, chosen);
    } else {
      heap.clear(slots[chosen]);
    }
    if (random() % 8 != 0)
      continue;
    int* const due = heap.takeDue(at(time));
    const bool isExpected = !model.empty() && model.begin()->first <= time;
    ASSERT_EQ(isExpected ? &items[model.begin()->second] : nullptr, due);
    if (isExpected)
      model.erase(model.begin());
  }
}

TEST(VarnMonotonicTimer, TheNthDeadlineIsNIntervalsBehindTheStart) {
  std::atomic<int> calls{0};
  std::atomic<std::uint64_t> missed{0};
  std::vector<Clock::time_point> times;
  VarnMonotonicTimer timer(5ms, [&](std::uint64_t without) {
    times.push_back(Clock::now());
    missed += without;
    if (calls == 3)
      sleepMs(23);  // some deadlines pass
    ++calls;
  });
  const auto start = Clock::now();
  timer.start();
  ASSERT_TRUE(eventually([&] { return calls >= 40; }));
  timer.stopAndWait();
  EXPECT_GE(missed, 3U);
  const auto periods = static_cast<int>(missed) + calls;
  EXPECT_GE(times.back(), start + periods * 5ms);
  EXPECT_LT(times.back(), start + (periods + 1) * 5ms + 100ms);
  for (std::size_t i = 0; i < times.size(); ++i)
    EXPECT_GE(times[i], start + (i + 1) * 5ms);
}

TEST(VarnMonotonicTimer, OneShotsAreCalledOnceAndIntervalsSaturate) {
  std::atomic<int> calls{0};
  VarnMonotonicTimer timer(1ms, [&] { ++calls; });
  EXPECT_FALSE(timer.isActive());
  timer.startOnce();
  ASSERT_TRUE(eventually([&] { return calls == 1; }));
  EXPECT_FALSE(timer.isActive());
  timer.startOnce(0ns);
  ASSERT_TRUE(eventually([&] { return calls == 2; }));
  timer.startOnce(std::chrono::hours::max());
  EXPECT_TRUE(timer.isActive());
  timer.start(std::chrono::duration<double>(1e300));
  timer.stop();
  EXPECT_FALSE(timer.isActive());
  for (const auto interval : {0ns, -1ns})
    EXPECT_TRUE(contains(resultOf([&] { timer.start(interval); }), "not above 0"));
  EXPECT_TRUE(
      contains(resultOf([] { VarnMonotonicTimer(1s, std::function<void()>()); }), "no function"));
  sleepMs(20);
  EXPECT_EQ(2, calls);
}

TEST(VarnMonotonicTimer, AHundredThousandAreAllCalledAndEachIsStoppable) {
  constexpr int count = kInstrumented ? 10000 : 100000;
  std::atomic<int> calls{0};
  std::atomic<int> wrong{0};
  std::vector<std::unique_ptr<VarnMonotonicTimer>> timers;
  for (int i = 0; i < count; ++i) {
    timers.push_back(std::make_unique<VarnMonotonicTimer>(
        std::chrono::microseconds(200000 + i % 1000), [&, i] { ++(i % 2 == 0 ? calls : wrong); }));
    timers.back()->startOnce();
  }
  for (int i = 1; i < count; i += 2)
    timers[static_cast<std::size_t>(i)]->startOnce(1h);
  const int before = wrong;
  ASSERT_TRUE(eventually([&] { return calls == count / 2; }));
  EXPECT_EQ(before, wrong);
  timers.clear();
}

TEST(VarnMonotonicTimer, ItsFunctionMayStopStartAndDestroyIt) {
  std::atomic<int> calls{0};
  VarnMonotonicTimer stopped(1ms, [&] {
    ++calls;
    stopped.stopAndWait();
  });
  stopped.start();
  ASSERT_TRUE(eventually([&] { return calls == 1; }));
  VarnMonotonicTimer restarted(1ms, [&] {
    if (++calls < 5)
      restarted.startOnce();
  });
  restarted.startOnce();
  ASSERT_TRUE(eventually([&] { return calls == 5; }));
  const auto kept = std::make_shared<std::atomic<int>>(0);
  VarnMonotonicTimer* destroyed = nullptr;
  destroyed = new VarnMonotonicTimer(1ms, [&calls, kept, &destroyed] {
    delete std::exchange(destroyed, nullptr);
    ++*kept;
    ++calls;
  });
  destroyed->start();
  EXPECT_TRUE(eventually([&] { return calls == 6 && kept.use_count() == 1; }));
  EXPECT_EQ(1, *kept);
}

TEST(VarnMonotonicTimer, NoCallRunsBehindTheDestructor) {
  destroyWhileTheyCall([](const auto& called, VarnCallbackPool* pool) {
    auto timer = std::make_unique<VarnMonotonicTimer>(20us, called, pool);
    timer->start();
    spin(1000);
    timer->start();
    return timer;
  });
}

TEST(VarnMonotonicTimer, APoolCallsOnThreadsOfItsOwnAndOneObjectNeverTwiceAtOnce) {
  for (const int threads : {2, 1}) {
    Notes names;
    std::atomic<int> inside{0};
    std::atomic<int> most{0};
    auto pool = std::make_unique<VarnCallbackPool>(threads);
    const auto body = [&] {
      const int now = ++inside;
      most = std::max(most.load(), now);
      names.add(contentsOf("/proc/thread-self/comm"));
      sleepMs(5);
      --inside;
    };
    std::vector<std::unique_ptr<VarnMonotonicTimer>> timers;
    for (int i = 0; i < 4; ++i) {
      timers.push_back(std::make_unique<VarnMonotonicTimer>(1ms, body, pool.get()));
      timers.back()->start();
    }
    const std::string last = "vsupt-pool-" + std::to_string(threads) + '\n';
    EXPECT_TRUE(eventually([&] {
      const Lines all = names.all();
      return std::count(all.begin(), all.end(), "vsupt-pool-1\n") > 2 &&
             std::count(all.begin(), all.end(), last) > 8;
    }));
    pool.reset();  // objects are left without it
    EXPECT_EQ(0, inside);
    EXPECT_EQ(threads, most);
  }
  EXPECT_TRUE(contains(resultOf([&] { VarnCallbackPool(0); }), "0 threads"));
}

TEST(VarnMonotonicTimer, WhatAFunctionThrowsIsLoggedAndWhatItBlocksIsTold) {
  const FileLog log(1);
  const auto isLogged = [&](const std::string& text) {
    return contains(contentsOf(log.file()), text);
  };
  std::atomic<int> calls{0};
  VarnMonotonicTimer thrower(1ms, [&] {
    if (calls++ == 0)
      throw std::out_of_range("too far");
    throw VarnException("not today", 7);
  });
  thrower.start();
  ASSERT_TRUE(eventually([&] { return calls >= 2; }));
  thrower.stopAndWait();
  EXPECT_TRUE(isLogged("VarnMonotonicTimer: the function threw std::out_of_range: too far"));
  EXPECT_TRUE(isLogged("threw VarnException 7: not today"));
  std::atomic<bool> isTold{false};
  VarnMonotonicTimer blocker(
      1ms, [&] { isTold = eventually([&] { return isLogged("for more than a second"); }); });
  blocker.startOnce();
  EXPECT_TRUE(eventually([&] { return isTold.load(); }));
}

TEST(VarnMonotonicTimer, WhatBlocksAPoolIsToldOnceOthersWait) {
  const FileLog log(1);
  const auto isTold = [&] { return contains(contentsOf(log.file()), "for more than a second"); };
  VarnLatchedEvent isToEnd;
  VarnCallbackPool pool(1);
  VarnMonotonicTimer blocker(
      1ms, [&] { isToEnd.wait(); }, &pool);
  VarnMonotonicTimer other(
      1ms, [] {}, &pool);
  blocker.startOnce();
  std::this_thread::sleep_for(1500ms);
  EXPECT_FALSE(isTold());
  other.startOnce();
  EXPECT_TRUE(eventually(isTold));
  isToEnd.set();
}

TEST(VarnMonotonicTimer, AFunctionThatEndsItsThreadLeavesTheOthersGoing) {
  std::atomic<int> calls{0};
  VarnMonotonicTimer ending(1ms, [] { pthread_exit(nullptr); });
  VarnMonotonicTimer other(1ms, [&] { ++calls; });
  ending.startOnce();
  other.start();
  EXPECT_TRUE(eventually([&] { return calls >= 10; }));
}

TEST(VarnMonotonicTimer, AChildOfAForkHasNoneUntilItStartsOne) {
  std::atomic<int> calls{0};
  VarnMonotonicTimer timer(1ms, [&] { ++calls; });
  timer.start();
  ASSERT_TRUE(eventually([&] { return calls > 3; }));
  expectInBareChild([&] {
    leaksCanBeFound = false;
    EXPECT_FALSE(timer.isActive());
    EXPECT_TRUE(kThreadSanitizer || threadCount() == 1);
    timer.stopAndWait();
    const int before = calls;
    timer.start();
    VarnMonotonicTimer another(1ms, [&] { ++calls; });
    another.start();
    EXPECT_TRUE(eventually([&] { return calls > before + 10; }));
  });
  const int before = calls;
  EXPECT_TRUE(eventually([&] { return calls > before + 3; }));
}

TEST(VarnMonotonicTimer, AChildThatIsForkedInACallEndsWithIt) {
  if (kThreadSanitizer)
    GTEST_SKIP() << "its run-time library does not survive the end of such a thread";
  std::atomic<int> calls{0};
  std::atomic<pid_t> child{0};
  VarnMonotonicTimer timer(1ms, [&] {
    if (calls++ > 0)
      return;
    child = fork();
    leaksCanBeFound = child != 0;
  });
  timer.start();
  ASSERT_TRUE(eventually([&] { return calls > 3; }));
  EXPECT_EQ(0, outcomeOf(child));
}

TEST(VarnMonotonicTimer, ExitWithActiveTimersEndsInOrder) {
  static std::unique_ptr<VarnMonotonicTimer> late;
  for (const bool inCall : {false, true}) {
    EXPECT_EQ(7, runInChild([&] {
                leaksCanBeFound = false;
                static std::vector<int>* const values = new std::vector<int>(1000);
                struct Clearing {
                  ~Clearing() {
                    delete values;
                    sleepMs(20);
                  }
                };
                static const Clearing clearing;
                static std::atomic<int> calls{0};
                late = std::make_unique<VarnMonotonicTimer>(1ms, [&] {
                  values->at(999) = ++calls;
                  if (inCall && calls > 3)
                    std::exit(7);
                });
                late->start();
                eventually([&] { return calls > 3; });
                return inCall ? (sleepMs(5000), 1) : 7;
              }));
  }
}

TEST(VarnMonotonicTimer, ExitDoesNotWaitForEverForFunctionsThatHang) {
  EXPECT_EQ(7, runInChild([] {
              leaksCanBeFound = false;
              static std::atomic<int> hanging{0};
              static int ends[2];
              if (pipe2(ends, O_CLOEXEC) != 0)
                return 1;
              static const auto hang = [] {
                ++hanging;
                while (true)
                  pause();
              };
              static VarnCallbackPool pool(2);
              static VarnMonotonicTimer timer(1ms, hang, &pool);
              static const VarnDescriptorEvent event(
                  ends[1], VarnDescriptorEvent::WRITABLE, [](unsigned) { hang(); }, &pool);
              timer.start();
              return eventually([] { return hanging == 2; }) ? 7 : 2;
            }));
}

TEST(VarnMonotonicTimer, TheThreadsEndWhenNothingIsLeft) {
  expectInChild([] {
    const int before = threadCount();
    for (int round = 0; round < 2; ++round) {
      std::atomic<int> calls{0};
      {
        VarnMonotonicTimer timer(1ms, [&] { ++calls; });
        timer.start();
        EXPECT_TRUE(eventually([&] { return calls > 0; }));
        EXPECT_EQ(before + 2, threadCount());
      }
      EXPECT_TRUE(eventually([&] { return threadCount() == before; }));
    }
  });
}
