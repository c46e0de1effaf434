// Two pipes: on one the daemon reports, on the other, where there is a manager, the launching
// process lets the daemon go on once the manager knows of it.
#include "service/DaemonLaunch.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <string>

#include "VarnSupport/VarnServiceManager.h"
#include "runtime/Descriptor.h"
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

// Waits for the daemon's report in the launching process, which ends afterwards.
std::int32_t awaitReport(int descriptor) {
  const MonotonicTime deadline = monotonicNow() + kAnswerTime;
  pollfd report{descriptor, POLLIN, 0};
  const int ready = retrying([&] {
    const timespec left = timeLeft(deadline);
    return ppoll(&report, 1, &left, nullptr);
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
  Presentation() {
    if (VarnServiceManager::isPresent())
      m_oPipe = Pipe::open();
  }
  Presentation(const Presentation&) = delete;
  Presentation& operator=(const Presentation&) = delete;

  // For the launching process.
  void make(pid_t daemon) {
    if (!m_oPipe.isOpen())
      return;
    VarnServiceManager::mainProcess(daemon);
    retrying([&] { return write(m_oPipe.writing.get(), "", 1); });
  }
  // For the daemon. What the manager expects to hear from the launching process, it now expects
  // from the daemon.
  void await() {
    if (!m_oPipe.isOpen())
      return;
    pollfd made{m_oPipe.reading.get(), POLLIN, 0};
    retrying([&] { return poll(&made, 1, kPresentationMilliseconds); });
    const char* const watched = std::getenv("WATCHDOG_PID");
    if (watched != nullptr && watched == std::to_string(m_nLauncher))
      setenv("WATCHDOG_PID", std::to_string(getpid()).c_str(), 1);
  }

 private:
  const pid_t m_nLauncher = getpid();
  Pipe m_oPipe;
};

// What the daemon opens next would become a standard stream that its starter has closed.
void openClosedStreams() {
  for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (fcntl(stream, F_GETFD) < 0)
      static_cast<void>(open("/dev/null", O_RDWR));
  }
}

pid_t forkToGoOn() {
  const ForkToGoOn going;
  return fork();
}

}  // namespace

int launchDaemon() {
  Pipe report = Pipe::open();
  if (!report.isOpen())
    return -1;
  Presentation presentation;
  const pid_t child = forkToGoOn();
  if (child < 0)
    return -1;
  if (child > 0) {
    report.writing.close();
    presentation.make(child);
    _exit(awaitReport(report.reading.get()));
  }
  report.reading.close();
  presentation.await();
  openClosedStreams();
  return report.writing.release();
}

DaemonReport::DaemonReport(int descriptor) : m_nDescriptor(descriptor) {
  fstat(descriptor, &m_oStatus);
}

void DaemonReport::send(bool hasStarted) {
  struct stat now {};
  if (fstat(m_nDescriptor, &now) != 0 || !isSameFile(now, m_oStatus))
    return;
  const std::int32_t status = hasStarted ? kStarted : kNotStarted;
  retrying([&] { return write(m_nDescriptor, &status, sizeof status); });
  close(m_nDescriptor);
}

}  // namespace VarnSupport
