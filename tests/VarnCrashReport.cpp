#include "VarnSupport/VarnCrashReport.h"

#include <regex>

#include "LibraryTools.h"

namespace {

constexpr int kSegv = -SIGSEGV;

// The sanitizers have handlers of their own.
void forgetHandlers() {
  for (const int signal : {SIGSEGV, SIGABRT, SIGBUS, SIGFPE})
    std::signal(signal, SIG_DFL);
  const rlimit none{0, 0};
  setrlimit(RLIMIT_CORE, &none);
}

// What a child that crashes writes, and how it ends.
struct Crash {
  explicit Crash(const std::function<void()>& action) {
    const TempFolder folder;
    const std::string file = folder / "report";
    outcome = runInBareChild([&] {
      forgetHandlers();
      const int output = open(file.c_str(), O_CREAT | O_WRONLY | O_APPEND | O_CLOEXEC, 0600);
      VarnLogging log("unused", 0, 5);
      VarnLogging::setInstance(log);
      const VarnCrashReport report(output);
      VarnLogRecord("net", 2) << "the last\nrecord";
      action();
    });
    text = contentsOf(file);
  }

  int count(const std::string& part) const {
    int found = 0;
    for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
      ++found;
    return found;
  }

  int outcome;
  std::string text;
};

std::ostream& operator<<(std::ostream& stream, const Crash& crash) {
  return stream << crash.outcome << "\n" << crash.text;
}

[[gnu::noinline]] void touchNothing() {
  const volatile int* const volatile nowhere = reinterpret_cast<const volatile int*>(16);
  static_cast<void>(*nowhere);
}

[[gnu::noinline]] int recurse(int depth) {
  volatile char used[2048];
  used[depth % 2048] = 1;
  return depth < 0 ? 0 : recurse(depth + 1) + used[depth % 7];
}

void callNothing() {
  void (*volatile nothing)() = nullptr;
  nothing();
}

// Whatever stands above on the stack is no address.
[[gnu::noinline]] void returnToNowhere() {
  auto* volatile frame = static_cast<std::uintptr_t*>(__builtin_frame_address(0));
  for (int i = -2; i < 200; ++i)
    frame[i] = 0x4141414141414141;
}

// Another size stands before a block than it has.
void spoilHeap() {
  auto* const block = new volatile std::uint64_t[500];
  block[-1] = 0x4141414141414141;
  delete[] block;
}

void throwElsewhere() {
  std::thread([] { throw VarnException("odd", 1); }).join();
}

void onSmallStack(void* (*routine)(void*)) {
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setstacksize(&attributes, std::size_t{1} << 16);
  pthread_t thread{};
  EXPECT_EQ(0, pthread_create(&thread, &attributes, routine, nullptr));
  pthread_join(thread, nullptr);
}

void inTask(const std::function<void()>& action) {
  Task task([&] { return action(), 0; }, "crasher");
  task.start();
  task.waitForThreadExit();
}

struct Spoilt {};
std::ostream& operator<<(std::ostream& stream, const Spoilt&) {
  touchNothing();
  return stream;
}

}  // namespace

TEST(VarnCrashReport, TellsOfEachCrashAndKeepsTheExitStatus) {
  struct Row {
    const char* name;
    std::function<void()> action;
    int outcome;
    const char* pattern;
    bool underSanitizers = true;
  };
  const Row rows[] = {
      {"fault", touchNothing, kSegv, "^crash: SIGSEGV \\(11\\), code 1, address 0x10\n"},
      {"call of nothing", callNothing, kSegv, "cannot be walked.*\n  0x0\n  0x[0-9a-f]+ in /"},
      {"abort", [] { std::abort(); }, -SIGABRT, "^crash: SIGABRT \\(6\\), code -6, sent by"},
      {"bus", [] { raise(SIGBUS); }, -SIGBUS, "^crash: SIGBUS \\(7\\), code -6"},
      {"arithmetic", [] { raise(SIGFPE); }, -SIGFPE, "^crash: SIGFPE \\(8\\), code -6"},
      {"exception", throwElsewhere, -SIGABRT,
       "^crash: uncaught exception of type N11VarnSupport13VarnExceptionE\n"},
      {"exception's text", throwElsewhere, -SIGABRT, "\nwhat: odd\n"},
      {"terminate", [] { std::terminate(); }, -SIGABRT, "^crash: std::terminate\\(\\)\n"},
      {"no stack left", [] { recurse(0); }, kSegv, "^crash: SIGSEGV \\(11\\), code [12],"},
      {"no stack left in a VarnThread", [] { inTask([] { recurse(0); }); }, kSegv,
       "thread [0-9]+ \"crasher\""},
      {"spoilt stack", returnToNowhere, kSegv, "stack:\n", false},
      {"spoilt heap", spoilHeap, -SIGABRT, "^crash: SIGABRT", false},
      {"small stack",
       [] { onSmallStack([](void*) { return touchNothing(), static_cast<void*>(nullptr); }); },
       kSegv, "address 0x10\n"},
      {"while a record is open", [] { VarnLogRecord(1) << "open " << Spoilt(); }, kSegv,
       "address 0x10\n"}};
  for (const Row& row : rows) {
    if (kInstrumented && !row.underSanitizers)
      continue;
    SCOPED_TRACE(row.name);
    const Crash crash(row.action);
    EXPECT_EQ(row.outcome, crash.outcome) << crash;
    EXPECT_TRUE(std::regex_search(crash.text, std::regex(row.pattern))) << crash;
    EXPECT_EQ(1, crash.count("crash: ")) << crash;
    EXPECT_EQ(1, crash.count("end of the report\n")) << crash;
    EXPECT_TRUE(contains(crash.text, "] the last\\nrecord\n")) << crash;
  }
}

