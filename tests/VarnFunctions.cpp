#include "VarnSupport/VarnFunctions.h"

#include "LibraryTools.h"

TEST(VarnConnection, CallsItsFunctionForEverySource) {
  std::vector<int> ids;
  const auto note = [&](const VarnNotification& notification) {
    ids.push_back(notification.getId());
  };
  VarnCollaborator collaborator;
  VarnTimer timer;
  Task task([] { return 5; });
  int exitCode = 0;
  {
    const VarnConnection first(collaborator, note);
    const VarnConnection second(timer, note);
    const VarnConnection third(timer,
                               [&, only = std::make_unique<int>(9)] { ids.push_back(*only); });
    const VarnConnection fourth(task, [&](const VarnNotification& done) {
      exitCode = dynamic_cast<const VarnThread::ThreadDone&>(done).getExitCode();
    });
    collaborator.notify(VarnNotification(8));
    timer.set();
    task._run();
    EXPECT_TRUE(first.isConnected());
  }
  collaborator.notify(VarnNotification(8));
  timer.set();
  EXPECT_EQ((std::vector{8, 1, 9}), ids);
  EXPECT_EQ(5, exitCode);
}

TEST(VarnConnection, MaySurviveItsSourceAndGoInAnyCall) {
  auto source = std::make_unique<VarnEvent>();
  std::string order;
  std::optional<VarnConnection> own;
  VarnConnection later;
  own.emplace(*source, [&, kept = std::string("a")] {
    own.reset();
    order += kept;
    later = VarnConnection(*source, [&] { order += 'd'; });
  });
  VarnConnection moved(*source, [&] { order += 'b'; });
  const VarnConnection last(*source, [&] {
    order += 'c';
    if (order.size() > 3)
      source.reset();
  });
  source->set();
  EXPECT_EQ("abc", order);
  VarnConnection target = std::move(moved);
  VarnEvent& alias = *source;
  alias.set();
  EXPECT_EQ("abcbc", order);
  EXPECT_FALSE(moved.isConnected());  // NOLINT(bugprone-use-after-move): is told
  EXPECT_FALSE(target.isConnected() || last.isConnected() || later.isConnected());
  target.disconnect();
}

TEST(VarnConnection, ItsEndMakesNobodyMissACall) {
  VarnCollaborator source;
  Observer before(source);
  std::vector<VarnConnection> connections(3);
  std::string order;
  for (std::size_t i = 0; i < 3; ++i) {
    connections[i] = VarnConnection(source, [&, i] {
      order += static_cast<char>('0' + i);
      if (i < 2)
        connections[1 - i].disconnect();
      connections[i].disconnect();
    });
  }
  Observer behind(source);
  source.notify(VarnNotification());
  EXPECT_EQ("02", order);
  EXPECT_EQ(2, before.calls + behind.calls);
}

TEST(VarnConnection, ItsEndWaitsForTheCallsOnOtherThreadsAndForTheFunction) {
  VarnCollaborator source;
  for (int round = 0; round < 200; ++round) {
    std::atomic<int> inside{0};
    const auto captured = std::make_shared<int>();
    std::optional<VarnConnection> connection(std::in_place, source, [&, captured] {
      ++inside;
      spin(static_cast<unsigned>(round));
      --inside;
    });
    std::atomic<bool> isRunning{false};
    std::jthread notifier([&] {
      isRunning = true;
      source.notify(VarnNotification());
    });
    while (!isRunning) {
    }
    connection.reset();
    ASSERT_EQ(0, inside);
    ASSERT_EQ(1, captured.use_count());
  }
}

TEST(VarnConnection, CallsThatEndTheirOwnConnectionOnSeveralThreadsDoNotWaitForEachOther) {
  VarnCollaborator source;
  std::atomic<int> inside{0};
  VarnConnection connection(source, [&] {
    ++inside;
    EXPECT_TRUE(eventually([&] { return inside == 2; }));
    connection.disconnect();
  });
  onThreads(2, [&](int) { source.notify(VarnNotification()); });
  EXPECT_FALSE(connection.isConnected());
}

