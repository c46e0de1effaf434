#include "VarnSupport/VarnLatchedEvent.h"

#include "LibraryTools.h"

TEST(VarnLatchedEvent, RemembersThatItWasSet) {
  VarnLatchedEvent event;
  EXPECT_FALSE(event.isSet());
  EXPECT_FALSE(event.waitFor(0s));
  event.set();
  event.set();
  EXPECT_TRUE(event.isSet() && event.wait() && event.waitFor(-1s));
  event.reset();
  event.reset();
  EXPECT_FALSE(event.isSet());
  EXPECT_TRUE(VarnLatchedEvent(true).wait());
}

TEST(VarnLatchedEvent, WaitsWithALimitOfAnyUnit) {
  VarnLatchedEvent event;
  VarnLatchedEvent other;
  const auto begin = Clock::now();
  EXPECT_FALSE(event.waitFor(30ms));
  EXPECT_FALSE(event.waitFor(std::chrono::duration<double>(0.03)));
  EXPECT_FALSE(VarnLatchedEvent::waitForAny({&event, &other}, 30ms));
  EXPECT_FALSE(VarnLatchedEvent::waitForAll({&event, &other}, 30'000us));
  EXPECT_GE(Clock::now() - begin, 120ms);
  EXPECT_FALSE(event.waitFor(std::chrono::duration<double>(-INFINITY)));
  for (const bool hours : {false, true}) {
    event.reset();
    const auto waiter = startSleeper([&] {
      EXPECT_TRUE(hours ? event.waitFor(std::chrono::hours::max())
                        : event.waitFor(std::chrono::duration<double>(INFINITY)));
    });
    event.set();
  }
}

TEST(VarnLatchedEvent, WaitsForTheFirstOrTheLastOfSeveral) {
  VarnLatchedEvent events[3];
  const std::vector<VarnLatchedEvent*> all{&events[0], &events[1], &events[2], &events[1]};
  EXPECT_FALSE(VarnLatchedEvent::waitForAny({}));
  EXPECT_TRUE(VarnLatchedEvent::waitForAll({}));
  {
    const auto waiter = startSleeper([&] { EXPECT_EQ(1U, VarnLatchedEvent::waitForAny(all)); });
    events[1].set();
  }
  {
    std::atomic<bool> isDone{false};
    const auto waiter = startSleeper([&] { isDone = VarnLatchedEvent::waitForAll(all); });
    events[0].set();
    EXPECT_FALSE(VarnLatchedEvent::waitForAll(all, 10ms) || isDone);
    events[0].reset();  // it was set since the wait began
    events[2].set();
    EXPECT_TRUE(eventually([&] { return isDone.load(); }));
  }
  EXPECT_EQ(1U, VarnLatchedEvent::waitForAny(all));
}

TEST(VarnLatchedEvent, EndsTheWaitsUnderWayThoughAResetFollowsAtOnce) {
  VarnLatchedEvent event;
  VarnLatchedEvent other;
  const auto first = startSleeper([&] { EXPECT_TRUE(event.wait()); });
  const auto second = startSleeper([&] { EXPECT_TRUE(event.waitFor(kGenerous)); });
  const auto third = startSleeper([&] {
    EXPECT_EQ(1U, VarnLatchedEvent::waitForAny({&other, &event}));
  });
  event.set();
  event.reset();
}

TEST(VarnLatchedEvent, MayBeDestroyedAsSoonAsItIsSeenSet) {
  std::atomic<VarnLatchedEvent*> current{nullptr};
  std::atomic<bool> isOver{false};
  std::jthread setter([&] {
    while (!isOver) {
      if (VarnLatchedEvent* const event = current.exchange(nullptr))
        event->set();
    }
  });
  const auto end = Clock::now() + 300ms;
  VarnLatchedEvent never;
  for (int round = 0; Clock::now() < end; ++round) {
    const auto event = std::make_unique<VarnLatchedEvent>();
    current = event.get();
    if (round % 3 == 0) {
      EXPECT_TRUE(event->wait());
    } else if (round % 3 == 1) {
      EXPECT_EQ(1U, VarnLatchedEvent::waitForAny({&never, event.get()}));
    }
    while (!event->isSet()) {
    }
  }
  isOver = true;
}

TEST(VarnLatchedEvent, LosesNoSetBetweenThreadsThatTakeTurns) {
  VarnLatchedEvent asked;
  VarnLatchedEvent answered;
  int shared = 0;
  constexpr int kTurns = 5000;
  std::jthread other([&] {
    for (int turn = 0; turn < kTurns; ++turn) {
      EXPECT_TRUE(asked.wait());
      asked.reset();
      ++shared;
      answered.set();
    }
  });
  for (int turn = 0; turn < kTurns; ++turn) {
    ++shared;
    asked.set();
    EXPECT_TRUE(turn % 2 == 0 ? answered.waitFor(kGenerous)
                              : VarnLatchedEvent::waitForAll({&answered}, kGenerous));
    answered.reset();
  }
  EXPECT_EQ(2 * kTurns, shared);
}

TEST(VarnLatchedEvent, WaitersThatAreKilledLeaveNothingBehind) {
  VarnLatchedEvent event;
  VarnLatchedEvent other;
  for (const bool several : {false, true}) {
    killAndJoin(*startTask([&] {
      several ? VarnLatchedEvent::waitForAll({&event, &other}) : event.wait();
    }));
  }
  event.set();
  EXPECT_TRUE(event.wait());
}

TEST(VarnLatchedEvent, WorksInTheChildOfAForkOfAWaitedForProcess) {
  VarnLatchedEvent event;
  VarnLatchedEvent other;
  const auto first = startSleeper([&] { event.wait(); });
  const auto second = startSleeper([&] { VarnLatchedEvent::waitForAll({&event, &other}); });
  expectInBareChild([&] {
    EXPECT_FALSE(event.waitFor(1ms));
    EXPECT_FALSE(VarnLatchedEvent::waitForAll({&event, &other}, 1ms));
    event.set();
    other.set();
    EXPECT_TRUE(VarnLatchedEvent::waitForAll({&event, &other}));
    EXPECT_TRUE(event.wait());
  });
  event.set();
  other.set();
}

// Other threads may be at it, or about to, in exit().
TEST(VarnLatchedEvent, LeavesItsMemoryWhereItIsWhenItIsStatic) {
  const auto stateOf = [](const VarnLatchedEvent& event) {
    void* state = nullptr;
    static_assert(sizeof event == sizeof state);
    std::memcpy(&state, static_cast<const void*>(&event), sizeof state);
    return state;
  };
  static std::optional<VarnLatchedEvent> event(std::in_place);
  const void* const state = stateOf(*event);
  event.reset();
  const auto others = std::make_unique<std::array<VarnLatchedEvent, 8>>();
  EXPECT_TRUE(std::none_of(others->begin(), others->end(),
                           [&](const VarnLatchedEvent& other) { return stateOf(other) == state; }));
}
