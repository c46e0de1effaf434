// What the tests share: waiting for conditions, temporary folders, children with a time limit, and
// a log that can be read back.
#ifndef TESTS_TESTTOOLS_H
#define TESTS_TESTTOOLS_H

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "VarnSupport/VarnSupport.h"

namespace TestTools {

using Clock = std::chrono::steady_clock;

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

// How long a stress test runs; VSUPT_STRESS_SECONDS lengthens all of them.
inline std::chrono::seconds stressTime(int seconds = 2) {
  const char* const given = std::getenv("VSUPT_STRESS_SECONDS");
  return std::chrono::seconds(given != nullptr ? std::atoi(given) : seconds);
}

class TempFolder {
 public:
  TempFolder() {
    std::string pattern = (std::filesystem::temp_directory_path() / "vsupt-XXXXXX").string();
    m_oPath = mkdtemp(pattern.data());
  }
  TempFolder(const TempFolder&) = delete;
  TempFolder& operator=(const TempFolder&) = delete;
  ~TempFolder() { std::filesystem::remove_all(m_oPath); }

  std::string operator/(const std::string& name) const { return (m_oPath / name).string(); }
  std::string path() const { return m_oPath.string(); }

 private:
  std::filesystem::path m_oPath;
};

inline std::string contentsOf(const std::string& file) {
  std::ifstream stream(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), {}};
}

inline std::vector<std::string> linesOf(const std::string& file) {
  std::ifstream stream(file);
  std::vector<std::string> lines;
  for (std::string line; std::getline(stream, line);)
    lines.push_back(line);
  return lines;
}

inline int entriesIn(const std::string& folder) {
  return static_cast<int>(std::distance(std::filesystem::directory_iterator(folder), {}));
}

inline void writeFile(const std::string& file, const std::string& contents) {
  std::ofstream(file, std::ios::binary) << contents;
}

// How a process ended: its exit code, or minus the signal, or kHung.
constexpr int kHung = -1000;

inline int outcomeOf(pid_t child, std::chrono::seconds limit = kGenerous) {
  int status = 0;
  if (!eventually([&] { return waitpid(child, &status, WNOHANG) == child; }, limit)) {
    kill(child, SIGKILL);
    waitpid(child, &status, 0);
    return kHung;
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

// Runs `body` in a child process, which ends with exit(result).
inline pid_t startChild(const std::function<int()>& body) {
  std::fflush(nullptr);
  const pid_t child = fork();
  if (child == 0)
    std::exit(body());
  return child;
}

inline int runInChild(const std::function<int()>& body, std::chrono::seconds limit = kGenerous) {
  return outcomeOf(startChild(body), limit);
}

// A registered log that writes to a file of its own.
class FileLog {
 public:
  explicit FileLog(int level)
      : m_oLog(m_oFolder / "test", VarnSupport::VarnLogging::kToFile, level) {
    VarnSupport::VarnLogging::setInstance(m_oLog);
  }

  VarnSupport::VarnLogging& log() { return m_oLog; }

  std::string file() const {
    for (const auto& entry : std::filesystem::directory_iterator(m_oFolder.path()))
      return entry.path().string();
    return "";
  }
  std::vector<std::string> lines() const { return linesOf(file()); }
  // The texts behind the headers.
  std::vector<std::string> texts() const {
    std::vector<std::string> found = lines();
    for (std::string& line : found) {
      const std::size_t header = line.find("] ");
      line.erase(0, header == std::string::npos ? 0 : header + 2);
    }
    return found;
  }

 private:
  TempFolder m_oFolder;
  VarnSupport::VarnLogging m_oLog;
};

}  // namespace TestTools

#endif