TEST(VarnConnection, WhoEndsItFromOutsideWaitsForCallsThatEndItThemselves) {
  for (int round = 0; round < 100; ++round) {
    VarnCollaborator source;
    std::atomic<int> inside{0};
    std::atomic<bool> isEnded{false};
    VarnConnection connection(source, [&] {
      const bool isFirst = ++inside == 1;
      EXPECT_TRUE(eventually([&] { return inside == 2; }));
      if (isFirst)
        connection.disconnect();
      sleepMs(2);
      EXPECT_FALSE(isEnded);
    });
    onThreads(3, [&](int thread) {
      if (thread > 0)
        return source.notify(VarnNotification());
      EXPECT_TRUE(eventually([&] { return inside == 2; }));
      connection.disconnect();
      isEnded = true;
    });
  }
}

TEST(VarnConnection, ThoseThatAreLeftAreCalledInTheirOrder) {
  Random random;
  VarnCollaborator source;
  std::vector<int> told;
  std::map<int, VarnConnection> left;
  for (int i = 0; i < 300; ++i) {
    left.emplace(std::piecewise_construct, std::forward_as_tuple(i),
                 std::forward_as_tuple(source, [&told, i] { told.push_back(i); }));
    if (i % 3 != 0)
      left.erase(std::next(left.begin(), static_cast<std::ptrdiff_t>(random() % left.size())));
    told.clear();
    source.notify(VarnNotification());
    ASSERT_EQ(left.size(), told.size());
    for (auto [called, entry] = std::pair(told.begin(), left.begin()); entry != left.end(); ++entry)
      ASSERT_EQ(entry->first, *called++);
  }
}

TEST(VarnConnection, SourcesAndConnectionsMayGoAtTheSameTime) {
  for (int round = 0; round < 500; ++round) {
    auto source = std::make_unique<VarnCollaborator>();
    std::vector<VarnConnection> connections;
    for (int i = 0; i < 5; ++i)
      connections.emplace_back(*source, [] {});
    source->notify(VarnNotification());
    onThreads(2, [&](int thread) { thread == 0 ? source.reset() : connections.clear(); });
  }
}

TEST(VarnConnection, InTheChildOfAForkOnlyTheForkersCallsGoOn) {
  if (kThreadSanitizer)
    GTEST_SKIP() << "it starts no threads in the child";
  VarnCollaborator source;
  std::atomic<bool> isOver{false};
  std::atomic<int> calls{0};
  std::atomic<bool> isGone{false};
  pid_t child = -1;
  std::jthread remover;
  std::optional<VarnConnection> connection;
  connection.emplace(source, [&] {
    if (++calls == 1) {
      EXPECT_TRUE(eventually([&] { return isOver.load(); }));
    } else if (child = fork(); child == 0) {
      remover = std::jthread([&] {
        connection.reset();
        isGone = true;
      });
      sleepMs(20);
      calls = isGone ? 1 : 2;
    }
  });
  std::jthread other([&] { source.notify(VarnNotification()); });
  EXPECT_TRUE(eventually([&] { return calls == 1; }));
  source.notify(VarnNotification());
  if (child == 0)
    _exit(eventually([&] { return isGone.load(); }) ? calls.load() : 3);
  isOver = true;
  EXPECT_EQ(2, outcomeOf(child));
}

TEST(VarnFunctionThread, RunsAFunctionAndKeepsWhatItReturns) {
  VarnFunctionThread quiet("quiet", [] {});
  VarnFunctionThread counting(
      "counting", [](VarnFunctionThread& self) { return self.getName() == "counting" ? 42 : 1; });
  for (VarnThread* const thread : {&quiet, &counting})
    thread->waitForThreadExit();
  EXPECT_TRUE(eventually([&] { return quiet.getExitCode() == 0; }));
  EXPECT_TRUE(eventually([&] { return counting.getExitCode() == 42; }));
}

