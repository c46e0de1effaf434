// Two pipes: on one the daemon reports, on the other, where there is a manager, the launching
// process lets the daemon go on once the manager knows of it.
#include "service/DaemonLaunch.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/select.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <string>

#include "VarnSupport/VarnServiceManager.h"
#include "runtime/Fork.h"
#include "runtime/System.h"

namespace VarnSupport {

namespace {

// What the daemon reports to the launching process, and what that makes of silence.
constexpr std::int32_t kStarted = 0;
constexpr std::int32_t kNotStarted = 1;
constexpr std::int32_t kNoAnswer = -3;
constexpr std::int32_t kWaitFailed = -4;
constexpr std::chrono::seconds kAnswerTime{60};

constexpr int kPresentationMilliseconds = 3000;  // longer than a manager is waited for

// A pipe that takes no place of a standard stream, which the program may open, or write to, later.
bool openPipe(int (&ends)[2]) {
  int low[2];
  if (pipe2(low, O_CLOEXEC) != 0)
    return false;
  for (int i = 0; i < 2; ++i) {
    ends[i] = fcntl(low[i], F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    close(low[i]);
  }
  if (ends[0] >= 0 && ends[1] >= 0)
    return true;
  close(ends[0]);
  close(ends[1]);
  return false;
}

timeval timeUntil(MonotonicTime deadline) {
  using std::chrono::microseconds;
  const auto left = std::max(deadline - monotonicNow(), MonotonicTime::duration::zero());
  const auto seconds = std::chrono::floor<std::chrono::seconds>(left);
  const auto rest = std::chrono::duration_cast<microseconds>(left - seconds);
  return {static_cast<std::time_t>(seconds.count()), static_cast<suseconds_t>(rest.count())};
}

// Waits for the daemon's report in the launching process, which ends afterwards.
std::int32_t awaitReport(int descriptor) {
  // A set of descriptors has no place for high ones; standard input is not needed any more.
  if (descriptor >= FD_SETSIZE)
    descriptor = dup2(descriptor, STDIN_FILENO);
  const MonotonicTime deadline = monotonicNow() + kAnswerTime;
  const int ready = retrying([&] {
    fd_set descriptors;
    FD_ZERO(&descriptors);
    FD_SET(descriptor, &descriptors);
    timeval left = timeUntil(deadline);
    return select(descriptor + 1, &descriptors, nullptr, nullptr, &left);
  });
  if (ready <= 0)
    return ready == 0 ? kNoAnswer : kWaitFailed;
  // A daemon that died without a report leaves nothing to read.
  std::int32_t status = kNotStarted;
  const ssize_t length = retrying([&] { return read(descriptor, &status, sizeof status); });
  return length == sizeof status ? status : kNotStarted;
}

// Has the manager know the daemon as the service before the daemon says anything else to it: the
// message counts only while it comes from the launching process. Without a manager nothing is done.
class Presentation {
 public:
  Presentation() : m_bWanted(VarnServiceManager::isPresent() && openPipe(m_aEnds)) {}
  Presentation(const Presentation&) = delete;
  Presentation& operator=(const Presentation&) = delete;

  // For the launching process.
  void make(pid_t daemon) {
    if (!m_bWanted)
      return;
    VarnServiceManager::mainProcess(daemon);
    retrying([&] { return write(m_aEnds[1], "", 1); });
  }
  // For the daemon. What the manager expects to hear from the launching process, it now expects
  // from the daemon.
  void await() {
    if (!m_bWanted)
      return;
    pollfd made{m_aEnds[0], POLLIN, 0};
    retrying([&] { return poll(&made, 1, kPresentationMilliseconds); });
    const char* const watched = std::getenv("WATCHDOG_PID");
    if (watched != nullptr && watched == std::to_string(m_nLauncher))
      setenv("WATCHDOG_PID", std::to_string(getpid()).c_str(), 1);
  }
  // Not in the launching process, which ends.
  void close() {
    if (!m_bWanted)
      return;
    ::close(m_aEnds[0]);
    ::close(m_aEnds[1]);
  }

 private:
  const pid_t m_nLauncher = getpid();
  int m_aEnds[2]{};
  const bool m_bWanted;
};

pid_t forkToGoOn() {
  const ForkToGoOn going;
  return fork();
}

}  // namespace

int launchDaemon() {
  int ends[2];
  if (!openPipe(ends))
    return -1;
  Presentation presentation;
  const pid_t child = forkToGoOn();
  if (child < 0) {
    presentation.close();
    close(ends[0]);
    close(ends[1]);
    return -1;
  }
  if (child > 0) {
    close(ends[1]);
    presentation.make(child);
    _exit(awaitReport(ends[0]));
  }
  close(ends[0]);
  presentation.await();
  presentation.close();
  return ends[1];
}

DaemonReport::DaemonReport(int descriptor) : m_nDescriptor(descriptor) {
  fstat(descriptor, &m_oStatus);
}

void DaemonReport::send(bool hasStarted) {
  struct stat now {};
  if (fstat(m_nDescriptor, &now) != 0 || now.st_dev != m_oStatus.st_dev ||
      now.st_ino != m_oStatus.st_ino)
    return;
  const std::int32_t status = hasStarted ? kStarted : kNotStarted;
  retrying([&] { return write(m_nDescriptor, &status, sizeof status); });
  close(m_nDescriptor);
}

}  // namespace VarnSupport
