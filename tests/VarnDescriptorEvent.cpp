#include "VarnSupport/VarnDescriptorEvent.h"

#include <sys/eventfd.h>
#include <sys/socket.h>

#include <ctime>

#include "LoopTools.h"

namespace {

using Event = VarnDescriptorEvent;

// Two connected sockets that do not block.
struct Pair {
  Pair() { EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends)); }
  Pair(const Pair&) = delete;
  Pair& operator=(const Pair&) = delete;
  ~Pair() {
    close(ends[0]);
    close(ends[1]);
  }
  void send(char value = 'x') const { EXPECT_EQ(1, write(ends[1], &value, 1)); }
  int take() const {
    char value = 0;
    return read(ends[0], &value, 1) == 1 ? value : -1;
  }

  int ends[2] = {-1, -1};
};

// Processor time of the process, for what must not keep it busy.
double cpuSeconds() { return static_cast<double>(std::clock()) / CLOCKS_PER_SEC; }

// Whether the process does next to nothing for a while.
bool isQuiet() {
  sleepMs(20);
  const double before = cpuSeconds();
  sleepMs(200);
  return cpuSeconds() - before < 0.1;
}

}  // namespace

TEST(VarnDescriptorEvent, TellsWhatHasCome) {
  const Pair pair;
  std::atomic<unsigned> come{0};
  std::atomic<int> taken{0};
  Event event(pair.ends[0], Event::READABLE | Event::HUNG_UP, [&](unsigned events) {
    come = events;
    if (pair.take() == 'x')
      ++taken;
    if ((events & Event::HUNG_UP) != 0)
      event.setEvents(0);
  });
  EXPECT_EQ(pair.ends[0], event.descriptor());
  for (int i = 1; i <= 100; ++i) {
    pair.send();
    ASSERT_TRUE(eventually([&] { return taken == i; }));
  }
  EXPECT_EQ(Event::READABLE, come);
  event.setEvents(Event::WRITABLE);
  EXPECT_TRUE(eventually([&] { return come == Event::WRITABLE; }));
  event.setEvents(Event::HUNG_UP);
  shutdown(pair.ends[1], SHUT_WR);
  EXPECT_TRUE(eventually([&] { return come == Event::HUNG_UP; }));
  EXPECT_TRUE(isQuiet());
}

TEST(VarnDescriptorEvent, AnEdgeIsToldOnceAndALevelUntilItIsTaken) {
  const Pair edge;
  const Pair level;
  std::atomic<int> edges{0};
  std::atomic<int> levels{0};
  const Event onEdge(edge.ends[0], Event::READABLE | Event::EDGE, [&](unsigned) { ++edges; });
  const Event onLevel(level.ends[0], Event::READABLE, [&](unsigned) {
    if (++levels == 10)
      level.take();
  });
  edge.send();
  level.send();
  EXPECT_TRUE(eventually([&] { return levels == 10 && edges == 1; }));
  edge.send();
  EXPECT_TRUE(eventually([&] { return edges == 2; }));
  EXPECT_TRUE(isQuiet());
  EXPECT_EQ(2, edges);
}

TEST(VarnDescriptorEvent, SeveralObjectsHaveOneDescriptor) {
  const Pair pair;
  std::atomic<int> reads{0};
  std::atomic<int> writes{0};
  VarnCallbackPool pool(2);
  auto reader = std::make_unique<Event>(pair.ends[0], Event::READABLE, [&](unsigned events) {
    EXPECT_EQ(Event::READABLE, events);
    if (pair.take() > 0)
      ++reads;
  });
  for (VarnCallbackPool* const own : {static_cast<VarnCallbackPool*>(nullptr), &pool}) {
    reads = writes = 0;
    const Event writer(
        pair.ends[0], Event::WRITABLE, [&](unsigned) { ++writes; }, own);
    pair.send();
    EXPECT_TRUE(eventually([&] { return reads == 1 && writes > 10; }));
  }
  EXPECT_TRUE(isQuiet());
  EXPECT_TRUE(contains(
      resultOf([&] { Event(pair.ends[0], Event::READABLE | Event::EDGE, [](unsigned) {}); }),
      "EDGE"));
  reader.reset();
  const Event edge(pair.ends[0], Event::READABLE | Event::EDGE, [](unsigned) {});
}

