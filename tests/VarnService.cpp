#include "VarnSupport/VarnService.h"

#include "LibraryTools.h"

namespace {

void append(const std::string& file, const std::string& line) {
  std::ofstream(file, std::ios::app) << line << std::endl;
}

}  // namespace

TEST(VarnService, RunsItsHooksAroundTheWait) {
  expectInChild([] {
    FileLog log(9);
    HookedService service;
    EXPECT_EQ(&service, VarnService::getService());
    EXPECT_EQ(&service, VarnService::m_pThis);
    int stopped = 0;
    service.stopHook = [&] { ++stopped; };
    std::jthread stopper([&] {
      while (service.state() != 0) {
      }
      EXPECT_TRUE(service.start("again", false));
      service.stop();
    });
    EXPECT_TRUE(service.start("arguments", false));
    stopper.join();
    EXPECT_EQ(1, stopped);
    EXPECT_EQ(1, service.state());
    EXPECT_EQ("arguments", service.arguments);
    Lines texts = log.texts();
    std::sort(texts.begin(), texts.end());
    EXPECT_EQ((Lines{"VarnService::start: exiting", "VarnService::start: service completed.",
                     "VarnService::start: waiting for service to exit",
                     "VarnService::stop: entering", "VarnService::stop: exiting"}),
              texts);
  });
}

TEST(VarnService, AHookMayRefuseOrStopTheService) {
  expectInChild([] {
    HookedService service;
    service.startHook = [] { return false; };
    EXPECT_FALSE(service.start("", false));
    EXPECT_EQ(1, service.state());
    service.startHook = [&] { return service.stop(); };
    EXPECT_TRUE(service.start("", false));
    EXPECT_EQ(1, service.state());
  });
}

TEST(VarnService, AnswersToOneSignalAndIgnoresTheOthers) {
  for (const int signal : {SIGTERM, SIGINT}) {
    TempFolder folder;
    const std::string file = folder / "progress";
    const pid_t child = startChild([&] {
      ::signal(SIGCHLD, SIG_IGN);  // as some starters do
      HookedService service;
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
        struct sigaction action {};
        eventually([&] {
          return sigaction(SIGPIPE, nullptr, &action) == 0 && action.sa_handler != SIG_DFL;
        });
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
    EXPECT_EQ((Lines{"running", "stopped"}), linesOf(file));
  }
}

TEST(VarnService, ADaemonReportsItsStartAndStopsOnSigterm) {
  TempFolder folder;
  const std::string file = folder / "daemon";
  expectInChild([&] {
    HookedService service;
    rlimit limit{};  // more descriptors than a set of them has room for
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    for (int last = 0; last >= 0 && last < FD_SETSIZE;)
      last = dup(STDERR_FILENO);
    service.startHook = [&] {
      append(file, std::to_string(getpid()));
      append(file, getsid(0) == getpid() ? "own session" : "old session");
      append(file, fs::current_path().string());
      append(file, umask(0) == 0 ? "no mask" : "masked");
      return true;
    };
    service.stopHook = [&] { append(file, "stopped"); };
    service.start("", true);
    append(file, "returned");
  });
  const std::string daemon = linesOf(file).at(0);
  terminate(std::stoi(daemon));
  EXPECT_EQ((Lines{daemon, "own session", "/", "no mask", "stopped", "returned"}), linesOf(file));
}

TEST(VarnService, ADaemonThatDoesNotStartMakesItsLauncherFail) {
  TempFolder folder;
  const std::string file = folder / "daemon";
  for (const std::string how : {"refuses", "dies", "throws"}) {
    EXPECT_EQ(1, runInChild([&] {
                const pid_t launcher = getpid();
                HookedService service;
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
  EXPECT_TRUE(eventually([&] { return linesOf(file) == Lines{"1"}; }));
}

// Who starts a daemon may have closed the standard streams, whose numbers any file gets then.
TEST(VarnService, ADaemonReportsThroughNoStandardStreamAndNoFileOfTheHook) {
  for (const bool hookClosesAll : {false, true}) {
    const TempFolder folder;
    const std::string file = folder / "daemon";
    const int code = runInChild([&] {
      close(STDOUT_FILENO);
      close(STDERR_FILENO);
      HookedService service;
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
    terminate(std::stoi(linesOf(file).at(0)));
  }
}

TEST(VarnService, DependentsOfItsEventMayTakeTheirTime) {
  expectInChild([] {
    std::atomic<bool> mayEnd{false};
    Task worker([&] { eventually([&] { return mayEnd.load(); }); });
    worker.start();
    HookedService service;
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
    EXPECT_EQ(-2, waited);
  });
}

TEST(VarnService, AForkedWorkerHearsOfSigterm) {
  if (kInstrumented)
    return;  // a child of a process with threads cannot start any there
  expectInChild([] {
    HookedService service;
    const std::jthread forking([&] {
      eventually([&] { return service.state() == 0; });
      sleepMs(50);
      const pid_t worker =
          startBareChild([&] { return eventually([&] { return service.state() == 2; }) ? 4 : 5; });
      sleepMs(50);
      kill(worker, SIGTERM);
      EXPECT_EQ(4, outcomeOf(worker));
      service.stop();
    });
    service.start("", false);
  });
}

TEST(VarnServiceControl, RefusesEveryOperation) {
  const std::unique_ptr<VarnServiceControl> control(
      VarnServiceControl::CreateVarnServiceControl("x"));
  using Refusal = VarnServiceControlException;
  EXPECT_THROW(control->StartService(), Refusal);
  EXPECT_THROW(control->StopService(), Refusal);
  EXPECT_THROW(control->RestartService(), Refusal);
  EXPECT_THROW(control->GetServiceStatus(), Refusal);
  EXPECT_THROW(control->GetServiceStartType(), Refusal);
  EXPECT_THROW(control->SetServiceStartType(1), Refusal);
  try {
    control->IsServiceInstalled();
    ADD_FAILURE();
  } catch (const Refusal& error) {
    EXPECT_EQ(99, error.getErrorCode());
    EXPECT_EQ(0, error.getSecondValue());
  }
}
