// What all tests share: waiting for conditions, temporary folders, children with a time limit, and
// the headers that most of them need.
#ifndef TESTS_TESTTOOLS_H
#define TESTS_TESTTOOLS_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "VarnSupport/VarnException.h"

namespace fs = std::filesystem;
using namespace VarnSupport;
using namespace std::chrono_literals;

using Clock = std::chrono::steady_clock;

using Lines = std::vector<std::string>;

constexpr std::chrono::seconds kGenerous{30};

inline void sleepMs(int milliseconds) {
  std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

// Keeps the processor busy for a moment.
inline void spin(unsigned turns) {
  std::atomic<unsigned> turn{0};
  while (turn < turns)
    ++turn;
}

// Waits until `condition` holds, within a generous limit.
template <typename Condition>
bool eventually(Condition condition, std::chrono::seconds limit = kGenerous) {
  const auto end = Clock::now() + limit;
  while (!condition()) {
    if (Clock::now() > end)
      return false;
    sleepMs(1);
  }
  return true;
}

#if defined(__SANITIZE_THREAD__)
constexpr bool kThreadSanitizer = true;
#else
constexpr bool kThreadSanitizer = false;
#endif
#if defined(__SANITIZE_ADDRESS__)
constexpr bool kAddressSanitizer = true;
#else
constexpr bool kAddressSanitizer = false;
#endif
constexpr bool kInstrumented = kThreadSanitizer || kAddressSanitizer;

// False in a child that lives on without threads which it had: AddressSanitizer does not find what
// is reachable from their stacks alone.
inline std::atomic<bool> leaksCanBeFound{true};
extern "C" [[gnu::used]] inline int __lsan_is_turned_off() { return leaksCanBeFound ? 0 : 1; }

// How long a stress test runs; VSUPT_STRESS_SECONDS lengthens all of them.
inline std::chrono::seconds stressTime(int seconds = 2) {
  const char* const given = std::getenv("VSUPT_STRESS_SECONDS");
  return std::chrono::seconds(given != nullptr ? std::atoi(given) : seconds);
}

// Random numbers from a seed that is printed with every failure, and that VSUPT_SEED sets.
struct Random : std::mt19937_64 {
  explicit Random(unsigned long seed) : std::mt19937_64(seed), trace("seed", 0, seed) {}
  Random() : Random(seedToUse()) {}
  static unsigned long seedToUse() {
    const char* const given = std::getenv("VSUPT_SEED");
    return given != nullptr ? std::strtoul(given, nullptr, 10) : std::random_device()();
  }
  const testing::ScopedTrace trace;
};

// Runs `body(i)` on several threads at once, to their ends.
template <typename Body>
void onThreads(int count, Body body) {
  std::vector<std::jthread> threads;
  for (int i = 0; i < count; ++i)
    threads.emplace_back([&body, i] { body(i); });
}

// What another thread gets from `call`.
template <typename Call>
bool elsewhere(Call call) {
  bool result = false;
  std::thread([&] { result = call(); }).join();
  return result;
}

// Runs `turn` over and over, until the result is destroyed.
inline std::jthread repeating(std::function<void()> turn) {
  return std::jthread([turn = std::move(turn)](const std::stop_token& stop) {
    while (!stop.stop_requested())
      turn();
  });
}

// What `call` gives, "none" for nothing, or the text of the exception that it throws.
template <typename Call>
std::string resultOf(Call call) {
  try {
    if constexpr (std::is_same_v<decltype(call()), std::string>)
      return call();
    else
      return call(), "none";
  } catch (const VarnException& refusal) {
    EXPECT_EQ(0, refusal.getCode());
    return refusal.getText();
  }
}

inline bool contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

// Texts that several threads note.
class Notes {
 public:
  void add(std::string text) {
    const std::lock_guard guard(m_oMutex);
    m_vTexts.push_back(std::move(text));
  }
  Lines all() const {
    const std::lock_guard guard(m_oMutex);
    return m_vTexts;
  }
  // Waits until there are so many.
  bool come(std::size_t count) const {
    return eventually([&] { return all().size() >= count; });
  }

 private:
  mutable std::mutex m_oMutex;
  Lines m_vTexts;
};

class TempFolder {
 public:
  TempFolder() {
    std::string pattern = (fs::temp_directory_path() / "vsupt-XXXXXX").string();
    m_oPath = mkdtemp(pattern.data());
  }
  TempFolder(const TempFolder&) = delete;
  TempFolder& operator=(const TempFolder&) = delete;
  ~TempFolder() { fs::remove_all(m_oPath); }

  std::string operator/(const std::string& name) const { return (m_oPath / name).string(); }
  std::string path() const { return m_oPath.string(); }

 private:
  fs::path m_oPath;
};

inline std::string contentsOf(const std::string& file) {
  std::ifstream stream(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), {}};
}