TEST(VarnDescriptorEvent, WhatCannotBeWaitedForIsRefusedWithTheSystemsCode) {
  const TempFolder folder;
  const int file = open((folder / "file").c_str(), O_CREAT | O_RDWR | O_CLOEXEC, 0600);
  for (const auto& [descriptor, code] : {std::pair(file, EPERM), {-1, EBADF}, {9999, EBADF}}) {
    try {
      const Event event(descriptor, Event::READABLE, [](unsigned) {});
      ADD_FAILURE() << descriptor;
    } catch (const VarnException& refusal) {
      EXPECT_EQ(code, refusal.getCode());
      EXPECT_TRUE(contains(refusal.getText(), "descriptor " + std::to_string(descriptor)));
    }
  }
  close(file);
}

TEST(VarnDescriptorEvent, APoolLooksAtADescriptorAgainWhenTheCallHasEnded) {
  const Pair pair;
  VarnCallbackPool pool(3);
  std::atomic<int> inside{0};
  std::atomic<int> taken{0};
  const Event event(
      pair.ends[0], Event::READABLE | Event::HUNG_UP,
      [&](unsigned) {
        EXPECT_EQ(0, inside++);
        sleepMs(50);
        while (pair.take() > 0)
          ++taken;
        --inside;
      },
      &pool);
  pair.send();
  sleepMs(10);
  pair.send();
  const double before = cpuSeconds();
  EXPECT_TRUE(eventually([&] { return taken == 2; }));
  pair.send();
  EXPECT_TRUE(eventually([&] { return taken == 3; }));
  EXPECT_LT(cpuSeconds() - before, 0.1);
}

TEST(VarnDescriptorEvent, IsDestroyedWhileItFires) {
  struct Readable {
    Readable(const std::function<void()>& called, VarnCallbackPool* pool)
        : event(
              pair.ends[0], Event::READABLE, [called](unsigned) { called(); }, pool) {
      pair.send();
    }
    const Pair pair;
    const Event event;
  };
  destroyWhileTheyCall([](const auto& called, VarnCallbackPool* pool) {
    return std::make_unique<Readable>(called, pool);
  });
}

// The other end of a duplicate keeps the registration alive, and a number comes back.
TEST(VarnDescriptorEvent, ADescriptorThatIsClosedFirstKeepsNobodyBusy) {
  const FileLog log(1);
  for (const bool isKeptOpen : {false, true}) {
    Pair pair;
    std::atomic<int> calls{0};
    const Event event(pair.ends[0], Event::READABLE, [&](unsigned) { ++calls; });
    const int kept = isKeptOpen ? fcntl(pair.ends[0], F_DUPFD_CLOEXEC, 0) : -1;
    close(std::exchange(pair.ends[0], -1));
    if (isKeptOpen) {
      pair.send();
      EXPECT_TRUE(
          eventually([&] { return contains(contentsOf(log.file()), "was closed before"); }));
    }
    EXPECT_TRUE(isQuiet());
    const int before = calls;
    const Pair another;  // may have the number
    std::atomic<int> others{0};
    const Event onAnother(another.ends[0], Event::READABLE,
                          [&](unsigned) { others += another.take() > 0 ? 1 : 0; });
    another.send();
    EXPECT_TRUE(eventually([&] { return others == 1; }));
    EXPECT_EQ(before, calls);
    close(kept);
  }
}

