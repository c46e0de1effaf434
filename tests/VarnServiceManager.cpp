#include "VarnSupport/VarnServiceManager.h"

#include "LibraryTools.h"
#include "ServiceManagerTools.h"

TEST(VarnServiceManager, TellsWhatThereIsToTell) {
  const TempFolder folder;
  for (const std::string& name : {folder / "notify", "@vsupt-test-" + std::to_string(getpid())}) {
    Manager manager(name);
    const std::pair<bool, std::string> told[] = {
        {VarnServiceManager::ready(), "READY=1"},
        {VarnServiceManager::stopping(), "STOPPING=1"},
        {VarnServiceManager::watchdog(), "WATCHDOG=1"},
        {VarnServiceManager::mainProcess(4711), "MAINPID=4711"},
        {VarnServiceManager::extendTimeout(1500ms), "EXTEND_TIMEOUT_USEC=1500000"},
        {VarnServiceManager::status("at \xC3\xA4 50%"), "STATUS=at \xC3\xA4 50%"},
        {VarnServiceManager::status("a\nSTOPPING=1\r\x7F" + std::string(1, '\0') + "z"),
         "STATUS=a STOPPING=1   z"},
        {VarnServiceManager::status("\xFF\xFE \xC2\x85 \xC3"), "STATUS=      "},
        {VarnServiceManager::status(std::string(999, 'x') + "\xC3\xA4"),
         "STATUS=" + std::string(999, 'x')}};
    for (const auto& [hasTold, text] : told) {
      EXPECT_TRUE(hasTold);
      EXPECT_EQ(text, manager.next());
    }
    EXPECT_TRUE(VarnServiceManager::reloading());
    const std::string reloading = manager.next();
    const std::string head = "RELOADING=1\nMONOTONIC_USEC=";
    ASSERT_EQ(head, reloading.substr(0, head.size()));
    const std::chrono::microseconds age =
        std::chrono::duration_cast<std::chrono::microseconds>(Clock::now().time_since_epoch()) -
        std::chrono::microseconds(std::stoll(reloading.substr(head.size())));
    EXPECT_GE(age.count(), 0);
    EXPECT_LT(age, kGenerous);
    EXPECT_FALSE(VarnServiceManager::extendTimeout(-1us));
  }
}

TEST(VarnServiceManager, DoesNothingWithoutASocketThatTakesIt) {
  const TempFolder folder;
  unsetenv("NOTIFY_SOCKET");
  EXPECT_FALSE(VarnServiceManager::isPresent());
  EXPECT_FALSE(VarnServiceManager::ready());
  const std::string gone = folder / "gone";
  { Manager manager(gone); }
  for (const std::string& name : {gone, folder / "never", std::string("@"), std::string("relative"),
                                  std::string("vsock:2:1"), '/' + std::string(200, 'x')}) {
    setenv("NOTIFY_SOCKET", name.c_str(), 1);
    EXPECT_FALSE(VarnServiceManager::ready()) << name;
  }
  unsetenv("NOTIFY_SOCKET");
}

TEST(VarnServiceManager, WaitsForAFullSocketButNotForLong) {
  const TempFolder folder;
  Manager manager(folder / "notify");
  int room = 0;
  while (room < 100000 && VarnServiceManager::watchdog())
    ++room;
  EXPECT_LT(room, 100000);
  const int descriptors = entriesIn("/proc/self/fd");
  std::jthread reader([&] {
    sleepMs(50);
    manager.next();
  });
  EXPECT_TRUE(VarnServiceManager::ready());
  reader.join();
  EXPECT_EQ(descriptors, entriesIn("/proc/self/fd"));
}

TEST(VarnServiceManager, KnowsWhetherItWaitsForThisProcess) {
  const std::string own = std::to_string(getpid());
  const std::tuple<const char*, const char*, int> rows[] = {{"30000000", nullptr, 30000000},
                                                            {"30000000", own.c_str(), 30000000},
                                                            {"30000000", "1", 0},
                                                            {"30000000", "x", 0},
                                                            {"-5", nullptr, 0},
                                                            {"5s", nullptr, 0},
                                                            {"", nullptr, 0},
                                                            {nullptr, own.c_str(), 0}};
  for (const auto& [interval, process, expected] : rows) {
    interval != nullptr ? setenv("WATCHDOG_USEC", interval, 1) : unsetenv("WATCHDOG_USEC");
    process != nullptr ? setenv("WATCHDOG_PID", process, 1) : unsetenv("WATCHDOG_PID");
    EXPECT_EQ(expected, VarnServiceManager::watchdogInterval().count());
  }
}

