#include "VarnSupport/VarnSignalEvent.h"

#include "LibraryTools.h"
#include "VarnSupport/VarnService.h"

using namespace std::chrono_literals;

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
      {-1, "signal -1 does not exist"},
      {65, "signal 65 does not exist"},
      {SIGKILL, "signal 9 (SIGKILL) cannot be an event"},
      {SIGSTOP, "signal 19 (SIGSTOP) cannot be an event"},
      {SIGSEGV, "signal 11 (SIGSEGV) cannot be an event"},
      {SIGABRT, "signal 6 (SIGABRT) cannot be an event"},
      {SIGALRM, "signal 14 (SIGALRM) belongs to the library"},
      {SIGUSR1, "signal 10 (SIGUSR1) belongs to the library"},
      {SIGUSR2, "signal 12 (SIGUSR2) belongs to the library"}};
  for (const auto& [signal, text] : refused)
    EXPECT_EQ(std::string("VarnSignalEvent: ") + text,
              resultOf([number = signal] { VarnSignalEvent event(number); }));
}

TEST(VarnSignalEvent, PutsBackWhatWasThereWhenTheLastOneGoes) {
  EXPECT_EQ(0, runInChild([] {
              signal(SIGHUP, handled);
              signal(SIGWINCH, SIG_IGN);
              {
                auto first = std::make_unique<VarnSignalEvent>(SIGHUP);
                VarnSignalEvent second(SIGHUP);
                VarnSignalEvent window(SIGWINCH);
                first.reset();
                raise(SIGHUP);
                raise(SIGWINCH);
                if (second.take() != 1 || window.take() != 1)
                  return 1;
              }
              if (actionOf(SIGHUP) != handled || actionOf(SIGWINCH) != SIG_IGN)
                return 2;
              {
                VarnSignalEvent event(SIGHUP);
                signal(SIGHUP, SIG_IGN);
              }
              return actionOf(SIGHUP) == SIG_IGN ? 0 : 3;
            }));
}

TEST(VarnSignalEvent, TakeMissesNoDelivery) {
  EXPECT_EQ(0, runInChild([] {
              VarnSignalEvent event(SIGHUP);
              VarnSignalEvent queued(SIGRTMIN + 3);
              if (event.take(0ms) != 0 || event.take(-1ms) != 0 || event.take(20ms) != 0)
                return 1;
              constexpr std::uint64_t kMany = 500;
              std::uint64_t taken = 0;
              const std::jthread sender([] {
                for (std::uint64_t i = 0; i < kMany; ++i) {
                  kill(getpid(), SIGHUP);
                  sigqueue(getpid(), SIGRTMIN + 3, {});
                }
              });
              while (taken < kMany) {
                const std::uint64_t more = queued.take(kGenerous);
                if (more == 0)
                  return 2;
                taken += more;
              }
              const std::uint64_t hangups = event.take();
              return hangups >= 1 && taken == kMany && queued.deliveries() == kMany ? 0 : 3;
            }));
}

TEST(VarnSignalEvent, ADeliveryDuringTheCallbackSetsItOnceMore) {
  EXPECT_EQ(0, runInChild([] {
              std::atomic<int> inside{0};
              std::atomic<bool> overlaps{false};
              std::atomic<int> calls{0};
              std::atomic<std::uint64_t> delivered{0};
              Watched watched(SIGHUP, [&] {
                overlaps = overlaps || ++inside > 1;
                if (++calls == 1) {
                  raise(SIGHUP);
                  raise(SIGHUP);
                  eventually([&] { return delivered == 3; });
                }
                --inside;
              });
              raise(SIGHUP);
              eventually([&] { return (delivered = watched.event.deliveries()) == 3; });
              return eventually([&] { return calls >= 2; }) && !overlaps ? 0 : 1;
            }));
}

TEST(VarnSignalEvent, ACallbackMayThrowOrDestroyItsEvent) {
  EXPECT_EQ(0, runInChild([] {
              FileLog log(1);
              auto event = std::make_unique<VarnSignalEvent>(SIGHUP);
              const Observer destroyer(*event, [&](auto&, auto&) {
                if (event->deliveries() == 1)
                  throw 1;
                event.reset();
              });
              raise(SIGHUP);
              if (event->take(kGenerous) != 1 || !eventually([&] { return !log.texts().empty(); }))
                return 1;
              raise(SIGHUP);
              const bool went = eventually([&] { return destroyer.calls == 1; });
              return went && actionOf(SIGHUP) == SIG_DFL &&
                             log.texts() ==
                                 std::vector<std::string>{
                                     "VarnSignalEvent: a dependent "
                                     "has thrown an exception"}
                         ? 0
                         : 2;
            }));
}

