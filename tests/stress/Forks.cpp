// Processes that split and stop while everything else is under way.
#include <locale>

#include "LibraryTools.h"

extern "C" int __cxa_atexit(void (*function)(void*), void* argument, void* handle);
extern "C" void __cxa_finalize(void* handle);

namespace {

void useDates() {
  VarnDateTime date;
  std::string error;
  EXPECT_TRUE(date.setDateTime("1/2/2024", error));
  EXPECT_EQ(date.toString(std::locale::classic()), L"Thu Feb  1 00:00:00 2024");
}

// Threads that log, count, use timers and format dates until the result is destroyed. None if
// children shall go on under AddressSanitizer: its heap stays locked in a child that is forked
// while other threads allocate.
std::vector<std::jthread> load(bool childrenGoOn = true) {
  std::vector<std::jthread> threads;
  if (kAddressSanitizer && childrenGoOn)
    return threads;
  for (int i = 0; i < 3; ++i)
    threads.push_back(repeating([] {
      thread_local VarnTimer timer(1000, false);
      const VarnSmartPointer<VarnWorkInformation> counted(new VarnWorkInformation);
      VarnLogRecord(5) << "busy " << std::string(100, 'x');
      timer.reset();
      timer.stop();
    }));
  threads.push_back(repeating([] { useDates(); }));
  return threads;
}

struct Service : VarnService {
  bool onStart(const std::string&) override { return ++starts == 1; }
  void onStop() override { ++stops; }
  int starts = 0;
  int stops = 0;
};

// Logs, counts, locks, formats a date and lets a timer fire, as a process does that goes on after a
// fork.
int useEverything() {
  VarnLogRecord(5) << "in the child";
  VarnCriticalSectionObject lock;
  const VarnCriticalSection guard(lock, true);
  const VarnSmartPointer<VarnWorkInformation> counted(new VarnWorkInformation);
  useDates();
  VarnTimer timer(1, true);
  const Observer flag(timer);
  timer.reset();
  const bool fired = eventually([&] { return flag.calls > 0; });
  timer.stopAndWait();
  return fired ? 0 : 1;
}

struct Streamed {};
std::ostream& operator<<(std::ostream& stream, Streamed) { return stream; }

}  // namespace

TEST(ProcessStress, EveryProgramComesBackWhileOthersLogAllocateAndFork) {
  constexpr int kPrograms = 500;
  const FileLog log(9);
  std::atomic<int> right{0};
  {
    const auto threads = load(false);
    // Children that keep for a while what they inherit.
    const std::jthread forking = repeating([] { expectInBareChild([] { sleepMs(30); }); });
    onThreads(4, [&](int starter) {
      for (int i = starter; i < kPrograms; i += 4) {
        const int code = 1 + i % 255;
        const std::string command = "/bin/sh -c \"exit " + std::to_string(code) + '"';
        int status = -1;
        int child = -1;
        if (i % 5 != 0)
          VarnExecuteProgram(command, true, nullptr, &status);
        else if (VarnExecuteProgram(command, false, &child, nullptr))
          status = outcomeOf(child);
        right += status == code ? 1 : 0;
      }
    });
  }
  EXPECT_EQ(kPrograms, right);
}

// A fork would run the handler. Under ThreadSanitizer there is no other.
TEST(ForkStress, StartingAProgramDoesNotCopyTheProcess) {
  EXPECT_EQ(7, runInChild([] {
              pthread_atfork([] { _exit(1); }, nullptr, nullptr);
              int status = 0;
              VarnExecuteProgram("/bin/sh -c \"exit 7\"", true, nullptr, &status);
              return status;
            }));
}

TEST(ForkStress, AChildOfABusyProcessFindsEverythingUsable) {
  FileLog log(5);
  VarnTimer running(1000, false);
  running.reset();
  const auto threads = load();
  for (int i = 0; i < 100; ++i)
    ASSERT_EQ(0, runInBareChild(useEverything)) << "child " << i;
}

