#include "VarnSupport/VarnSignalEvent.h"

#include "LibraryTools.h"

namespace {

void handled(int) {}

sighandler_t actionOf(int signal) {
  struct sigaction action {};
  sigaction(signal, nullptr, &action);
  return action.sa_handler;
}

// An event that goes before its observer does.
struct Watched {
  template <typename Action>
  Watched(int signal, Action action) : event(signal) {
    observer.emplace(event, action);
  }

  std::optional<Observer> observer;
  VarnSignalEvent event;
};

}  // namespace

TEST(VarnSignalEvent, RefusesWhatTheLibraryNeedsAndWhatCannotBeCaught) {
  const std::pair<int, const char*> refused[] = {
      {0, "signal 0 does not exist"},
      {65, "signal 65 does not exist"},
      {SIGKILL, "signal 9 (SIGKILL) cannot be an event"},
      {SIGSEGV, "signal 11 (SIGSEGV) cannot be an event"},
      {SIGABRT, "signal 6 (SIGABRT) cannot be an event"},
      {SIGUSR1, "signal 10 (SIGUSR1) belongs to the library"},
      {SIGUSR2, "signal 12 (SIGUSR2) belongs to the library"}};
  for (const auto& [signal, text] : refused)
    EXPECT_EQ(std::string("VarnSignalEvent: ") + text,
              resultOf([number = signal] { VarnSignalEvent event(number); }));
}

TEST(VarnSignalEvent, PutsBackWhatWasThereWhenTheLastOneGoes) {
  expectInChild([] {
    signal(SIGHUP, handled);
    signal(SIGWINCH, SIG_IGN);
    {
      auto first = std::make_unique<VarnSignalEvent>(SIGHUP);
      VarnSignalEvent second(SIGHUP);
      VarnSignalEvent window(SIGWINCH);
      first.reset();
      raise(SIGHUP);
      raise(SIGWINCH);
      EXPECT_EQ(1U, second.take());
      EXPECT_EQ(1U, window.take());
    }
    EXPECT_EQ(handled, actionOf(SIGHUP));
    EXPECT_EQ(SIG_IGN, actionOf(SIGWINCH));
    {
      VarnSignalEvent event(SIGHUP);
      signal(SIGHUP, SIG_IGN);
    }
    EXPECT_EQ(SIG_IGN, actionOf(SIGHUP));
  });
}

TEST(VarnSignalEvent, TakeMissesNoDelivery) {
  expectInChild([] {
    VarnSignalEvent event(SIGHUP);
    VarnSignalEvent queued(SIGRTMIN + 3);
    for (const auto limit : {0ms, -1ms, 20ms})
      EXPECT_EQ(0U, event.take(limit));
    constexpr std::uint64_t kMany = 500;
    const std::jthread sender([] {
      for (std::uint64_t i = 0; i < kMany; ++i) {
        kill(getpid(), SIGHUP);
        sigqueue(getpid(), SIGRTMIN + 3, {});
      }
    });
    std::uint64_t taken = 0;
    for (std::uint64_t more = 1; more > 0 && taken < kMany; taken += more)
      more = queued.take(kGenerous);
    EXPECT_EQ(kMany, taken);
    EXPECT_EQ(kMany, queued.deliveries());
    EXPECT_LE(1U, event.take());
  });
}

TEST(VarnSignalEvent, ADeliveryDuringTheCallbackSetsItOnceMore) {
  expectInChild([] {
    std::atomic<int> inside{0};
    std::atomic<int> calls{0};
    std::atomic<std::uint64_t> delivered{0};
    Watched watched(SIGHUP, [&] {
      EXPECT_EQ(1, ++inside);
      if (++calls == 1) {
        raise(SIGHUP);
        raise(SIGHUP);
        eventually([&] { return delivered == 3; });
      }
      --inside;
    });
    raise(SIGHUP);
    eventually([&] { return (delivered = watched.event.deliveries()) == 3; });
    EXPECT_TRUE(eventually([&] { return calls >= 2; }));
  });
}

