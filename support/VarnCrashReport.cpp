// Handlers are put back one by one, and the signal comes again: a fault by itself, as its
// instruction is run once more; one that was sent is sent again. So the system, or a handler of the
// program, finds the registers of the crash, and the exit status is its own.
//
// One thread reports at a time. Who is done lets others go first, as the process ends with its
// first default action.
#include "VarnSupport/VarnCrashReport.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <exception>

#include "VarnSupport/VarnException.h"
#include "VarnSupport/VarnLogObserver.h"
#include "insight/CrashText.h"
#include "insight/RecordRing.h"
#include "insight/StackTrace.h"
#include "runtime/AlternateStack.h"
#include "runtime/Cancellation.h"
#include "runtime/Descriptor.h"
#include "runtime/SignalSet.h"

namespace VarnSupport {

namespace {

constexpr std::array kSignals{SIGSEGV, SIGABRT, SIGBUS, SIGFPE};
constexpr int kMillisecondsForOthers = 5000;

// Fixed while handlers are installed. They stay when the object goes: a handler may be under way.
constinit std::array<struct sigaction, kSignals.size()> previousActions{};
constinit std::terminate_handler previousTermination = nullptr;
constinit std::atomic<int> descriptor{-1};

constinit std::atomic<bool> exists{false};
constinit std::atomic<pid_t> reporter{0};    // the thread that reports
constinit std::atomic<int> waiting{0};       // threads that are about to
constinit std::atomic<pid_t> terminated{0};  // a thread that has reported, and will abort

// A program may crash because it has no descriptor left, while a report opens files: this one is
// given up for it.
constinit std::atomic<int> spareDescriptor{-1};

void takeSpareDescriptor() { spareDescriptor = Descriptor::open("/", O_PATH).release(); }

// The program may have closed it, and then have something else by that number.
void giveUpSpareDescriptor() {
  const NoCancellation whole;
  const int spare = spareDescriptor.exchange(-1);
  const int flags = spare >= 0 ? fcntl(spare, F_GETFL) : -1;
  if (flags >= 0 && (flags & O_PATH) != 0)
    close(spare);
}

bool isGone(pid_t thread) {
  return syscall(SYS_tgkill, getpid(), thread, 0) != 0 && errno == ESRCH;
}

void sleepForMillisecond() {
  const timespec time{0, 1'000'000};
  nanosleep(&time, nullptr);
}

// The turn of the calling thread to report.
// Waits are limited: the thread whose turn it is may itself hang in a fault. Sleeping is all that a
// handler can do to wait, as the primitives of the platform are not async-signal-safe.
class Turn {
 public:
  Turn() {
    ++waiting;
    for (int i = 0; i < kMillisecondsForOthers && !m_bMine; ++i) {
      pid_t other = 0;
      m_bMine = reporter.compare_exchange_strong(other, gettid()) ||
                (isGone(other) && reporter.compare_exchange_strong(other, gettid()));
      if (!m_bMine)
        sleepForMillisecond();
    }
    --waiting;
  }
  Turn(const Turn&) = delete;
  Turn& operator=(const Turn&) = delete;
  ~Turn() {
    if (m_bMine)
      reporter = 0;
    for (int i = 0; i < kMillisecondsForOthers && (waiting > 0 || reporter != 0); ++i)
      sleepForMillisecond();
  }

  bool isMine() const { return m_bMine; }

 private:
  bool m_bMine = false;
};

template <typename Write>
void report(Write write) {
  const NoCancellation whole;
  const Turn turn;
  if (!turn.isMine())
    return;
  giveUpSpareDescriptor();
  write();
  takeSpareDescriptor();
}

const struct sigaction& previousOf(int signal) {
  std::size_t i = 0;
  while (kSignals[i] != signal)
    ++i;
  return previousActions[i];
}

// A signal that comes again is blocked until the handler returns, and so finds what it interrupts.
void passOn(int signal, const siginfo_t& info) {
  sigaction(signal, &previousOf(signal), nullptr);
  if (info.si_code > 0)
    return;
  const sigset_t again = signalSet({signal});
  pthread_sigmask(SIG_BLOCK, &again, nullptr);
  syscall(SYS_tgkill, getpid(), gettid(), signal);
}

// A signal that the program ignores, and that another process has sent, is no crash.
void onCrash(int signal, siginfo_t* info, void* context) {
  if (reporter == gettid())
    CrashText::leavePart();
  const int error = errno;
  const bool isIgnored =
      previousOf(signal).sa_handler == SIG_IGN && info->si_code <= 0 && info->si_pid != getpid();
  if (!isIgnored) {
    if (terminated != gettid())
      report([&] { CrashText::write(descriptor, *info, context); });
    passOn(signal, *info);
  }
  errno = error;
}

[[noreturn]] void onTerminate() {
  report([] { CrashText::writeTermination(descriptor); });
  terminated = gettid();
  if (previousTermination != nullptr)
    previousTermination();
  std::abort();
}

}  // namespace

// The observer gathers records on the threads that write them.
struct VarnCrashReport::State {
  State() : observer(9, RecordRing::put) {}

  void install() {
    struct sigaction action {};
    action.sa_sigaction = onCrash;
    // A fault within the handler must come through; all that is none must wait.
    action.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_NODEFER;
    action.sa_mask = allSignals();
    for (const int signal : kSignals)
      sigdelset(&action.sa_mask, signal);
    for (std::size_t i = 0; i < kSignals.size(); ++i)
      sigaction(kSignals[i], nullptr, &previousActions[i]);
    for (const int signal : kSignals)
      sigaction(signal, &action, nullptr);
    previousTermination = std::set_terminate(onTerminate);
  }

  void remove() {
    for (std::size_t i = 0; i < kSignals.size(); ++i) {
      struct sigaction present {};
      if (sigaction(kSignals[i], nullptr, &present) == 0 && present.sa_sigaction == onCrash)
        sigaction(kSignals[i], &previousActions[i], nullptr);
    }
    if (std::get_terminate() == onTerminate)
      std::set_terminate(previousTermination);
  }

  AlternateStack stack;
  VarnLogObserver observer;
};

VarnCrashReport::VarnCrashReport(int given) {
  const QuietCancellationGuard closed;
  if (fcntl(given, F_GETFD) < 0)
    throw VarnException("VarnCrashReport: not a descriptor", errno);
  if (exists.exchange(true))
    throw VarnException("VarnCrashReport: there is one already", EEXIST);
  AlternateStack::want(true);
  try {
    RecordRing::clear();
    m_pState = new State;
  } catch (...) {
    AlternateStack::want(false);
    exists = false;
    throw;
  }
  warmUpStackTraces();
  takeSpareDescriptor();
  descriptor = given;
  m_pState->install();
}

VarnCrashReport::~VarnCrashReport() {
  const QuietCancellationGuard closed;
  m_pState->remove();
  giveUpSpareDescriptor();
  delete m_pState;
  AlternateStack::want(false);
  exists = false;
}

}  // namespace VarnSupport
