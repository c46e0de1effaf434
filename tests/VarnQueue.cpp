#include "VarnSupport/VarnQueue.h"

#include "LibraryTools.h"

TEST(VarnQueue, GivesWhatItWasGivenInOrder) {
  using Owner = std::unique_ptr<int>;
  VarnQueue<Owner> queue(2);
  EXPECT_TRUE(queue.give(std::make_unique<int>(1)));
  Owner second = std::make_unique<int>(2);
  EXPECT_TRUE(queue.tryGive(std::move(second)));
  second = std::make_unique<int>(3);
  EXPECT_FALSE(queue.tryGive(std::move(second)));
  ASSERT_NE(nullptr, second);  // NOLINT(bugprone-use-after-move): it did not go in
  EXPECT_EQ(2U, queue.size() + queue.capacity() - 2);
  EXPECT_EQ(1, **queue.take());
  queue.close();
  EXPECT_FALSE(queue.give(std::move(second)));
  EXPECT_NE(nullptr, second);  // NOLINT(bugprone-use-after-move): nor now
  EXPECT_EQ(2, **queue.take(1h));
  EXPECT_FALSE(queue.take());
  EXPECT_TRUE(queue.isClosed());
}

TEST(VarnQueue, TakesWhateverBecomesAnElement) {
  VarnQueue<std::string> queue;
  const std::string fixed = "fixed";
  std::string own = "own";
  EXPECT_TRUE(queue.give("text") && queue.give(fixed) && queue.give(own) && queue.tryGive({'a'}));
  EXPECT_EQ("own", own);
  EXPECT_EQ("text", queue.take(0s));
  EXPECT_EQ("fixed", queue.take());
  VarnBaseProducerConsumer(queue).produceSentinel(true);
  EXPECT_EQ(0U, queue.size());
  EXPECT_EQ(std::nullopt, queue.take(-1s));
  const auto begin = Clock::now();
  EXPECT_EQ(std::nullopt, queue.take(20ms));
  EXPECT_GE(Clock::now() - begin, 20ms);
}

TEST(VarnQueue, HandsEachElementToOneOfManyInTheOrderOfItsGiver) {
  constexpr int kEach = 3000;
  for (const std::size_t capacity : {0, 1, 7}) {
    VarnQueue<std::pair<int, int>> queue(capacity);
    std::atomic<int> givers{3};
    std::atomic<long> sum{0};
    onThreads(6, [&](int thread) {
      for (int i = 1; thread < 3 && i <= kEach; ++i)
        EXPECT_TRUE(queue.give(std::pair(thread, i)));
      if (thread < 3 && --givers == 0)
        queue.close();
      std::map<int, int> last;
      while (thread >= 3) {
        const auto element = thread == 3 ? queue.take(1ms) : queue.take();
        if (!element && queue.isClosed() && queue.size() == 0)
          break;
        if (!element)
          continue;
        EXPECT_LT(last[element->first], element->second);
        last[element->first] = element->second;
        sum += element->second;
      }
    });
    EXPECT_EQ(3L * kEach * (kEach + 1) / 2, sum);
  }
}

TEST(VarnQueue, ClosingAndClearingWakeThoseWhoWait) {
  VarnQueue<int> queue(1);
  {
    const auto taker = startSleeper([&] { EXPECT_FALSE(queue.take()); });
    const auto other = startSleeper([&] { EXPECT_FALSE(queue.take(kGenerous)); });
    queue.close();
  }
  VarnQueue<int> full(1);
  EXPECT_TRUE(full.give(1));
  {
    const auto giver = startSleeper([&] { EXPECT_TRUE(full.give(2)); });
    full.clear();
  }
  {
    const auto giver = startSleeper([&] { EXPECT_FALSE(full.give(3)); });
    full.close();
  }
  EXPECT_EQ(2, full.take());
}