TEST(VarnFunctionThread, ARequestEndsEveryWait) {
  VarnLatchedEvent never;
  VarnLatchedEvent other;
  const std::vector<VarnLatchedEvent*> both{&never, &other};
  VarnQueue<int> empty;
  VarnQueue<int> full(1);
  EXPECT_TRUE(full.give(1));
  const std::function<bool(VarnFunctionThread&)> waits[] = {
      [](auto& self) { return self.sleepFor(1h); },
      [](auto& self) { return !self.stopEvent().wait(); },
      [&](auto&) { return never.wait(); },
      [&](auto&) { return never.waitFor(1h); },
      [&](auto&) { return VarnLatchedEvent::waitForAny(both).has_value(); },
      [&](auto&) { return VarnLatchedEvent::waitForAll(both, 1h); },
      [&](auto&) { return empty.take().has_value(); },
      [&](auto&) { return empty.take(1h).has_value(); },
      [&](auto&) { return full.give(2); },
  };
  for (const auto& wait : waits) {
    for (const bool isAsleepBefore : {false, true}) {
      std::atomic<pid_t> id{0};
      VarnFunctionThread thread("waiter", [&](VarnFunctionThread& self) {
        id = gettid();
        const bool first = wait(self);
        return !first && !wait(self) && self.stopRequested() ? 3 : 4;
      });
      EXPECT_TRUE(eventually([&] { return !isAsleepBefore || (id != 0 && isAsleep(id)); }));
      thread.stop();
      thread.waitForThreadExit();
      EXPECT_TRUE(eventually([&] { return thread.getExitCode() == 3; })) << &wait - waits;
    }
  }
}

TEST(VarnFunctionThread, ItsDestructorLetsItTakeWhatIsInTheQueue) {
  VarnQueue<int> queue;
  long sum = 0;
  {
    const VarnFunctionThread taker("taker", [&] {
      while (const auto number = queue.take())
        sum += *number;
    });
    for (int i = 1; i <= 1000; ++i)
      EXPECT_TRUE(queue.give(i));
  }
  EXPECT_EQ(500500, sum);
}

TEST(VarnFunctionThread, ItsDestructorWaitsForAThreadThatWasKilled) {
  if (kThreadSanitizer)
    GTEST_SKIP() << "its threads do not survive a kill in code of their own";
  std::atomic<bool> isDone{false};
  std::atomic<bool> isInside{false};
  {
    VarnFunctionThread thread("killed", [&]() noexcept {
      isInside = true;
      sleepMs(100);
      isDone = true;
    });
    EXPECT_TRUE(eventually([&] { return isInside.load(); }));
    thread.kill();
  }
  EXPECT_TRUE(isDone);
}

TEST(VarnFunctionThread, MayDestroyItself) {
  VarnLatchedEvent isGone;
  std::atomic<VarnFunctionThread*> itself{nullptr};
  itself = new VarnFunctionThread("itself", [&, kept = std::string("kept")] {
    EXPECT_TRUE(eventually([&] { return itself != nullptr; }));
    delete itself;
    EXPECT_EQ("kept", kept);
    isGone.set();
  });
  EXPECT_TRUE(isGone.waitFor(kGenerous));
}

TEST(VarnFunctionThread, ThrowsWhenTheSystemRefusesAThread) {
  expectInBareChild([] {
    rlimit none{1, 1};
    setrlimit(RLIMIT_NPROC, &none);
    if (setuid(65534) != 0)
      return;
    EXPECT_EQ("VarnFunctionThread one: the system refuses a thread",
              resultOf([] { VarnFunctionThread("one", [] {}); }));
  });
}

