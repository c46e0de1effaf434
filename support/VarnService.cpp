// A service runs its start hook, waits for its stop event, and runs its stop hook, all on the
// thread of start(). A handler of a stop signal only posts (SignalRelay); the relay starts a thread
// that calls stop(), since the dependents of the event take as long as they like.
#include "VarnSupport/VarnService.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <initializer_list>
#include <new>

#include "VarnSupport/VarnPidFile.h"
#include "VarnSupport/VarnServiceManager.h"
#include "log/OwnRecords.h"
#include "runtime/CallUnderWay.h"
#include "runtime/Cancellation.h"
#include "runtime/Fork.h"
#include "runtime/SignalRelay.h"
#include "runtime/SystemThreads.h"
#include "runtime/WithoutWriteSignals.h"
#include "service/DaemonLaunch.h"
#include "threads/EventTicket.h"

namespace VarnSupport {

namespace {

enum tState : std::int32_t { RUNNING = 0, IDLE = 1, STOP_REQUESTED = 2 };

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
  const sigset_t mask = SignalRelay::callersMask();
  if (startDetached(
          "vsupt-stop", [signal] { ControlHandler(signal); }, &mask) == 0)
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

// The reason why a service does not start, for whoever sits at the terminal.
void tellRefusal(const std::string& service, const std::string& reason) {
  const std::string name = service.empty() ? program_invocation_short_name : service;
  const std::string line = name + ": " + reason + '\n';
  static_cast<void>(writeWhole(STDERR_FILENO, line));
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
  Stopping::await(0);
}

bool VarnService::start(const std::string& arguments, bool daemonize) {
  if (m_nState == RUNNING)
    return true;
  m_nState = IDLE;
  return daemonize ? startDaemon(arguments) : startHere(arguments);
}

// Some starters ignore SIGCHLD, and hand that on: nobody could learn how a program has ended.
bool VarnService::startHere(const std::string& arguments) {
  struct sigaction action {};
  if (sigaction(SIGCHLD, nullptr, &action) == 0 && action.sa_handler == SIG_IGN)
    signal(SIGCHLD, SIG_DFL);
  if (!runStartHook(arguments))
    return false;
  beginRunning();
  routeSignals({SIGINT, SIGTERM, SIGPIPE});
  VarnServiceManager::ready();
  trace("VarnService::start: waiting for service to exit");
  awaitStop();
  VarnServiceManager::stopping();
  trace("VarnService::start: service completed.");
  onStop();
  m_nState = IDLE;
  trace("VarnService::start: exiting");
  return true;
}

bool VarnService::startDaemon(const std::string& arguments) {
  const int reportTo = launchDaemon();
  return reportTo >= 0 && runDaemon(arguments, reportTo);
}

bool VarnService::runDaemon(const std::string& arguments, int reportTo) {
  setsid();
  // There is no place that a daemon could fall back to: one without "/" stays where it is.
  static_cast<void>(chdir("/") == 0);
  umask(0);
  routeSignals({SIGINT, SIGTERM, SIGCHLD, SIGPIPE});
  trace("VarnService::start: waiting for service to exit");
  beginRunning();
  DaemonReport report(reportTo);
  bool started = false;
  try {
    started = runStartHook(arguments);
  } catch (...) {
    report.send(false);
    m_nState = IDLE;
    throw;
  }
  if (started)
    VarnServiceManager::ready();
  report.send(started);
  if (!started) {
    m_nState = IDLE;
    return false;
  }
  awaitStop();
  VarnServiceManager::stopping();
  usleep(kBeforeStopHookMicroseconds);
  onStop();
  m_nState = IDLE;
  return true;
}

bool VarnService::runStartHook(const std::string& arguments) {
  try {
    return onStart(arguments);
  } catch (const VarnStartRefused& refusal) {
    tellRefusal(serviceName(), refusal.getText());
    return false;
  }
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
