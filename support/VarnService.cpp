// A service runs its start hook, waits for its stop event, and runs its stop hook, all on the
// thread of start(). A handler of a stop signal only posts (SignalRelay); the relay starts a thread
// that calls stop(), since the dependents of the event take as long as they like.
//
// A daemon reports on a pipe whether its start hook has succeeded, and the launching process waits
// for that, or for the end of the pipe, before it exits. The descriptors of the pipe are above the
// standard streams, and are looked at again before they are used: a start hook may close what it
// does not know.
#include "VarnSupport/VarnService.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <ctime>
#include <initializer_list>
#include <new>

#include "log/OwnRecords.h"
#include "runtime/CallUnderWay.h"
#include "runtime/Cancellation.h"
#include "runtime/Fork.h"
#include "runtime/SignalRelay.h"
#include "runtime/System.h"
#include "threads/EventTicket.h"

namespace VarnSupport {

namespace {

enum tState : std::int32_t { RUNNING = 0, IDLE = 1, STOP_REQUESTED = 2 };

// What the daemon reports to the launching process, and what that makes of silence.
constexpr std::int32_t kStarted = 0;
constexpr std::int32_t kNotStarted = 1;
constexpr std::int32_t kNoAnswer = -3;
constexpr std::int32_t kWaitFailed = -4;
constexpr std::chrono::seconds kAnswerTime{60};

constexpr useconds_t kBeforeStopHookMicroseconds = 10000;
constexpr useconds_t kBeforeAnotherTryMicroseconds = 10000;

// A signal acts once per process: the one in which the first has acted.
constinit std::atomic<pid_t> signalledProcess{0};
// Calls of stop() by ControlHandler() that are under way.
using Stopping = CallUnderWay<int>;

void trace(const char* text) { OwnRecords::write(OwnRecords::TRACE, text); }

// Stopping a service tells the dependents of its event, which may take their time, and writes
// records: neither is for the relay.
void handOver(int signal) {
  if (signal != SIGINT && signal != SIGTERM)
    return;
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  pthread_t thread{};
  const int result = pthread_create(
      &thread, &attributes,
      [](void* number) -> void* {
        pthread_setname_np(pthread_self(), "vsupt-stop");
        SignalRelay::adoptCallersMask();
        ControlHandler(static_cast<int>(reinterpret_cast<std::intptr_t>(number)));
        return nullptr;
      },
      reinterpret_cast<void*>(std::intptr_t{signal}));
  pthread_attr_destroy(&attributes);
  if (result == 0)
    return;
  if (SignalRelay::isRelay())
    SignalRelay::expectWithin(signal, kBeforeAnotherTryMicroseconds / 1000);
  else
    ControlHandler(signal);
}

void routeSignals(std::initializer_list<int> signals) {
  SignalRelay::rememberCallersMask();
  for (const int signal : signals)
    SignalRelay::route(signal, handOver);
  SignalRelay::ensureRunning();
}

// A pipe that takes no place of a standard stream, which the program may open, or write to, later.
bool openReportPipe(int (&ends)[2]) {
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

// The daemon's end of the pipe. The start hook may close descriptors that it does not own, and open
// files that get their numbers: what is not the pipe any more is left alone.
class Report {
 public:
  explicit Report(int descriptor) : m_nDescriptor(descriptor) { fstat(descriptor, &m_oStatus); }

  void send(std::int32_t status) {
    struct stat now {};
    if (fstat(m_nDescriptor, &now) != 0 || now.st_dev != m_oStatus.st_dev ||
        now.st_ino != m_oStatus.st_ino)
      return;
    retrying([&] { return write(m_nDescriptor, &status, sizeof status); });
    close(m_nDescriptor);
  }

 private:
  int m_nDescriptor;
  struct stat m_oStatus {};
};

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
  Stopping::await(0);
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
  if (!openReportPipe(ends))
    return false;
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
  Report report(reportTo);
  bool started = false;
  try {
    started = onStart(arguments);
  } catch (...) {
    report.send(kNotStarted);
    m_nState = IDLE;
    throw;
  }
  report.send(started ? kStarted : kNotStarted);
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
  // While there is no thread to take signals, this one does.
  while (!SignalRelay::ensureRunning() && m_nState != STOP_REQUESTED) {
    usleep(kBeforeAnotherTryMicroseconds);
    SignalRelay::runPending();
  }
  const EventTicket ticket(stateOf(m_oStopEvent));
  if (m_nState != STOP_REQUESTED)
    ticket.wait();
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

namespace {

void prepareService() { Stopping::lockList(); }

void releaseService(ForkSide side) {
  if (side == ForkSide::CHILD)
    Stopping::forgetLost();
  Stopping::unlockList();
}

}  // namespace

constinit const ForkPart serviceFork{&prepareService, &releaseService};

void ControlHandler(int signal) {
  const pid_t process = getpid();
  if ((signal != SIGINT && signal != SIGTERM) || signalledProcess.exchange(process) == process)
    return;
  const Stopping underWay(0);
  VarnService* const service = VarnService::getService();
  if (service != nullptr)
    service->stop();
}

}  // namespace VarnSupport