TEST(VarnSignalEvent, NoCallbackRunsAfterItsDestructor) {
  EXPECT_EQ(0, runInChild([] {
              signal(SIGHUP, SIG_IGN);
              std::atomic<bool> lives{false};
              std::atomic<int> late{0};
              const std::jthread sender = repeating([] { kill(getpid(), SIGHUP); });
              int calls = 0;
              unsigned round = 0;
              for (const auto end = Clock::now() + stressTime(1); Clock::now() < end; ++round) {
                auto event = std::make_unique<VarnSignalEvent>(SIGHUP);
                lives = true;
                const Observer observer(*event, [&] {
                  spin(2000);
                  late += lives ? 0 : 1;
                });
                spin(round % 50 * 5000);
                event.reset();
                lives = false;
                calls += observer.calls;
              }
              return late == 0 && calls > 0 ? 0 : 1;
            }));
}

// A service answers to its signals as ever.
TEST(VarnSignalEvent, SharesTheSignalsOfAService) {
  class Service : public VarnService {
   public:
    VarnSignalEvent terminate{SIGTERM};
    bool isTold = false;

   protected:
    bool onStart(const std::string&) override { return true; }
    void onStop() override { isTold = terminate.take(kGenerous) == 1; }
  };
  EXPECT_EQ(0, runInChild([] {
              {
                Service service;
                const std::jthread sender([&] {
                  eventually([&] { return service.state() == 0; });
                  eventually([&] { return actionOf(SIGPIPE) != SIG_DFL; });
                  raise(SIGTERM);
                });
                if (!service.start("", false) || !service.isTold)
                  return 1;
              }
              raise(SIGTERM);  // stays routed
              return 0;
            }));
}

TEST(VarnSignalEvent, GoesOnInTheChildOfAFork) {
  if (kInstrumented)
    return;  // a child of a process with threads cannot start any there
  EXPECT_EQ(
      0, runInChild([] {
        VarnSignalEvent event(SIGHUP);
        std::atomic<int> calls{0};
        const Observer observer(event, [&] { ++calls; });
        raise(SIGHUP);
        if (!eventually([&] { return calls == 1; }))
          return 1;
        std::atomic<bool> mayGo{false};
        const std::jthread other([&] {
          signal(SIGWINCH, handled);
          VarnSignalEvent onOtherStack(SIGWINCH);
          eventually([&] { return mayGo.load(); });
        });
        eventually([] { return actionOf(SIGWINCH) != SIG_DFL && actionOf(SIGWINCH) != handled; });
        const int outcome = runInBareChild([&] {
          if (event.take(0ms) != 0)
            return 1;
          if (actionOf(SIGWINCH) != handled)
            return 2;
          raise(SIGHUP);
          return event.take(kGenerous) == 1 && eventually([&] { return calls == 2; }) ? 0 : 3;
        });
        mayGo = true;
        return outcome == 0 && event.take(0ms) == 1 ? 0 : 10 + outcome;
      }));
}

TEST(VarnSignalEvent, GoesOnInTheChildThatItsCallbackForks) {
  if (kInstrumented)
    return;
  EXPECT_EQ(0, runInChild([] {
              std::atomic<pid_t> child{0};
              VarnSignalEvent* event = nullptr;
              Watched watched(SIGHUP, [&] {
                child = fork();
                if (child == 0)
                  _exit(raise(SIGHUP) == 0 && event->take(kGenerous) == 1 ? 5 : 6);
              });
              event = &watched.event;
              raise(SIGHUP);
              return eventually([&] { return child != 0; }) && outcomeOf(child) == 5 ? 0 : 1;
            }));
}

TEST(VarnSignalEvent, AKilledThreadLeavesTake) {
  EXPECT_EQ(0, runInChild([] {
              VarnSignalEvent event(SIGHUP);
              Task waiter([&] { return static_cast<int>(event.take()); });
              waiter.start();
              sleepMs(20);
              killAndJoin(waiter);
              raise(SIGHUP);
              return event.take(kGenerous) == 1 ? 0 : 1;
            }));
}
