#include "VarnSupport/VarnService.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "TestTools.h"
#include "VarnSupport/VarnServiceControl.h"

using namespace VarnSupport;
using namespace TestTools;

namespace {

class Service : public VarnService {
 public:
  Service() : VarnService("1", "named", "3", "4", true) {}

  std::function<bool()> startHook = [] { return true; };
  std::function<void()> stopHook = [] {};
  std::string arguments;

 protected:
  bool onStart(const std::string& given) override {
    arguments = given;
    return startHook();
  }
  void onStop() override { stopHook(); }
};

// The process that the first line of a file names; 0 while it names none.
pid_t processIn(const std::string& file) {
  const std::vector<std::string> lines = linesOf(file);
  return lines.empty() ? 0 : std::stoi(lines[0]);
}

bool isGone(pid_t process) { return kill(process, 0) != 0; }

void append(const std::string& file, const std::string& line) {
  std::ofstream(file, std::ios::app) << line << std::endl;
}

}  // namespace

TEST(VarnService, RunsItsHooksAroundTheWait) {
  EXPECT_EQ(0, runInChild([] {
              FileLog log(9);
              Service service;
              if (service.state() != 1 || service.serviceName() != "named" ||
                  VarnService::getService() != &service)
                return 1;
              int stopped = 0;
              service.stopHook = [&] { ++stopped; };
              std::thread stopper;
              service.startHook = [&] {
                stopper = std::thread([&] {
                  while (service.state() != 0) {
                  }
                  if (!service.start("again", false))
                    stopped = 100;
                  service.stop();
                });
                return true;
              };
              const bool started = service.start("arguments", false);
              stopper.join();
              std::vector<std::string> texts = log.texts();
              std::sort(texts.begin(), texts.end());
              const std::vector<std::string> expected{
                  "VarnService::start: exiting", "VarnService::start: service completed.",
                  "VarnService::start: waiting for service to exit", "VarnService::stop: entering",
                  "VarnService::stop: exiting"};
              return started && stopped == 1 && service.state() == 1 &&
                             service.arguments == "arguments" && texts == expected
                         ? 0
                         : 2;
            }));
}

TEST(VarnService, AHookMayRefuseOrStopTheService) {
  EXPECT_EQ(0, runInChild([] {
              Service service;
              service.startHook = [] { return false; };
              if (service.start("", false) || service.state() != 1)
                return 1;
              service.startHook = [&] { return service.stop(); };
              return service.start("", false) && service.state() == 1 ? 0 : 2;
            }));
}

TEST(VarnService, AnswersToOneSignalAndIgnoresTheOthers) {
  for (const int signal : {SIGTERM, SIGINT}) {
    TempFolder folder;
    const std::string file = folder / "progress";
    const pid_t child = startChild([&] {
      Service service;
      service.stopHook = [&] {
        raise(SIGTERM);
        raise(SIGPIPE);
        append(file, "stopped");
      };
      std::thread teller([&] {
        while (service.state() != 0) {
        }
        // The signals are routed right after the state has changed.
        struct sigaction action {};
        while (sigaction(SIGPIPE, nullptr, &action) == 0 && action.sa_handler == SIG_DFL)
          sleepMs(1);
        append(file, "running");
      });
      const bool ended = service.start("", false);
      teller.join();
      return ended ? 5 : 6;
    });
    ASSERT_TRUE(eventually([&] { return !linesOf(file).empty(); }));
    kill(child, SIGPIPE);
    kill(child, signal);
    EXPECT_EQ(5, outcomeOf(child));
    EXPECT_EQ((std::vector<std::string>{"running", "stopped"}), linesOf(file));
  }
}

TEST(VarnService, ADaemonReportsItsStartAndStopsOnSigterm) {
  TempFolder folder;
  const std::string file = folder / "daemon";
  const pid_t launcher = startChild([&] {
    Service service;
    service.startHook = [&] {
      append(file, std::to_string(getpid()));
      append(file, getsid(0) == getpid() ? "own session" : "old session");
      append(file, std::filesystem::current_path().string());
      append(file, umask(0) == 0 ? "no mask" : "masked");
      return true;
    };
    service.stopHook = [&] { append(file, "stopped"); };
    service.start("", true);
    append(file, "returned");
    return 0;
  });
  EXPECT_EQ(0, outcomeOf(launcher));
  const pid_t daemon = processIn(file);
  ASSERT_GT(daemon, 0);
  kill(daemon, SIGTERM);
  EXPECT_TRUE(eventually([&] { return linesOf(file).size() == 6; }));
  EXPECT_EQ((std::vector<std::string>{std::to_string(daemon), "own session", "/", "no mask",
                                      "stopped", "returned"}),
            linesOf(file));
  EXPECT_TRUE(eventually([&] { return isGone(daemon); }));
}

TEST(VarnService, ADaemonThatRefusesOrDiesMakesItsLauncherFail) {
  for (const bool dies : {false, true}) {
    EXPECT_EQ(1, runInChild([&] {
                Service service;
                service.startHook = [&] {
                  if (dies)
                    _exit(0);
                  return false;
                };
                return service.start("", true) ? 7 : 8;
              }));
  }
}

// The timer was started in the launching process.
TEST(VarnService, ADaemonKeepsTimersAndReaping) {
  TempFolder folder;
  const std::string file = folder / "daemon";
  const pid_t launcher = startChild([&] {
    VarnTimer timer(1000, false);
    timer.reset();
    Service service;
    struct Ticks : VarnDependent {
      void handleNotification(VarnCollaborator&, const VarnNotification&) override {
        append(*file, "tick");
        if (++count == 2)
          service->stop();
      }
      int count = 0;
      const std::string* file = nullptr;
      Service* service = nullptr;
    } ticks;
    ticks.file = &file;
    ticks.service = &service;
    service.startHook = [&] {
      timer.addDependent(ticks);
      return true;
    };
    service.start("", true);
    timer.stopAndWait();
    const bool reaped = eventually([] {
      const VarnCriticalSection guard(g_exitThreadLock, true);
      return g_vExitThreads.empty();
    });
    append(file, reaped ? "reaped" : "not reaped");
    return 0;
  });
  EXPECT_EQ(0, outcomeOf(launcher));
  EXPECT_TRUE(eventually([&] { return linesOf(file).size() >= 3; }));
  EXPECT_EQ((std::vector<std::string>{"tick", "tick", "reaped"}), linesOf(file));
}

TEST(VarnServiceControl, RefusesEveryOperation) {
  const std::unique_ptr<VarnServiceControl> control(
      VarnServiceControl::CreateVarnServiceControl("x"));
  const std::function<void()> operations[] = {
      [&] { control->StartService(); },        [&] { control->StopService(); },
      [&] { control->RestartService(); },      [&] { control->GetServiceStatus(); },
      [&] { control->GetServiceStartType(); }, [&] { control->SetServiceStartType(1); },
      [&] { control->IsServiceInstalled(); },
  };
  for (const auto& operation : operations) {
    try {
      operation();
      ADD_FAILURE();
    } catch (const VarnServiceControlException& error) {
      EXPECT_EQ(99, error.getErrorCode());
      EXPECT_EQ(0, error.getSecondValue());
    }
  }
}
