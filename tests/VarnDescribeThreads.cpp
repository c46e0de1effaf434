#include "VarnSupport/VarnDescribeThreads.h"

#include <fcntl.h>
#include <sys/eventfd.h>
#include <sys/resource.h>

#include <mutex>
#include <regex>

#include "LibraryTools.h"
#include "VarnSupport/VarnEvent.h"
#include "VarnSupport/VarnSignalEvent.h"

namespace {

// Whether the threads come to be described so.
bool comesToSay(const std::string& pattern) {
  const std::regex expression(pattern);
  std::string text;
  const bool said =
      eventually([&] { return text = VarnDescribeThreads(), std::regex_search(text, expression); });
  EXPECT_TRUE(said) << pattern << "\n" << text;
  return said;
}

constexpr const char* kTime = "[0-9]+\\.[0-9]{3} s";

}  // namespace

TEST(VarnDescribeThreads, TellsWhoHoldsWhatAndWhoWaitsForIt) {
  VarnCriticalSectionObject section;
  VarnEvent go;
  VarnEvent other;
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
  Task waiter([&] { return section.lock(), section.unlock(), 0; }, "waiter");
  Task listener([&] { return go.wait(-1), 0; }, "listener");
  waiter.start();
  listener.start();
  comesToSay(std::string("\"waiter\", a VarnThread: waits for ") + kTime +
             " for section 0x[0-9a-f]+, which [0-9]+ \"holder\" holds\n");
  comesToSay(std::string("  holds section 0x[0-9a-f]+, 2 levels, wanted for ") + kTime +
             " by 1 thread\n");
  comesToSay(std::string("\"listener\", a VarnThread: waits for ") + kTime +
             " for event 0x[0-9a-f]+\n");
  std::atomic<pid_t> ended{0};
  std::thread joiner([&] {
    std::thread joined([&] {
      ended = gettid();
      go.wait(-1);
    });
    joined.join();
  });
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
    Task logger(
        [] {
          VarnLogRecord record(1);
          record << "never ends";
          return pause();
        },
        "logger");
    Task owner(
        []() VSUPT_UNCHECKED {
          g_pCriticalSection->lock();
          return pause();
        },
        "owner");
    logger.start();
    owner.start();
    Task victim([]() VSUPT_UNCHECKED { return g_pCriticalSection->lock(), 0; }, "victim");
    const auto says = [](const char* part) {
      return eventually([part] { return contains(VarnDescribeThreads(), part); });
    };
    says("record lock");
    says("(the global section), 1 level");
    victim.start();
    says("\"victim\", a VarnThread: waits for");
    writeFile(file + ".ready", "");
    return pause();
  });
  ASSERT_TRUE(eventually([&] { return std::filesystem::exists(file + ".ready"); }));
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
  EXPECT_EQ(0, runInBareChild([]() -> int {
              static std::atomic<int> never{0};
              const std::jthread other = startSleeper([] { never.wait(0); });
              const rlimit few{32, 32};
              setrlimit(RLIMIT_NOFILE, &few);
              int last = -1;
              for (int next = 0; next >= 0; next = eventfd(0, EFD_CLOEXEC))
                last = next;
              pthread_setname_np(pthread_self(), "few");
              EXPECT_TRUE(contains(VarnDescribeThreads(),
                                   "1 thread\nnot all can be listed: Too many open files\n" +
                                       std::to_string(gettid()) + " \"few\": describes"));
              close(last);
              EXPECT_TRUE(contains(VarnDescribeThreads(), ": in futex()\n"));
              _exit(testing::Test::HasFailure() ? 1 : 0);
            }));
}

TEST(VarnDescribeThreads, APipeThatNobodyReadsNeitherKeepsNorEndsIt) {
  EXPECT_EQ(0, runInBareChild([] {
              int ends[2];
              if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0)
                return 1;
              while (write(ends[1], "x", 1) == 1) {
              }
              std::signal(SIGPROF, [](int) {});
              const std::jthread other([main = pthread_self()](const std::stop_token& stop) {
                for (int i = 0; i < 100 && !stop.stop_requested(); ++i) {
                  sleepMs(50);
                  pthread_kill(main, SIGPROF);
                }
              });
              const auto start = std::chrono::steady_clock::now();
              VarnDescribeThreads(ends[1]);
              if (std::chrono::steady_clock::now() - start > std::chrono::seconds(4))
                return 2;
              close(ends[0]);
              errno = 77;
              VarnDescribeThreads(ends[1]);  // which is no reason for SIGPIPE, either
              return errno == 77 ? 0 : 3;
            }));
}