TEST(VarnCrashReport, ThePlacesCanBeResolved) {
  const Crash crash(touchNothing);
  std::smatch place;
  ASSERT_TRUE(std::regex_search(crash.text, place,
                                std::regex("stack:\n  0x[0-9a-f]+ in (/.*) (0x[0-9a-f]+)\n")))
      << crash;
  const std::string command = "addr2line -Cfe " + place.str(1) + " " + place.str(2);
  FILE* const resolved = popen(command.c_str(), "r");
  std::array<char, 200> name{};
  ASSERT_NE(nullptr, std::fgets(name.data(), int{name.size()}, resolved));
  pclose(resolved);
  EXPECT_TRUE(contains(name.data(), "touchNothing")) << name.data();
}

TEST(VarnCrashReport, PlacesAreToldWhenThereIsNoDescriptorLeft) {
  const Crash crash([] {
    const rlimit few{64, 64};
    setrlimit(RLIMIT_NOFILE, &few);
    while (open("/", O_PATH | O_CLOEXEC) >= 0) {
    }
    touchNothing();
  });
  EXPECT_TRUE(std::regex_search(crash.text, std::regex("stack:\n  0x[0-9a-f]+ in /"))) << crash;
}

TEST(VarnCrashReport, TheChildOfAForkHasIt) {
  const Crash crash([] {
    if (runInBareChild([] { return touchNothing(), 0; }) != kSegv)
      _exit(1);
  });
  EXPECT_EQ(0, crash.outcome);
  EXPECT_EQ(1, crash.count("end of the report\n")) << crash;
}

TEST(VarnCrashReport, ThreadsThatCrashAtOnceReportOneAfterTheOther) {
  const Crash crash([] {
    std::atomic<int> ready{0};
    onThreads(4, [&](int) {
      ++ready;
      while (ready < 4) {
      }
      touchNothing();
    });
  });
  EXPECT_EQ(kSegv, crash.outcome);
  EXPECT_GE(crash.count("crash: "), 1) << crash;
  EXPECT_TRUE(std::regex_match(
      crash.text, std::regex("(crash: [^:]*:[^:]*:[^:]*Z\nstack:\n[^:]*records:\n.*\nend of the "
                             "report\n)+")))
      << crash;
}

TEST(VarnCrashReport, TheHandlerThatWasThereGetsTheSignal) {
  const TempFolder folder;
  const std::string file = folder / "report";
  EXPECT_EQ(
      7, runInBareChild([&] {
        forgetHandlers();
        std::signal(SIGSEGV, [](int) { _exit(7); });
        const VarnCrashReport report(open(file.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
        touchNothing();
      }));
  EXPECT_TRUE(contains(contentsOf(file), "end of the report\n"));
  expectInBareChild([] {
    forgetHandlers();
    EXPECT_THROW(VarnCrashReport(12345), VarnException);
    {
      const VarnCrashReport report(2);
      EXPECT_THROW(VarnCrashReport(2), VarnException);
      pthread_cancel(pthread_self());
    }
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    struct sigaction now {};
    sigaction(SIGSEGV, nullptr, &now);
    EXPECT_EQ(SIG_DFL, now.sa_handler);
  });
}

TEST(VarnCrashReport, APipeThatNobodyReadsDoesNotHoldItUp) {
  for (const bool isBroken : {true, false}) {
    int ends[2];
    ASSERT_EQ(0, pipe2(ends, O_CLOEXEC | O_NONBLOCK));
    while (write(ends[1], "x", 1) == 1) {
    }
    fcntl(ends[1], F_SETFL, 0);
    if (isBroken)
      close(ends[0]);
    EXPECT_EQ(kSegv, runInBareChild([&] {
                forgetHandlers();
                const VarnCrashReport report(ends[1]);
                touchNothing();
              }));
    close(ends[1]);
    if (!isBroken)
      close(ends[0]);
  }
}