// As it is when the child of a fork keeps the file open, and the number is taken at once.
TEST(VarnDescriptorEvent, IsNotCalledForTheNextFileOfItsNumber) {
  VarnCallbackPool pool(2);
  const auto expectNoCall = [](unsigned events, VarnCallbackPool* own) {
    const FileLog log(1);
    const Pair next;
    const Pair pair;
    std::atomic<int> calls{0};
    const auto count = [&](unsigned) { ++calls; };
    const Event event(pair.ends[0], events, count, own);
    const Event another(pair.ends[0], events, count);
    const int kept = fcntl(pair.ends[0], F_DUPFD_CLOEXEC, 0);
    dup2(next.ends[0], pair.ends[0]);
    pair.send();
    EXPECT_TRUE(eventually([&] { return contains(contentsOf(log.file()), "was closed before"); }));
    EXPECT_TRUE(isQuiet());
    next.send();
    EXPECT_TRUE(isQuiet());
    EXPECT_EQ(0, calls);
    close(kept);
  };
  expectNoCall(Event::READABLE, nullptr);
  expectNoCall(Event::READABLE, &pool);
  expectNoCall(Event::READABLE | Event::EDGE, nullptr);
  expectNoCall(Event::READABLE | Event::EDGE, &pool);
}

TEST(VarnDescriptorEvent, IsNotCalledForTheNextFileWhenItWaitsAnewOrOthersAreRepaired) {
  const FileLog log(1);
  const auto isTold = [&](const Pair& pair) {
    return contains(contentsOf(log.file()),
                    "descriptor " + std::to_string(pair.ends[0]) + ": it was");
  };
  const Pair next;
  const Pair idle;
  const Pair other;
  const Pair busy;
  std::atomic<int> calls{0};
  const auto count = [&](unsigned) { ++calls; };
  next.send();
  Event wantsNothing(idle.ends[0], 0, count);
  const Event unnoticed(other.ends[0], Event::READABLE, count);
  const Event noticed(busy.ends[0], Event::READABLE, count);
  const int kept = fcntl(busy.ends[0], F_DUPFD_CLOEXEC, 0);
  for (const Pair* const pair : {&idle, &other, &busy})
    dup2(next.ends[0], pair->ends[0]);
  wantsNothing.setEvents(Event::READABLE);
  EXPECT_TRUE(eventually([&] { return isTold(idle); }));
  busy.send();  // goes on to come until the epoll object is made anew
  EXPECT_TRUE(eventually([&] { return isTold(busy) && isTold(other); }));
  EXPECT_TRUE(isQuiet());
  EXPECT_EQ(0, calls);
  close(kept);
}

TEST(VarnDescriptorEvent, IsNotCalledForWhatAFunctionBeforeItHasClosed) {
  const FileLog log(1);
  const Pair gate;
  const Pair first;
  const Pair second;
  std::atomic<bool> isHeld{false};
  std::atomic<bool> areSent{false};
  std::atomic<int> closed{0};
  std::atomic<int> calls{0};
  const Event holder(gate.ends[0], Event::READABLE, [&](unsigned) {
    gate.take();
    isHeld = true;
    EXPECT_TRUE(eventually([&] { return areSent.load(); }));
  });
  const Event closer(first.ends[0], Event::READABLE, [&](unsigned) {
    first.take();
    closed += dup2(gate.ends[0], second.ends[0]) == second.ends[0] ? 1 : 0;
  });
  const Event event(second.ends[0], Event::READABLE, [&](unsigned) { ++calls; });
  gate.send();
  EXPECT_TRUE(eventually([&] { return isHeld.load(); }));
  first.send();
  second.send();
  areSent = true;
  EXPECT_TRUE(eventually([&] { return contains(contentsOf(log.file()), "was closed before"); }));
  EXPECT_EQ(1, closed);
  EXPECT_EQ(0, calls);
}

TEST(VarnDescriptorEvent, IsCalledOnWhenItsFileComesBackToTheNumber) {
  const Pair pair;
  std::atomic<int> taken{0};
  const Event event(pair.ends[0], Event::READABLE,
                    [&](unsigned) { taken += pair.take() > 0 ? 1 : 0; });
  const int kept = fcntl(pair.ends[0], F_DUPFD_CLOEXEC, 0);
  close(pair.ends[0]);
  dup2(kept, pair.ends[0]);
  pair.send();
  EXPECT_TRUE(eventually([&] { return taken == 1; }));
  close(kept);
}