// The platform has locks around its looks at the zone and the making of a locale.
TEST(ForkStress, AChildUsesZonesAndLocalesThatOtherThreadsAreJustAt) {
  if (kAddressSanitizer)
    return;
  const VarnLogEntry entry{std::chrono::system_clock::now(), 5, "component", "text", "thread", 1};
  const std::jthread threads[] = {repeating([&] { VarnJsonLog::toJson(entry); }),
                                  repeating([] { GetAppropriateLocaleObject(); })};
  for (int i = 0; i < 200; ++i) {
    ASSERT_EQ(0, runInBareChild([] {
                setenv("TZ", "Asia/Tokyo", 1);
                useDates();
                return GetAppropriateLocaleObject().name().empty() ? 1 : 0;
              }));
  }
}

// The platform locks its locales for the texts of errors, and the global one for each new stream.
TEST(ForkStress, AChildMakesLocalesAndStreamsThatOtherThreadsAreJustAt) {
  if (kAddressSanitizer)
    return;
  const auto use = [] {
    std::string text;
    VarnGetOSErrorMessage(ENOENT, text);
    VarnLogRecord(5) << Streamed();
    const VarnDateTime date;
    const VarnDateTime copy(date);
    const VarnSettings unreadable("/none/settings");
  };
  EXPECT_EQ(0, runInBareChild([&] {
              const FileLog log(5);
              std::locale::global(std::locale(std::locale(), new std::numpunct<char>));
              const std::jthread threads[] = {repeating(use), repeating(use)};
              for (int i = 0; i < 200; ++i) {
                if (runInBareChild([&] {
                      use();
                      setenv("LC_ALL", "none", 1);
                      GetAppropriateLocaleObject();
                    }) != 0)
                  return 1;
              }
              return 0;
            }));
}

TEST(ForkStress, AChildUsesObjectsThatOtherThreadsAreJustAt) {
  if (kAddressSanitizer)
    return;
  VarnProperties<std::string> properties;
  VarnBufferStream stream;
  const auto use = [&] {
    properties.setProperty("key", "value");
    properties = VarnProperties<std::string>(properties);
    stream << 1;
    const VarnBufferStream copy(stream);
    stream.reset();
  };
  const std::jthread threads[] = {repeating(use), repeating(use)};
  for (int i = 0; i < 100; ++i)
    ASSERT_EQ(0, runInBareChild(use)) << "child " << i;
}

TEST(ForkStress, DaemonsOfBusyProcessesTimeLogAndStop) {
  constexpr int kTogether = 25;  // they wait for their timers most of the time
  for (int round = 0; round < 4; ++round) {
    const TempFolder folder;
    const auto report = [&](int daemon) { return folder / std::to_string(daemon); };
    std::vector<pid_t> launchers;
    for (int i = 0; i < kTogether; ++i)
      launchers.push_back(startChild([&]() -> int {
        setenv("TMPDIR", folder.path().c_str(), 1);
        FileLog log(5);
        const auto threads = load();
        VarnTimer timer(1000, false);
        timer.reset();
        Service service;
        const Observer stop(timer, [&] { service.stop(); });
        service.start("", true);
        timer.stopAndWait();
        VarnLogRecord(5) << "the daemon ends";
        // The launching process may still be logging, too.
        const bool logged = contains(contentsOf(log.file()), "] the daemon ends\n");
        const bool good = logged && service.stops == 1 && eventually(areAllReaped);
        writeFile(report(i), good ? "good\n" : "bad\n");
        _exit(0);  // the threads of the load are not here
      }));
    for (int i = 0; i < kTogether; ++i) {
      EXPECT_EQ(0, outcomeOf(launchers[static_cast<std::size_t>(i)]));
      ASSERT_TRUE(eventually([&] { return !contentsOf(report(i)).empty(); }));
      EXPECT_EQ("good\n", contentsOf(report(i)));
    }
  }
}