TEST(VarnSignalEvent, ACallbackMayThrowOrDestroyItsEvent) {
  expectInChild([] {
    FileLog log(1);
    auto event = std::make_unique<VarnSignalEvent>(SIGHUP);
    const Observer destroyer(*event, [&](auto&, auto&) {
      if (event->deliveries() == 1)
        throw 1;
      event.reset();
    });
    raise(SIGHUP);
    EXPECT_EQ(1U, event->take(kGenerous));
    EXPECT_TRUE(eventually([&] { return !log.texts().empty(); }));
    raise(SIGHUP);
    EXPECT_TRUE(eventually([&] { return destroyer.calls == 1; }));
    EXPECT_EQ(SIG_DFL, actionOf(SIGHUP));
    EXPECT_EQ(Lines{"VarnSignalEvent: a dependent has thrown an exception"}, log.texts());
  });
}

TEST(VarnSignalEvent, NoCallbackRunsAfterItsDestructor) {
  expectInChild([] {
    signal(SIGHUP, SIG_IGN);
    std::atomic<bool> lives{false};
    const std::jthread sender = repeating([] { kill(getpid(), SIGHUP); });
    int calls = 0;
    const auto end = Clock::now() + stressTime(1);
    for (unsigned round = 0; Clock::now() < end; ++round) {
      auto event = std::make_unique<VarnSignalEvent>(SIGHUP);
      lives = true;
      const Observer observer(*event, [&] {
        spin(2000);
        EXPECT_TRUE(lives);
      });
      spin(round % 50 * 5000);
      event.reset();
      lives = false;
      calls += observer.calls;
    }
    EXPECT_LT(0, calls);
  });
}

// A service answers to its signals as ever.
TEST(VarnSignalEvent, SharesTheSignalsOfAService) {
  struct Service : VarnService {
    bool onStart(const std::string&) override { return true; }
    void onStop() override { EXPECT_EQ(1U, terminate.take(kGenerous)); }
    VarnSignalEvent terminate{SIGTERM};
  };
  expectInChild([] {
    auto service = std::make_unique<Service>();
    const std::jthread sender([&] {
      eventually([&] { return service->state() == 0; });
      eventually([] { return actionOf(SIGPIPE) != SIG_DFL; });
      raise(SIGTERM);
    });
    EXPECT_TRUE(service->start("", false));
    service.reset();
    raise(SIGTERM);  // stays routed
  });
}

TEST(VarnSignalEvent, GoesOnInTheChildOfAFork) {
  if (kInstrumented)
    return;  // a child of a process with threads cannot start any there
  expectInChild([] {
    VarnSignalEvent event(SIGHUP);
    const Observer observer(event);
    raise(SIGHUP);
    ASSERT_TRUE(eventually([&] { return observer.calls == 1; }));
    std::atomic<bool> mayGo{false};
    const std::jthread other([&] {
      signal(SIGWINCH, handled);
      VarnSignalEvent onOtherStack(SIGWINCH);
      eventually([&] { return mayGo.load(); });
    });
    eventually([] { return actionOf(SIGWINCH) != SIG_DFL && actionOf(SIGWINCH) != handled; });
    expectInBareChild([&] {
      EXPECT_EQ(0U, event.take(0ms));
      EXPECT_EQ(handled, actionOf(SIGWINCH));
      raise(SIGHUP);
      EXPECT_EQ(1U, event.take(kGenerous));
      EXPECT_TRUE(eventually([&] { return observer.calls == 2; }));
    });
    mayGo = true;
    EXPECT_EQ(1U, event.take(0ms));
  });
}

TEST(VarnSignalEvent, GoesOnInTheChildThatItsCallbackForks) {
  if (kInstrumented)
    return;
  expectInChild([] {
    std::atomic<pid_t> child{0};
    VarnSignalEvent* event = nullptr;
    Watched watched(SIGHUP, [&] {
      child = fork();
      if (child == 0)
        _exit(raise(SIGHUP) == 0 && event->take(kGenerous) == 1 ? 5 : 6);
    });
    event = &watched.event;
    raise(SIGHUP);
    ASSERT_TRUE(eventually([&] { return child != 0; }));
    EXPECT_EQ(5, outcomeOf(child));
  });
}

TEST(VarnSignalEvent, AKilledThreadLeavesTake) {
  expectInChild([] {
    VarnSignalEvent event(SIGHUP);
    killAndJoin(*startTask([&] { event.take(); }));
    raise(SIGHUP);
    EXPECT_EQ(1U, event.take(kGenerous));
  });
}