TEST(VarnQueue, EveryElementComesOutOnceAlthoughTakersAndGiversAreKilled) {
  if (kThreadSanitizer)
    GTEST_SKIP() << "its threads do not survive a kill in code of their own";
  // Counts itself as it goes, unless it was moved.
  struct Counted {
    Counted(int itsNumber, std::atomic<long>& itsSum) : number(itsNumber), sum(&itsSum) {}
    Counted(Counted&& other) noexcept : number(std::exchange(other.number, 0)), sum(other.sum) {}
    ~Counted() { *sum += number; }
    int number;
    std::atomic<long>* sum;
  };
  std::atomic<long> sum{0};
  std::atomic<int> given{0};
  VarnQueue<Counted> queue(1);
  Task giver([&] {
    while (queue.give(Counted(1, sum)))
      ++given;
  });
  giver.start();
  const auto end = Clock::now() + stressTime(1);
  while (Clock::now() < end) {
    Task taker([&] {
      while (queue.take()) {
      }
    });
    Task otherGiver([&] {
      while (queue.give(Counted(0, sum))) {
      }
    });
    taker.start();
    otherGiver.start();
    const int before = given;
    EXPECT_TRUE(eventually([&] { return given > before + 5; }));
    killAndJoin(otherGiver);
    killAndJoin(taker);
  }
  queue.close();
  giver.waitForThreadExit();
  while (queue.take()) {
  }
  EXPECT_EQ(given + 1, sum);  // and the one that was refused
}

TEST(VarnQueue, AWakeUpIsNotLostWithTheThreadThatGotIt) {
  if (kThreadSanitizer)
    GTEST_SKIP() << "its threads do not survive a kill in code of their own";
  for (int round = 0; round < 100; ++round) {
    VarnQueue<int> queue;
    std::atomic<bool> isTaken{false};
    const auto victim = startTask([&] { isTaken = queue.take().has_value(); });
    const auto next = startSleeper([&] { isTaken = queue.take().has_value() || isTaken; });
    std::jthread killer([&] { victim->kill(); });
    EXPECT_TRUE(queue.give(1));
    killer.join();
    EXPECT_TRUE(eventually([&] { return queue.size() == 0; }));
    queue.close();
  }
}

TEST(VarnQueue, AnElementThatCannotBeMovedIsLeftToTheNext) {
  struct Stubborn {
    explicit Stubborn(std::atomic<int>& itsFailures) : failures(itsFailures) {}
    Stubborn(Stubborn&& other) : failures(other.failures) {
      if (failures-- > 0)
        throw 7;
    }
    std::atomic<int>& failures;
  };
  std::atomic<int> failures{0};
  VarnQueue<Stubborn> queue;
  std::atomic<int> thrown{0};
  {
    const auto take = [&] {
      try {
        EXPECT_TRUE(queue.take());
      } catch (int) {
        ++thrown;
      }
    };
    const auto first = startSleeper(take);
    const auto second = startSleeper(take);
    failures = 1;
    EXPECT_THROW(queue.give(Stubborn(failures)), int);
    EXPECT_EQ(0U, queue.size());
    failures = 0;
    EXPECT_TRUE(queue.give(Stubborn(failures)));
    EXPECT_TRUE(eventually([&] { return queue.size() == 0; }));
    failures = 1;
    Stubborn quiet(failures);
    failures = 0;
    EXPECT_TRUE(queue.give(std::move(quiet)));
  }
  EXPECT_EQ(0, thrown);
}

TEST(VarnQueue, IsWholeInTheChildOfAFork) {
  VarnQueue<std::string> queue(3);
  const std::string text(100, 'x');
  const auto giver = repeating([&] { queue.tryGive(text); });
  const auto taker = repeating([&] { queue.take(1ms); });
  VarnQueue<int> idle;
  const auto sleeper = startSleeper([&] { idle.take(); });
  for (int round = 0; round < (kInstrumented ? 20 : 100); ++round) {
    expectInBareChild([&] {
      while (queue.size() > 0)
        EXPECT_EQ(text, queue.take());
      EXPECT_TRUE(queue.give(text) && queue.give(text) && queue.give(text));
      EXPECT_FALSE(queue.tryGive(text));
      EXPECT_TRUE(idle.give(1));
      EXPECT_EQ(1, idle.take());
    });
  }
  idle.close();
}