// Whatever list other threads are just changing, the child finds it whole.
TEST(ForkStress, AChildFindsTheListsOfDependentsWhole) {
  VarnTimer timer(1000, false);
  VarnEvent event;
  VarnCollaborator collaborator;
  Observer observers[3];
  const auto churn = [&](auto& source, Observer& observer) {
    return repeating([&] {
      source.addDependent(observer);
      source.removeDependent(observer);
    });
  };
  const std::jthread threads[] = {churn(timer, observers[0]), churn(event, observers[1]),
                                  churn(collaborator, observers[2])};
  timer.reset();
  for (int i = 0; i < 100; ++i) {
    expectInBareChild([&] {
      Observer own[3];
      timer.addDependent(own[0]);
      event.addDependent(own[1]);
      collaborator.addDependent(own[2]);
      event.set();
      collaborator.notify(VarnNotification());
      timer.start(1, true);
      EXPECT_TRUE(eventually([&] { return own[0].calls > 0; }));
      EXPECT_EQ(1, own[1].calls);
    });
  }
}

// The stacks of vanished threads are free for new ones: nothing that lies there is called any more.
TEST(ForkStress, AChildLeavesTheStacksOfVanishedThreadsAlone) {
  const auto scribble = [] {
    std::thread([] {
      volatile char room[200000];
      std::fill(std::begin(room), std::end(room), 'Z');
    }).join();
  };
  std::atomic<bool> mayEnd{false};
  std::atomic<int> fired{0};
  std::thread owner([&] {
    VarnTimer local(1000, true);
    Observer again(local, [&] {
      ++fired;
      local.start(1000, true);
    });
    local.reset();
    eventually([&] { return mayEnd.load(); });
    local.stopAndWait();
  });
  EXPECT_TRUE(eventually([&] { return fired > 0; }));

  std::atomic<bool> isWaitedFor{false};
  // The child ends with the body, after that has told those who wait for the thread in the parent.
  Task forking([&] {
    eventually([&] { return isWaitedFor.load(); });
    const pid_t child = fork();
    if (child != 0) {
      EXPECT_EQ(0, outcomeOf(child));
      return;
    }
    leaksCanBeFound = false;
    scribble();
    if (useEverything() != 0)
      _exit(1);
  });
  forking.start();
  const std::jthread waiter = startSleeper([&] { forking.wait(20000); });
  isWaitedFor = true;
  forking.waitForThreadExit();
  mayEnd = true;
  owner.join();
}

// None of them is in the child: what they were about is done with there, and nobody waits for them.
TEST(ForkStress, AChildIsNotBoundToThreadsAndCallbacksThatItHasNot) {
  std::atomic<int> entered{0};
  std::atomic<bool> mayEnd{false};
  const auto stay = [&] {
    ++entered;
    return eventually([&] { return mayEnd.load(); });
  };
  Task staying(stay);
  staying.start();
  VarnTimer timer(1, true);
  const Observer callback(timer, stay);
  timer.reset();
  EXPECT_TRUE(eventually([&] { return entered == 2; }));
  Task forking([&] {
    return runInBareChild([&] {
      timer.stopAndWait();
      staying.waitForThreadExit();
      staying.setMarkForKill();
      staying.kill();
      return useEverything();
    });
  });
  forking.start();
  forking.waitForThreadExit();
  EXPECT_EQ(0, forking.getExitCode());
  mayEnd = true;
}

TEST(ForkStress, ADaemonThatForksOnceMoreInItsStartHookStops) {
  TempFolder folder;
  const std::string file = folder / "daemon";
  struct Forking : Service {
    bool onStart(const std::string& where) override {
      if (fork() > 0)
        _exit(0);
      writeFile(where, std::to_string(getpid()) + '\n');
      return true;
    }
  };
  EXPECT_EQ(0, runInChild([&] { return Forking().start(file, true) ? 0 : 1; }));
  ASSERT_TRUE(eventually([&] { return !linesOf(file).empty(); }));
  terminate(std::stoi(linesOf(file)[0]));
}