TEST(VarnDescriptorEvent, LeavesAloneWhatTheLoopHasOpenedUnderItsNumber) {
  expectInChild([] {
    const TempFolder folder;
    Pair pair;
    auto event = std::make_unique<Event>(pair.ends[0], Event::READABLE, [](unsigned) {});
    while (open("/dev/null", O_RDONLY | O_CLOEXEC) < pair.ends[0]) {
    }
    close(std::exchange(pair.ends[0], -1));  // the next descriptor gets the number
    std::atomic<int> changes{0};
    const VarnFileWatch watch(folder / "*", [&](const VarnFileWatch::Change&) { ++changes; });
    event.reset();
    writeFile(folder / "a", "");
    EXPECT_TRUE(eventually([&] { return changes > 0; }));
  });
}

TEST(VarnDescriptorEvent, SurvivesThatItsOwnDescriptorsAreClosed) {
  expectInChild([] {
    std::atomic<int> taken{0};
    const Pair pair;
    const Event event(pair.ends[0], Event::READABLE,
                      [&](unsigned) { taken += pair.take() > 0 ? 1 : 0; });
    for (int descriptor = 3; descriptor < 64; ++descriptor) {
      if (descriptor != pair.ends[0] && descriptor != pair.ends[1])
        close(descriptor);
    }
    // The loop notices when it wakes.
    for (int i = 1; i <= 20; ++i) {
      pair.send();
      ASSERT_TRUE(eventually([&] { return taken == i; }));
    }
  });
}

TEST(VarnDescriptorEvent, TenThousandDescriptors) {
  expectInChild([] {
    constexpr unsigned count = 10000;
    const rlimit limit{count + 100, count + 100};
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &limit));
    std::atomic<unsigned> calls{0};
    std::vector<int> descriptors;
    std::vector<std::unique_ptr<Event>> events;
    for (unsigned i = 0; i < count; ++i) {
      const int descriptor = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
      descriptors.push_back(descriptor);
      events.push_back(
          std::make_unique<Event>(descriptor, Event::READABLE, [descriptor, &calls](unsigned) {
            eventfd_t value = 0;
            calls += eventfd_read(descriptor, &value) == 0 ? 1 : 0;
          }));
    }
    for (const int descriptor : descriptors)
      eventfd_write(descriptor, 1);
    EXPECT_TRUE(eventually([&] { return calls == count; }));
  });
}

TEST(VarnDescriptorEvent, AChildOfAForkLeavesTheParentsAlone) {
  const Pair pair;
  std::atomic<int> taken{0};
  auto event = std::make_unique<Event>(pair.ends[0], Event::READABLE,
                                       [&](unsigned) { taken += pair.take() > 0 ? 1 : 0; });
  pair.send();
  ASSERT_TRUE(eventually([&] { return taken == 1; }));
  expectInBareChild([&] {
    leaksCanBeFound = false;
    event->setEvents(0);
    event.reset();
    const Pair own;
    std::atomic<int> mine{0};
    const Event another(own.ends[0], Event::READABLE,
                        [&](unsigned) { mine += own.take() > 0 ? 1 : 0; });
    own.send();
    EXPECT_TRUE(eventually([&] { return mine == 1; }));
  });
  pair.send();
  EXPECT_TRUE(eventually([&] { return taken == 2; }));
}

TEST(VarnDescriptorEvent, ProgramsThatAreStartedHaveNoDescriptorOfIt) {
  const Pair pair;
  const Event event(pair.ends[0], Event::READABLE, [](unsigned) {});
  EXPECT_EQ(0,
            std::system("exec test -z \"$(ls -l /proc/self/fd | grep -E 'anon_inode|inotify')\""));
}
