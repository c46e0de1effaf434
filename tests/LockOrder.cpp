// Sections are checked where the environment said so when the library was loaded: each case runs
// again, in a program of its own.

#include "LibraryTools.h"

namespace {

// True in the program of its own.
bool isChecked(const std::string& standardError = "") {
  const char* const wish = std::getenv("VSUPT_CHECK_LOCKS");
  if (wish != nullptr && std::string(wish) == "1")
    return true;
  const testing::TestInfo& test = *testing::UnitTest::GetInstance()->current_test_info();
  const std::string filter =
      std::string("--gtest_filter=") + test.test_suite_name() + "." + test.name();
  EXPECT_EQ(0, runInBareChild([&] {
              setenv("VSUPT_CHECK_LOCKS", "1", 1);
              setenv("TSAN_OPTIONS", "detect_deadlocks=0", 1);
              if (!standardError.empty())
                dup2(open(standardError.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600), 2);
              execl("/proc/self/exe", "tests", filter.c_str(), nullptr);
              return 99;
            }));
  return false;
}

// A log, and the reports in it.
struct Reports : Notes {
  Reports() { VarnLogging::setInstance(log); }

  VarnLogging log{"unused", 0, 1};
  VarnLogObserver observer{1, [this](const VarnLogEntry& entry) { add(std::string(entry.text)); }};
};

template <typename First, typename Second>
void inOrder(First& first, Second& second) {
  const VarnCriticalSection outer(first);
  const VarnCriticalSection inner(second);
}

}  // namespace

TEST(LockOrder, BothOrdersAreReportedOnceWithBothStacks) {
  if (!isChecked())
    return;
  Reports reports;
  VarnCriticalSectionObject a;
  VarnCriticalSectionObject b;
  VarnCriticalSectionObject c;
  inOrder(a, b);
  for (int i = 0; i < 3; ++i)
    onThreads(1, [&](int) { inOrder(b, a); });
  ASSERT_TRUE(reports.come(1));
  inOrder(c, b);
  inOrder(b, c);
  ASSERT_TRUE(reports.come(2));
  ASSERT_EQ(2U, reports.all().size());
  const std::string first = reports.all().front();
  EXPECT_TRUE(contains(first, "thread " + std::to_string(gettid()) + " took 0x")) << first;
  const auto program = fs::read_symlink("/proc/self/exe").string();
  const std::size_t halves = first.rfind(" took 0x");
  EXPECT_TRUE(contains(first.substr(0, halves), " in " + program + " 0x")) << first;
  EXPECT_TRUE(contains(first.substr(halves), " in " + program + " 0x")) << first;
}

TEST(LockOrder, NothingElseIsReported) {
  if (!isChecked())
    return;
  Reports reports;
  VarnCriticalSectionObject a;
  VarnCriticalSectionObject b;
  VarnCriticalSectionObject copy;
  inOrder(a, b);
  copy = a;
  inOrder(copy, b);
  {
    const VarnCriticalSection outer(a);
    inOrder(b, a);
  }
  {
    const VarnCriticalSection outer(b);
    if (a.testAndSet())
      a.unlock();
  }
  VarnLockFactory<std::string, VarnMutexObject> factory;
  for (const char* const name : {"x", "y"})
    factory.createLock(name);
  for (int i = 0; i < 100; ++i) {
    inOrder(factory.get("x"), factory.get("y"));
    // The states of these have addresses that others had before, in either order.
    VarnCriticalSectionObject brief[3];
    inOrder(brief[i % 3], brief[(i + 1) % 3]);
    inOrder(brief[(i + 2) % 3], brief[i % 3]);
  }
  inOrder(b, a);
  ASSERT_TRUE(reports.come(1));
  sleepMs(20);
  EXPECT_EQ(1U, reports.all().size());
}

TEST(LockOrder, ThreadsThatAreAboutToHangAreReported) {
  const TempFolder folder;
  if (!isChecked(folder / "error")) {
    const std::string text = contentsOf(folder / "error");
    EXPECT_TRUE(contains(text, "two sections are taken in both orders"));
    EXPECT_TRUE(text.ends_with("\n")) << text;
    return;
  }
  const std::string error = fs::read_symlink("/proc/self/fd/2").string();
  VarnCriticalSectionObject sections[2];
  std::atomic<int> holders{0};
  for (int i = 0; i < 2; ++i) {
    std::thread([&, i] {
      const VarnCriticalSection outer(sections[i]);
      ++holders;
      eventually([&] { return holders == 2; });
      const VarnCriticalSection inner(sections[1 - i]);
    }).detach();
  }
  _exit(eventually([&] { return contentsOf(error).ends_with("\n"); }) ? 0 : 1);
}

// Either finds the other's section free, and then waits for it.
TEST(LockOrder, ThreadsThatMeetAtOnceAreReported) {
  if (!isChecked())
    return;
  constexpr std::size_t kPairs = kInstrumented ? 10 : 80;
  Reports reports;
  struct {
    VarnCriticalSectionObject sections[2];
    std::atomic<int> ready{0};
  } pairs[kPairs];
  std::atomic<std::size_t> told{0};
  for (std::size_t i = 0; i < kPairs && told == i; ++i) {
    for (int side : {0, 1}) {
      std::thread([&, i, side] {
        auto& pair = pairs[i];
        pair.sections[side].init();
        ++pair.ready;
        while (pair.ready < 2) {
        }
        while (told == i)
          inOrder(pair.sections[side], pair.sections[1 - side]);
      }).detach();
    }
    if (reports.come(i + 1))
      ++told;
  }
  _exit(told == kPairs ? 0 : 1);
}

TEST(LockOrder, ThePairsThatAreKeptAreReportedWhenThereIsNoRoomForOthers) {
  if (!isChecked())
    return;
  Reports reports;
  std::vector<VarnCriticalSectionObject> sections(20'000);
  inOrder(sections[0], sections[1]);
  for (std::size_t i = 2; i < sections.size(); ++i)
    inOrder(sections[i - 1], sections[i]);
  for (int i = 0; i < 3; ++i)
    inOrder(sections[1], sections[0]);
  ASSERT_TRUE(reports.come(1));
  sleepMs(20);
  EXPECT_EQ(1U, reports.all().size());
}