TEST(ProcessStress, AServiceThatIsStoppingGoesInAChild) {
  expectInChild([] {
    auto service = std::make_unique<Service>();
    std::atomic<bool> stopping{false};
    std::atomic<bool> mayStop{false};
    Observer slow(service->getEventObject(), [&] {
      stopping = true;
      eventually([&] { return mayStop.load(); });
    });
    const std::jthread stopper([] { ControlHandler(SIGTERM); });
    eventually([&] { return stopping.load(); });
    expectInBareChild([&] {
      service->getEventObject().removeDependent(slow);
      service.reset();
    });
    mayStop = true;
  });
}

// The thread that makes it is kept from going on until the fork is under way, and uses it all the
// time from then on.
TEST(ForkStress, ATimerManagerMadeDuringAForkDoesNotLockUpTheChild) {
  for (int i = 0; i < 10; ++i) {
    ASSERT_EQ(0, runInBareChild([] {
                static std::atomic<bool> holding{false};
                std::thread([&] {
                  {
                    const VarnCriticalSection guard(*g_pCriticalSection, true);
                    holding = true;
                    sleepMs(10);
                    VarnTimerManager::getInstance();
                  }
                  VarnTimer timer(1000, false);
                  while (true) {
                    timer.reset();
                    timer.stop();
                  }
                }).detach();
                eventually([&] { return holding.load(); });
                return runInBareChild(useEverything);
              }));
  }
}

// Such a child cannot exit(), but all else goes on. A thread that unloads a library locks the list,
// too.
TEST(ForkStress, AListOfExitHandlersThatIsLeftLockedHoldsNothingUp) {
  EXPECT_EQ(0, runInBareChild([] {
              constexpr int kHandlers = 200000;  // they are looked at while the list is locked
              static char others;
              static char none;
              for (int i = 0; i < kHandlers; ++i)
                __cxa_atexit([](void*) {}, nullptr, &others);
              std::thread([] {
                while (true)
                  __cxa_finalize(&none);
              }).detach();
              sleepMs(10);
              return runInBareChild([] {
                VarnLogFile log("/dev/null", 5, VarnLogFile::Background{1000});
                return useEverything();
              });
            }));
}

TEST(ProcessStress, WhatAThreadSleepsOnWorksInAChild) {
  if (kThreadSanitizer)
    return;
  VarnEvent event;
  struct : VarnBaseSynchronizedQueue {
    void clear() override {}
  } queue;
  VarnBaseProducerConsumer consumers(queue);
  const std::pair<std::function<void()>, std::function<void()>> waitsAndWakes[] = {
      {[&] { event.wait(-1); }, [&] { event.set(); }},
      {[&] {
         consumers.lockSyncMutex();
         consumers.waitForSyncEvent();
         consumers.unlockSyncMutex();
       },
       [&] { consumers.produceSentinel(false); }}};
  for (const auto& [wait, wake] : waitsAndWakes) {
    const auto leftBehind = startSleeper(wait);
    expectInBareChild([&wait = wait, &wake = wake] {
      wake();
      for (int i = 0; i < 2; ++i) {
        const auto sleeper = startSleeper(wait);
        wake();
      }
    });
    wake();
  }
}

TEST(ProcessStress, SigtermAtAnyMomentEndsAServiceWithOneStop) {
  for (int delay = 0; delay < 60; ++delay) {
    TempFolder folder;
    const std::string ready = folder / "ready";
    const pid_t child = startChild([&] {
      Service service;
      writeFile(ready, "x");
      service.start("", false);
      return service.starts == 1 && service.stops == 1 ? 3 : 4;
    });
    ASSERT_TRUE(eventually([&] { return !contentsOf(ready).empty(); }));
    spin(static_cast<unsigned>(delay * 2000));
    kill(child, SIGTERM);
    const int outcome = outcomeOf(child);
    EXPECT_TRUE(outcome == 3 || outcome == -SIGTERM) << outcome;
  }
}
