#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include "LibraryTools.h"
#include "VarnSupport/VarnCommand.h"
#include "VarnSupport/VarnService.h"
#include "VarnSupport/VarnServiceControl.h"

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

void append(const std::string& file, const std::string& line) {
  std::ofstream(file, std::ios::app) << line << std::endl;
}

}  // namespace

TEST(VarnService, RunsItsHooksAroundTheWait) {
  EXPECT_EQ(0, runInChild([] {
              FileLog log(9);
              Service service;
              if (VarnService::getService() != &service || VarnService::m_pThis != &service)
                return 1;
              int stopped = 0;
              service.stopHook = [&] { ++stopped; };
              std::jthread stopper([&] {
                while (service.state() != 0) {
                }
                if (!service.start("again", false))
                  stopped = 100;
                service.stop();
              });
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
      ::signal(SIGCHLD, SIG_IGN);  // as some starters do
      Service service;
      service.stopHook = [&] {
        raise(SIGTERM);
        raise(SIGPIPE);
        append(file, VarnCommand({"true"}).run().succeeded() ? "stopped" : "not known");
      };
      std::thread teller([&] {
        // ThreadSanitizer loses signals that the system gives to an ending thread.
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, nullptr);
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
  EXPECT_EQ(0, runInChild([&] {
              Service service;
              rlimit limit{};  // more descriptors than select() has room for
              getrlimit(RLIMIT_NOFILE, &limit);
              limit.rlim_cur = limit.rlim_max;
              setrlimit(RLIMIT_NOFILE, &limit);
              for (int last = 0; last >= 0 && last < FD_SETSIZE;)
                last = dup(STDERR_FILENO);
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
            }));
  const pid_t daemon = std::stoi(linesOf(file).at(0));
  kill(daemon, SIGTERM);
  EXPECT_TRUE(eventually([&] { return linesOf(file).size() == 6; }));
  EXPECT_EQ((std::vector<std::string>{std::to_string(daemon), "own session", "/", "no mask",
                                      "stopped", "returned"}),
            linesOf(file));
  EXPECT_TRUE(eventually([&] { return isGone(daemon); }));
}

TEST(VarnService, ADaemonThatDoesNotStartMakesItsLauncherFail) {
  TempFolder folder;
  const std::string file = folder / "daemon";
  for (const std::string how : {"refuses", "dies", "throws"}) {
    EXPECT_EQ(1, runInChild([&] {
                const pid_t launcher = getpid();
                Service service;
                service.startHook = [&] {
                  if (how == "dies")
                    _exit(0);
                  if (how == "throws")
                    throw how;
                  return false;
                };
                try {
                  return service.start("", true) ? 7 : 8;
                } catch (const std::string&) {
                  const bool answered = eventually([&] { return isGone(launcher); });
                  append(file, answered ? std::to_string(service.state()) : "launcher waits");
                  return 9;
                }
              }))
        << how;
  }
  EXPECT_TRUE(eventually([&] { return linesOf(file) == std::vector<std::string>{"1"}; }));
}

// Who starts a daemon may have closed the standard streams, whose numbers any file gets then.
TEST(VarnService, ADaemonReportsThroughNoStandardStreamAndNoFileOfTheHook) {
  for (const bool hookClosesAll : {false, true}) {
    const TempFolder folder;
    const std::string file = folder / "daemon";
    const int code = runInChild([&] {
      close(STDOUT_FILENO);
      close(STDERR_FILENO);
      Service service;
      service.startHook = [&] {
        for (int i = 3; hookClosesAll && i < 64; ++i)
          close(i);
        for (int i = 0; hookClosesAll && i < 8; ++i)
          open((file + "-data").c_str(), O_RDWR | O_CREAT | O_APPEND, 0600);
        if (!hookClosesAll) {
          std::printf("ready\n");
          std::fflush(stdout);
          if (open("/", O_RDONLY) <= STDERR_FILENO)
            return false;
        }
        append(file, std::to_string(getpid()));
        return true;
      };
      service.start("", true);
      return 0;
    });
    EXPECT_EQ(hookClosesAll ? 1 : 0, code);  // the launcher sees no more than the end of the pipe
    ASSERT_TRUE(eventually([&] { return !linesOf(file).empty(); }));
    EXPECT_EQ("", contentsOf(file + "-data"));
    const pid_t daemon = std::stoi(linesOf(file).at(0));
    kill(daemon, SIGTERM);
    EXPECT_TRUE(eventually([&] { return isGone(daemon); }));
  }
}

TEST(VarnService, DependentsOfItsEventMayTakeTheirTime) {
  EXPECT_EQ(0, runInChild([] {
              std::atomic<bool> mayEnd{false};
              Task worker([&] { return eventually([&] { return mayEnd.load(); }); });
              worker.start();
              Service service;
              int waited = 1;
              const Observer stopper(service.getEventObject(), [&] {
                waited = worker.wait(1000);
                mayEnd = true;
              });
              const std::jthread killer([&] {
                eventually([&] { return service.state() == 0; });
                sleepMs(50);
                kill(getpid(), SIGTERM);
              });
              service.start("", false);
              return waited == -2 ? 0 : 1;
            }));
}

TEST(VarnService, AForkedWorkerHearsOfSigterm) {
  if (kInstrumented)
    return;  // a child of a process with threads cannot start any there
  EXPECT_EQ(0, runInChild([] {
              Service service;
              std::atomic<int> outcome{-1};
              const std::jthread forking([&] {
                eventually([&] { return service.state() == 0; });
                sleepMs(50);
                const pid_t worker = startBareChild(
                    [&] { return eventually([&] { return service.state() == 2; }) ? 4 : 5; });
                sleepMs(50);
                kill(worker, SIGTERM);
                outcome = outcomeOf(worker);
                service.stop();
              });
              service.start("", false);
              return eventually([&] { return outcome == 4; }) ? 0 : 1;
            }));
}

TEST(VarnServiceControl, RefusesEveryOperation) {
  const std::unique_ptr<VarnServiceControl> control(
      VarnServiceControl::CreateVarnServiceControl("x"));
  const std::function<void()> operations[] = {
      [&] { control->StartService(); },        [&] { control->StopService(); },
      [&] { control->RestartService(); },      [&] { control->GetServiceStatus(); },
      [&] { control->GetServiceStartType(); }, [&] { control->SetServiceStartType(1); },
      [&] { control->IsServiceInstalled(); }};
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
