#include "VarnSupport/VarnDescribeThreads.h"

#include <sys/eventfd.h>

#include <regex>

#include "LibraryTools.h"

namespace {

// The threads come to be described so.
void comesToSay(const std::string& pattern) {
  const std::regex expression(pattern);
  std::string text;
  EXPECT_TRUE(eventually([&] {
    text = VarnDescribeThreads();
    return std::regex_search(text, expression);
  })) << pattern
      << "\n"
      << text;
}

constexpr const char* kTime = "[0-9]+\\.[0-9]{3} s";

}  // namespace

TEST(VarnDescribeThreads, TellsWhoHoldsWhatAndWhoWaitsForIt) {
  VarnCriticalSectionObject section;
  VarnEvent go;
  const int released = eventfd(0, EFD_CLOEXEC);
  Task holder(
      [&]() VSUPT_UNCHECKED {
        const VarnCriticalSection once(section);
        const VarnCriticalSection twice(section);
        std::uint64_t value = 0;
        return static_cast<int>(read(released, &value, sizeof value));
      },
      "holder");
  holder.start();
  comesToSay("[0-9]+ \"holder\", a VarnThread: in read\\(\\), descriptor " +
             std::to_string(released) +
             ", anon_inode:\\[eventfd\\]\n  holds section 0x[0-9a-f]+, "
             "2 levels\n");
  Task waiter([&] { section.lock(), section.unlock(); }, "waiter");
  Task listener([&] { go.wait(-1); }, "listener");
  waiter.start();
  listener.start();
  comesToSay(std::string("\"waiter\", a VarnThread: waits for ") + kTime +
             " for section 0x[0-9a-f]+, which [0-9]+ \"holder\" holds\n");
  comesToSay(std::string("  holds section 0x[0-9a-f]+, 2 levels, wanted for ") + kTime +
             " by 1 thread\n");
  comesToSay(std::string("\"listener\", a VarnThread: waits for ") + kTime +
             " for event 0x[0-9a-f]+\n");
  std::atomic<pid_t> ended{0};
  std::thread joined([&] {
    ended = gettid();
    go.wait(-1);
  });
  std::thread joiner([&] { joined.join(); });
  ASSERT_TRUE(eventually([&] { return ended != 0; }));
  comesToSay("waits for the end of " + std::to_string(ended) + " ");
  const std::uint64_t one = 1;
  EXPECT_EQ(ssize_t{sizeof one}, write(released, &one, sizeof one));
  while (elsewhere([&] { return go.set(), ended != 0; }) && holder.getExitCode() == -1)
    sleepMs(1);
  go.set();
  joiner.join();
  waiter.waitForThreadExit();
  EXPECT_FALSE(std::regex_search(VarnDescribeThreads(), std::regex("section")));
  close(released);
}

TEST(VarnDescribeThreads, KnowsWhoHasAPlainMutex) {
  std::mutex mutex;
  mutex.lock();
  const std::jthread waiter = startSleeper([&] { const std::lock_guard guard(mutex); });
  comesToSay("waits for a mutex, which " + std::to_string(gettid()) + " ");
  mutex.unlock();
}

// The threads hold what the library itself needs most.
TEST(VarnDescribeThreads, DescribesAHangingProcessAtASignal) {
  const TempFolder folder;
  const std::string file = folder / "described";
  const pid_t child = startBareChild([&] {
    const int output = open(file.c_str(), O_CREAT | O_WRONLY | O_APPEND | O_CLOEXEC, 0600);
    VarnLogging log("unused", VarnLogging::kToStandardOutput, 5);
    VarnLogging::setInstance(log);
    VarnSignalEvent quit(SIGQUIT);
    const Observer observer(quit, [&] { VarnDescribeThreads(output); });
    VarnEvent never;
    const auto logger = startTask([&] {
      VarnLogRecord record(1);
      record << "never ends";
      never.wait(-1);
    });
    const auto owner = startTask([&]() VSUPT_UNCHECKED {
      g_pCriticalSection->lock();
      never.wait(-1);
    });
    const auto victim = startTask([]() VSUPT_UNCHECKED { g_pCriticalSection->lock(); });
    writeFile(file + ".ready", "");
    pause();
  });
  ASSERT_TRUE(eventually([&] { return fs::exists(file + ".ready"); }));
  std::string text;
  EXPECT_TRUE(eventually([&] {
    kill(child, SIGQUIT);
    sleepMs(20);
    text = contentsOf(file);
    return contains(text, " (the global section), which ") &&
           contains(text, " (the record lock of the log), 1 level") &&
           contains(text, "\"vsupt-event\", of the library: describes the threads");
  })) << text;
  kill(child, SIGKILL);
  outcomeOf(child);
}

TEST(VarnDescribeThreads, SaysThatItHasNoDescriptorToLookWith) {
  expectInBareChild([] {
    static std::atomic<int> never{0};
    startSleeper([] { never.wait(0); }).detach();
    const rlimit few{32, 32};
    setrlimit(RLIMIT_NOFILE, &few);
    int last = -1;
    for (int next = 0; next >= 0; next = eventfd(0, EFD_CLOEXEC))
      last = next;
    pthread_setname_np(pthread_self(), "few");
    EXPECT_TRUE(
        contains(VarnDescribeThreads(), "1 thread\nnot all can be listed: Too many open files\n" +
                                            std::to_string(gettid()) + " \"few\": describes"));
    close(last);
    EXPECT_TRUE(contains(VarnDescribeThreads(), ": in futex()\n"));
  });
}

TEST(VarnDescribeThreads, APipeThatNobodyReadsNeitherKeepsNorEndsIt) {
  expectInBareChild([] {
    int ends[2];
    ASSERT_EQ(0, pipe2(ends, O_CLOEXEC | O_NONBLOCK));
    while (write(ends[1], "x", 1) == 1) {
    }
    std::signal(SIGPROF, [](int) {});
    const std::jthread other([main = pthread_self()](const std::stop_token& stop) {
      for (int i = 0; i < 100 && !stop.stop_requested(); ++i) {
        sleepMs(50);
        pthread_kill(main, SIGPROF);
      }
    });
    const auto start = Clock::now();
    VarnDescribeThreads(ends[1]);
    EXPECT_GE(4s, Clock::now() - start);
    close(ends[0]);
    errno = 77;
    VarnDescribeThreads(ends[1]);  // which is no reason for SIGPIPE, either
    EXPECT_EQ(77, errno);
  });
}
