// Processes that split, stop and exit while everything else is under way.
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

// Threads that log, count, use timers and format dates until they are told to stop. None under
// AddressSanitizer: its heap stays locked in a child that is forked while other threads allocate.
class Load {
 public:
  Load() {
    if (kAddressSanitizer)
      return;
    for (int i = 0; i < 3; ++i)
      m_vThreads.emplace_back([this] {
        VarnTimer timer(1000, false);
        while (!m_bStop) {
          const VarnSmartPointer<VarnWorkInformation> counted(new VarnWorkInformation);
          VarnLogRecord(5) << "busy " << std::string(100, 'x');
          timer.reset();
          timer.stop();
        }
      });
    m_vThreads.emplace_back([this] {
      while (!m_bStop)
        VarnDateTime().toGMTString();
    });
  }
  ~Load() {
    m_bStop = true;
    for (std::thread& thread : m_vThreads)
      thread.join();
  }

 private:
  std::atomic<bool> m_bStop{false};
  std::vector<std::thread> m_vThreads;
};

class Service : public VarnService {
 public:
  int starts = 0;
  int stops = 0;

 protected:
  bool onStart(const std::string&) override { return ++starts == 1; }
  void onStop() override { ++stops; }
};

// Logs, counts, locks, formats a date and lets a timer fire, as a process does that goes on after a
// fork.
int useEverything() {
  VarnLogRecord(5) << "in the child";
  VarnCriticalSectionObject lock;
  const VarnCriticalSection guard(lock, true);
  const VarnSmartPointer<VarnWorkInformation> counted(new VarnWorkInformation);
  VarnDateTime().toGMTString();
  struct Flag : VarnDependent {
    void handleNotification(VarnCollaborator&, const VarnNotification&) override { up = true; }
    std::atomic<bool> up{false};
  } flag;
  VarnTimer timer(1, true);
  timer.addDependent(flag);
  timer.reset();
  const bool fired = eventually([&] { return flag.up.load(); });
  timer.stopAndWait();
  return fired ? 0 : 1;
}

struct Callback : VarnDependent {
  explicit Callback(std::function<void()> action) : m_oAction(std::move(action)) {}
  void handleNotification(VarnCollaborator&, const VarnNotification&) override { m_oAction(); }

 private:
  std::function<void()> m_oAction;
};

}  // namespace

// ThreadSanitizer cannot start threads in the child of a process that had some.
TEST(ProcessStress, AChildOfABusyProcessFindsEverythingUsable) {
  if (kThreadSanitizer)
    return;
  FileLog log(5);
  VarnTimer running(1000, false);
  running.reset();
  const Load load;
  for (int i = 0; i < 100; ++i) {
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child == 0)
      _exit(useEverything());
    ASSERT_EQ(0, outcomeOf(child)) << "child " << i;
  }
}

TEST(ProcessStress, ADaemonOfABusyProcessTimesLogsAndStops) {
  if (kThreadSanitizer)
    return;
  TempFolder folder;
  const std::string file = folder / "reports";
  for (int i = 0; i < 10; ++i) {
    const pid_t launcher = startChild([&]() -> int {
      FileLog log(5);
      auto load = std::make_unique<Load>();
      VarnTimer timer(1000, false);
      timer.reset();
      Service service;
      Callback stop([&] { service.stop(); });
      timer.addDependent(stop);
      service.start("", true);
      timer.stopAndWait();
      VarnLogRecord(5) << "the daemon ends";
      const bool logged = log.texts().back() == "the daemon ends";
      std::ofstream(file, std::ios::app) << (logged && service.stops == 1 ? "good\n" : "bad\n");
      _exit(0);  // the threads of the load are not here
    });
    EXPECT_EQ(0, outcomeOf(launcher));
    ASSERT_TRUE(
        eventually([&] { return linesOf(file).size() == static_cast<std::size_t>(i) + 1; }));
    EXPECT_EQ("good", linesOf(file).back());
  }
}

TEST(ProcessStress, ADaemonThatForksOnceMoreInItsStartHookStops) {
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
  const pid_t launcher = startChild([&] { return Forking().start(file, true) ? 0 : 1; });
  EXPECT_EQ(0, outcomeOf(launcher));
  ASSERT_TRUE(eventually([&] { return !linesOf(file).empty(); }));
  const pid_t daemon = std::stoi(linesOf(file)[0]);
  kill(daemon, SIGTERM);
  EXPECT_TRUE(eventually([&] { return kill(daemon, 0) != 0; }));
  kill(daemon, SIGKILL);
}

TEST(ProcessStress, AServiceThatIsStoppingGoesInAChild) {
  EXPECT_EQ(0, runInChild([] {
              auto service = std::make_unique<Service>();
              std::atomic<bool> stopping{false};
              std::atomic<bool> mayStop{false};
              Callback slow([&] {
                stopping = true;
                eventually([&] { return mayStop.load(); });
              });
              service->getEventObject().addDependent(slow);
              std::thread stopper([] { ControlHandler(SIGTERM); });
              eventually([&] { return stopping.load(); });
              const pid_t child = fork();
              if (child == 0) {
                service->getEventObject().removeDependent(slow);
                service.reset();
                _exit(0);
              }
              const int outcome = outcomeOf(child);
              mayStop = true;
              stopper.join();
              return outcome;
            }));
}

// The thread that makes it is kept from going on until the fork is under way, and uses it all the
// time from then on.
TEST(ProcessStress, ATimerManagerMadeDuringAForkDoesNotLockUpTheChild) {
  if (kThreadSanitizer)
    return;
  for (int i = 0; i < 10; ++i) {
    ASSERT_EQ(0, runInChild([] {
                std::atomic<bool> holding{false};
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
                const pid_t child = fork();
                if (child == 0)
                  _exit(useEverything());
                const int outcome = outcomeOf(child);
                _exit(outcome);
                return 0;
              }));
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

TEST(ProcessStress, ExitFromAnywhereKeepsItsCode) {
  const auto withEverythingActive = [](const std::function<void()>& exiting) {
    static FileLog log(9);
    static VarnTimer timer(1000, false);
    timer.reset();
    log.log() << "an open record";
    log.log().endrecord();
    static VarnEvent never;
    std::thread([] { never.wait(-1); }).detach();
    sleepMs(50);  // the thread sleeps by now
    exiting();
    sleepMs(30000);
  };
  const std::function<void()> places[] = {
      [] { std::exit(7); },
      [] { std::thread([] { std::exit(7); }).detach(); },
      [] {
        static Callback callback([] { std::exit(7); });
        static VarnTimer last(1, true);
        last.addDependent(callback);
        last.reset();
      },
      [] {
        struct Worker : VarnThread {
          int run() override { std::exit(7); }
        };
        (new Worker)->start();
      },
  };
  for (int i = 0; i < 20; ++i) {
    EXPECT_EQ(7, runInChild([&] {
                withEverythingActive(places[i % 4]);
                return 1;
              }))
        << i % 4;
  }
}