TEST(VarnUncaughtHandler, IsToldOfAllThatIsDropped) {
  const FileLog log(1);
  static Notes told;
  const auto tell = +[](const std::string& origin, std::exception_ptr exception) {
    told.add(origin + ": " + VarnWhat(exception));
    throw 1;  // which is dropped
  };
  VarnSetUncaughtHandler(tell);
  struct Runnable : VarnThread::VarnRunnable {
    int run() override { throw 7; }
  };
  Task body([]() -> int { throw VarnException("body", 0); }, "one");
  VarnThread runnable(new Runnable, "two");
  VarnFunctionThread function("three", []() -> int { throw std::runtime_error("function"); });
  for (VarnThread* const thread : {static_cast<VarnThread*>(&body), &runnable}) {
    thread->start();
    thread->waitForThreadExit();
    EXPECT_EQ(0, thread->getExitCode());
  }
  function.waitForThreadExit();
  EXPECT_TRUE(eventually([&] { return function.getExitCode() == 255; }));
  VarnEvent event;
  const VarnConnection thrower(event, [] { throw VarnException("connection", 0); });
  int calls = 0;
  const VarnConnection other(event, [&] { ++calls; });
  event.set();
  EXPECT_EQ(1, calls);
  VarnTimer timer;
  const Observer observer(timer, [] { throw std::string("timer"); });
  timer.start(100, true);
  EXPECT_TRUE(told.come(5));
  VarnMonotonicTimer inLoop(1ms, [] { throw VarnException("loop", 0); });
  inLoop.startOnce();
  EXPECT_TRUE(told.come(6));
  VarnCommand command({"true"});
  command.start([](const VarnCommand::Result&) { throw std::runtime_error("done"); });
  EXPECT_TRUE(told.come(7));
  VarnSignalEvent hangUp(SIGHUP);
  const Observer ofSignal(hangUp, [] { throw std::runtime_error("signal"); });
  raise(SIGHUP);
  EXPECT_TRUE(told.come(8));
  timer.stopAndWait();
  EXPECT_EQ(tell, VarnSetUncaughtHandler(nullptr));
  Lines all = told.all();
  std::sort(all.begin(), all.begin() + 3);  // the third thread has started by itself
  EXPECT_EQ((Lines{"thread one: body", "thread three: function", "thread two: 7",
                   "a connection: connection", "a timer: timer", "VarnMonotonicTimer: loop",
                   "VarnCommand: done", "VarnSignalEvent: signal"}),
            all);
  for (const char* const text : {"thread three: function", "a connection: connection"})
    EXPECT_TRUE(
        contains(contentsOf(log.file()), std::string("An exception left the function of ") + text));
}

TEST(VarnWhat, GivesTheTextOfWhateverWasCaught) {
  struct Odd {};
  const auto textOf = [](auto throwIt) {
    try {
      throwIt();
    } catch (...) {
      return VarnWhat();
    }
    return std::string();
  };
  EXPECT_EQ("ours", textOf([] { throw VarnException("ours", 3); }));
  EXPECT_EQ("theirs", textOf([] { throw std::logic_error("theirs"); }));
  EXPECT_EQ("text", textOf([] { throw "text"; }));
  EXPECT_EQ("", textOf([] { throw static_cast<const char*>(nullptr); }));
  EXPECT_EQ("-7", textOf([] { throw -7; }));
  EXPECT_TRUE(contains(textOf([] { throw Odd(); }), "Odd"));
  EXPECT_EQ("outer: middle: inner", textOf([] {
              try {
                try {
                  throw VarnException("inner", 0);
                } catch (...) {
                  std::throw_with_nested(VarnException("middle", 0));
                }
              } catch (...) {
                std::throw_with_nested(std::runtime_error("outer"));
              }
            }));
  EXPECT_EQ("", VarnWhat() + VarnWhat(nullptr));
}

TEST(VarnWhat, LetsAKilledThreadPassThroughItsHandler) {
  killAndJoin(*startTask([] {
    try {
      VarnLatchedEvent().wait();
    } catch (...) {
      EXPECT_EQ("", VarnWhat());
    }
  }));
}
