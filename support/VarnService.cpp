#include "VarnSupport/VarnService.h"

#include <fcntl.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <ctime>
#include <initializer_list>
#include <new>

#include "Cancellation.h"
#include "EventAccess.h"
#include "SignalRelay.h"
#include "VarnSupport/VarnLogging.h"

namespace VarnSupport {

namespace {

enum tState : std::int32_t { RUNNING = 0, IDLE = 1, STOP_REQUESTED = 2 };

// What the daemon reports to the launching process, and what that makes of silence.
constexpr std::int32_t kStarted = 0;
constexpr std::int32_t kNotStarted = 1;
constexpr std::int32_t kNoAnswer = -3;
constexpr std::int32_t kWaitFailed = -4;
constexpr std::time_t kAnswerSeconds = 60;

constexpr useconds_t kBeforeStopHookMicroseconds = 10000;
constexpr useconds_t kLookMicroseconds = 1000;
constexpr useconds_t kBeforeAnotherTryMicroseconds = 10000;

// A signal acts once per process: the one in which the first has acted.
constinit std::atomic<pid_t> signalledProcess{0};
// The process in which ControlHandler() is stopping a service; it does so once in each.
constinit std::atomic<pid_t> stoppingProcess{0};
constinit thread_local bool t_bStopping = false;

void trace(const char* text) {
  if (VarnLogging::admits(9))
    VarnLogRecord(9) << text;
}

void routeSignals(std::initializer_list<int> signals) {
  for (const int signal : signals)
    SignalRelay::route(signal, ControlHandler);
  SignalRelay::ensureRunning();
}

timeval timeLeft(const timespec& deadline) {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  const long nanoseconds =
      (deadline.tv_sec - now.tv_sec) * 1000000000L + deadline.tv_nsec - now.tv_nsec;
  timeval left{};
  if (nanoseconds > 0) {
    left.tv_sec = nanoseconds / 1000000000L;
    left.tv_usec = nanoseconds % 1000000000L / 1000;
  }
  return left;
}

// Waits for the daemon's report in the launching process, which ends afterwards.
std::int32_t awaitReport(int descriptor) {
  // A set of descriptors has no place for high ones; standard input is not needed any more.
  if (descriptor >= FD_SETSIZE)
    descriptor = dup2(descriptor, STDIN_FILENO);
  timespec deadline{};
  clock_gettime(CLOCK_MONOTONIC, &deadline);
  deadline.tv_sec += kAnswerSeconds;
  int ready = 0;
  do {
    fd_set descriptors;
    FD_ZERO(&descriptors);
    FD_SET(descriptor, &descriptors);
    timeval left = timeLeft(deadline);
    ready = select(descriptor + 1, &descriptors, nullptr, nullptr, &left);
  } while (ready < 0 && errno == EINTR);
  if (ready <= 0)
    return ready == 0 ? kNoAnswer : kWaitFailed;
  // A daemon that died without a report leaves nothing to read.
  std::int32_t status = kNotStarted;
  ssize_t length = 0;
  do {
    length = read(descriptor, &status, sizeof status);
  } while (length < 0 && errno == EINTR);
  return length == sizeof status ? status : kNotStarted;
}

void report(int descriptor, std::int32_t status) {
  while (write(descriptor, &status, sizeof status) < 0 && errno == EINTR) {
  }
  close(descriptor);
}

}  // namespace

constinit std::atomic<VarnService*> VarnService::m_pThis{nullptr};

VarnService::VarnService() { m_pThis = this; }

VarnService::VarnService(const std::string& text1, const std::string& text2,
                         const std::string& text3, const std::string& text4, bool flag)
    : m_sText1(text1), m_sText2(text2), m_sText3(text3), m_sText4(text4), m_bFlag(flag) {
  m_pThis = this;
}

VarnService::VarnService(bool flag, const std::string& text4) : m_sText4(text4), m_bFlag(flag) {
  m_pThis = this;
}

// A signal may be on its way to the service: ControlHandler() says so first and looks for the
// service then.
VarnService::~VarnService() {
  const QuietCancellationGuard closed;
  VarnService* self = this;
  m_pThis.compare_exchange_strong(self, nullptr);
  while (stoppingProcess == getpid() && !t_bStopping)
    usleep(kLookMicroseconds);
}

bool VarnService::start(const std::string& arguments, bool daemonize) {
  if (m_nState == RUNNING)
    return true;
  m_nState = IDLE;
  return daemonize ? startDaemon(arguments) : startHere(arguments);
}

bool VarnService::startHere(const std::string& arguments) {
  if (!onStart(arguments))
    return false;
  beginRunning();
  routeSignals({SIGINT, SIGTERM, SIGPIPE});
  trace("VarnService::start: waiting for service to exit");
  awaitStop();
  trace("VarnService::start: service completed.");
  onStop();
  m_nState = IDLE;
  trace("VarnService::start: exiting");
  return true;
}

bool VarnService::startDaemon(const std::string& arguments) {
  m_bDaemon = true;
  int ends[2];
  if (pipe(ends) != 0)
    return false;
  for (const int end : ends)
    fcntl(end, F_SETFD, FD_CLOEXEC);
  const pid_t child = fork();
  if (child < 0) {
    close(ends[0]);
    close(ends[1]);
    return false;
  }
  if (child > 0) {
    close(ends[1]);
    _exit(awaitReport(ends[0]));
  }
  close(ends[0]);
  return runDaemon(arguments, ends[1]);
}

bool VarnService::runDaemon(const std::string& arguments, int reportTo) {
  setsid();
  // There is no place that a daemon could fall back to: one without "/" stays where it is.
  static_cast<void>(chdir("/") == 0);
  umask(0);
  routeSignals({SIGINT, SIGTERM, SIGCHLD, SIGPIPE});
  trace("VarnService::start: waiting for service to exit");
  beginRunning();
  bool started = false;
  try {
    started = onStart(arguments);
  } catch (...) {
    report(reportTo, kNotStarted);
    m_nState = IDLE;
    throw;
  }
  report(reportTo, started ? kStarted : kNotStarted);
  if (!started) {
    m_nState = IDLE;
    return false;
  }
  awaitStop();
  usleep(kBeforeStopHookMicroseconds);
  onStop();
  m_nState = IDLE;
  return true;
}

// A stop that has been requested since start() began is not forgotten.
void VarnService::beginRunning() {
  std::int32_t idle = IDLE;
  m_nState.compare_exchange_strong(idle, RUNNING);
}

// A stop after the ticket moves the event's number, one before it is seen in the state. The start
// hook may have forked, and left the relay behind.
void VarnService::awaitStop() {
  const CancellationGuard closed;
  // Without a thread to take signals there would be no end.
  while (!SignalRelay::ensureRunning() && m_nState != STOP_REQUESTED)
    usleep(kBeforeAnotherTryMicroseconds);
  const std::uint64_t ticket = EventAccess::ticket(m_oStopEvent);
  if (m_nState != STOP_REQUESTED)
    EventAccess::waitSince(m_oStopEvent, ticket);
}

bool VarnService::stop() {
  trace("VarnService::stop: entering");
  m_nState = STOP_REQUESTED;
  try {
    m_oStopEvent.set();
  } catch (const std::bad_alloc&) {
    // The dependents are not told, but the wait ends.
  }
  trace("VarnService::stop: exiting");
  return true;
}

bool VarnService::install() { return true; }

bool VarnService::remove() { return true; }

VarnService* VarnService::getService() { return m_pThis; }

void ControlHandler(int signal) {
  const pid_t process = getpid();
  if ((signal != SIGINT && signal != SIGTERM) || signalledProcess.exchange(process) == process)
    return;
  stoppingProcess = process;
  t_bStopping = true;
  VarnService* const service = VarnService::getService();
  if (service != nullptr)
    service->stop();
  t_bStopping = false;
  stoppingProcess = 0;
}

}  // namespace VarnSupport