// As Type=notify wants it: whoever the manager has started says who comes after it.
TEST(VarnServiceManager, HearsOfEveryServiceByItself) {
  const TempFolder folder;
  for (const bool asDaemon : {false, true}) {
    Manager manager(folder / (asDaemon ? "daemon" : "foreground"));
    const pid_t started = startChild([&] {
      setenv("WATCHDOG_PID", std::to_string(getpid()).c_str(), 1);
      setenv("WATCHDOG_USEC", "5000000", 1);
      HookedService service;
      service.startHook = [] {
        return VarnServiceManager::status(
            std::to_string(VarnServiceManager::watchdogInterval().count()));
      };
      service.stopHook = [] { VarnServiceManager::status("stopped"); };
      service.start("", asDaemon);
      return 0;
    });
    pid_t process = started;
    if (asDaemon) {
      const std::string main = manager.next();
      EXPECT_EQ(started, manager.sender);
      ASSERT_EQ("MAINPID=", main.substr(0, 8));
      process = std::stoi(main.substr(8));
      EXPECT_EQ(0, outcomeOf(started));
    }
    const auto next = [&] {
      std::string text = manager.next();
      EXPECT_EQ(process, manager.sender);
      return text;
    };
    EXPECT_EQ("STATUS=5000000", next());
    EXPECT_EQ("READY=1", next());
    EXPECT_EQ("none", manager.next(0s));
    kill(process, SIGTERM);
    EXPECT_EQ("STOPPING=1", next());
    EXPECT_EQ("STATUS=stopped", next());
    if (asDaemon)
      EXPECT_TRUE(eventually([&] { return isGone(process); }));
    else
      EXPECT_EQ(0, outcomeOf(process));
  }
}

TEST(VarnServiceManager, IsNotToldOfAServiceThatDoesNotStartAndHoldsUpNone) {
  const TempFolder folder;
  auto manager = std::make_unique<Manager>(folder / "notify");
  const auto start = [](bool succeeds) {
    HookedService service;
    service.startHook = [&] { return succeeds && service.stop(); };
    service.start("", false);
    return service.start("", true) ? 0 : 1;
  };
  EXPECT_EQ(1, runInChild([&] { return start(false); }));
  EXPECT_EQ("MAINPID=", manager->next().substr(0, 8));
  EXPECT_EQ("none", manager->next(0s));
  manager.reset();
  setenv("NOTIFY_SOCKET", (folder / "notify").c_str(), 1);
  EXPECT_EQ(0, runInChild([&] { return start(true); }));
  unsetenv("NOTIFY_SOCKET");
}

// Scripts that rotate logs send it at any time.
TEST(VarnServiceManager, ASighupDuringTheStopDoesNotDisturbIt) {
  const TempFolder folder;
  Manager manager(folder / "notify");
  const pid_t process = startChild([] {
    signal(SIGHUP, SIG_IGN);  // when the event has gone
    std::atomic<bool> mayEnd{false};
    auto hangUp = std::make_unique<VarnSignalEvent>(SIGHUP);
    const Observer observer(*hangUp, [&] { mayEnd = true; });
    HookedService service;
    service.stopHook = [&] { eventually([&] { return mayEnd.load(); }); };
    const bool stopped = service.start("", false);
    hangUp.reset();
    return stopped ? 7 : 8;
  });
  EXPECT_EQ("READY=1", manager.next());
  kill(process, SIGTERM);
  EXPECT_EQ("STOPPING=1", manager.next());
  while (!isGone(process)) {
    kill(process, SIGHUP);
    sleepMs(1);
  }
  EXPECT_EQ(7, outcomeOf(process));
}