inline Lines linesOf(const std::string& file) {
  std::ifstream stream(file);
  Lines lines;
  for (std::string line; std::getline(stream, line);)
    lines.push_back(line);
  return lines;
}

inline int entriesIn(const std::string& folder) {
  return static_cast<int>(std::distance(fs::directory_iterator(folder), {}));
}

// The threads of this process. ThreadSanitizer's own one starts with the first.
inline int threadCount() { return entriesIn("/proc/self/task") + (kThreadSanitizer ? 1 : 0); }

// Whether a thread of this process is in that call of the system.
inline bool isIn(pid_t thread, long call) {
  return contentsOf("/proc/self/task/" + std::to_string(thread) + "/syscall")
      .starts_with(std::to_string(call) + ' ');
}

// Whether a thread of this process sleeps until another wakes it.
inline bool isAsleep(pid_t thread) { return isIn(thread, SYS_futex); }

// Runs `body` on a thread of its own, which sleeps there when this returns.
template <typename Body>
std::jthread startSleeper(Body body) {
  std::atomic<pid_t> id{0};
  std::jthread sleeper([&id, body] {
    id = gettid();
    body();
  });
  EXPECT_TRUE(eventually([&] { return id != 0 && isAsleep(id); }));
  return sleeper;
}

// Whether a process has ended, be it that nobody has waited for it yet.
inline bool isGone(pid_t process) {
  const std::string status = contentsOf("/proc/" + std::to_string(process) + "/stat");
  return status.empty() || status.find(") Z ") != std::string::npos;
}

inline void writeFile(const std::string& file, const std::string& contents) {
  std::ofstream(file, std::ios::binary) << contents;
}

// How a process ended: its exit code, or minus the signal, or kHung.
constexpr int kHung = -1000;

inline int outcomeOf(pid_t child) {
  int status = 0;
  if (!eventually([&] { return waitpid(child, &status, WNOHANG) == child; })) {
    kill(child, SIGKILL);
    waitpid(child, &status, 0);
    return kHung;
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

// Sends SIGTERM to a process that somebody else waits for, and waits for its end.
inline void terminate(pid_t process) {
  kill(process, SIGTERM);
  EXPECT_TRUE(eventually([&] { return isGone(process); }));
}

// What `body` returns, 0 if that is nothing.
template <typename Body>
int codeOf(Body& body) {
  if constexpr (std::is_void_v<decltype(body())>)
    return body(), 0;
  else
    return body();
}

// Runs `body` in a child process, which ends with exit(code).
template <typename Body>
pid_t startChild(Body body) {
  std::fflush(nullptr);
  const pid_t child = fork();
  if (child == 0)
    std::exit(codeOf(body));
  return child;
}

template <typename Body>
int runInChild(Body body) {
  return outcomeOf(startChild(body));
}

// Runs `body` in a child process, where all that it expects must hold.
template <typename Body>
void expectInChild(Body body) {
  EXPECT_EQ(0, runInChild([&] { return body(), testing::Test::HasFailure() ? 1 : 0; }));
}

// The same, but it ends with _exit(code): nothing of the parent is destroyed there.
template <typename Body>
pid_t startBareChild(Body body) {
  return startChild([&]() -> int { _exit(codeOf(body)); });
}

template <typename Body>
int runInBareChild(Body body) {
  return outcomeOf(startBareChild(body));
}

template <typename Body>
void expectInBareChild(Body body) {
  EXPECT_EQ(0, runInBareChild([&] { return body(), testing::Test::HasFailure() ? 1 : 0; }));
}

#endif
