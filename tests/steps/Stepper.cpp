#include "Stepper.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <sys/user.h>
#include <sys/wait.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <new>

namespace {

constexpr int kTickMs = 3;          // how often waits look around
constexpr int kStepLimitMs = 8000;  // for one instruction, with what it waits for
constexpr int kEndLimitMs = 12000;
constexpr int kExitLimitMs = 2000;
constexpr int kHoldLimitMs = 60;  // for an action that waits for the held thread
constexpr int kHeadStartUs = 10;  // of an action before the thread goes on; up to 7 times that

using Clock = std::chrono::steady_clock;

// Interrupts waits, again and again; 0 milliseconds: no more.
void setTicks(int milliseconds) {
  struct sigaction action {};
  action.sa_handler = [](int) {};
  sigaction(SIGALRM, &action, nullptr);
  const itimerval period{{0, milliseconds * 1000}, {0, milliseconds * 1000}};
  setitimer(ITIMER_REAL, &period, nullptr);
}

}  // namespace

Stepper::Stepper(const std::string& folder, bool quiet)
    : m_sSlotFile(folder + "/slot"), m_bQuiet(quiet) {
  const int file = open(m_sSlotFile.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  static_cast<void>(ftruncate(file, sizeof(Slot)) == 0);
  m_pSlot =
      static_cast<Slot*>(mmap(nullptr, sizeof(Slot), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0));
  close(file);
  prctl(PR_SET_CHILD_SUBREAPER, 1);  // for what the processes leave
}

// Starts the process; its thread stands before the operation then.
bool Stepper::launch(std::size_t operation, int mode, int left) {
  new (m_pSlot) Slot{};
  m_pSlot->left = left;
  m_nThread = 0;
  m_nStatus = 0;
  setTicks(kTickMs);
  m_nProcess = fork();
  if (m_nProcess == 0) {
    setpgid(0, 0);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const rlimit none{0, 0};
    setrlimit(RLIMIT_CORE, &none);
    const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
    for (const int stream : {STDOUT_FILENO, STDERR_FILENO}) {
      if (m_bQuiet)
        dup2(nowhere, stream);
    }
    execl("/proc/self/exe", "vsupt_steps", "--child", std::to_string(operation).c_str(),
          std::to_string(mode).c_str(), m_sSlotFile.c_str(), nullptr);
    _exit(127);
  }
  return proceed(0, kEndLimitMs) == STOPPED;
}

// Resumes the thread, unless `request` is 0, and waits until it stops or the process ends.
Stepper::tStop Stepper::proceed(int request, int limitMs) {
  const auto resume = static_cast<__ptrace_request>(request);
  const auto end = Clock::now() + std::chrono::milliseconds(limitMs);
  bool wasAsleep = false;
  if (request != 0)
    ptrace(resume, m_nThread, nullptr, nullptr);
  while (true) {
    int status = 0;
    const pid_t found = waitpid(-1, &status, __WALL);
    if (found == m_nProcess && !WIFSTOPPED(status)) {
      m_nStatus = status;
      return ENDED;
    }
    if (found > 0 && WIFSTOPPED(status)) {
      m_nThread = found;
      if (WSTOPSIG(status) == SIGTRAP)
        return STOPPED;
      // What is meant for the process goes to its main thread: the steps are the same each time.
      syscall(SYS_tgkill, m_nProcess, m_nProcess, WSTOPSIG(status));
      ptrace(resume, found, nullptr, nullptr);
    } else if (found > 0 && found == m_nThread) {
      return FINISHED;  // the thread has ended
    } else if (found < 0) {
      if (Clock::now() > end)
        return HUNG;
      if (request == 0)
        continue;
      if (m_pSlot->finished)
        return FINISHED;
      const bool isAsleep = sleepsForAnother(m_nProcess, m_nThread);
      if (isAsleep && wasAsleep)
        m_pSlot->orders |= Slot::ASSIST;
      wasAsleep = isAsleep;
    }
  }
}

std::uint64_t Stepper::registerAt(std::size_t offset) const {
  return static_cast<std::uint64_t>(ptrace(PTRACE_PEEKUSER, m_nThread, offset, nullptr));
}

// One instruction, which may be one that repeats itself.
Stepper::tStop Stepper::step() {
  constexpr std::size_t kInstruction = offsetof(user, regs.rip);
  const std::uint64_t before = registerAt(kInstruction);
  tStop stop = STOPPED;
  while (stop == STOPPED && registerAt(kInstruction) == before)
    stop = proceed(PTRACE_SINGLESTEP, kStepLimitMs);
  return stop;
}

// A breakpoint of the processor, for the thread alone; 0 takes it away.
bool Stepper::setBreakpoint(std::uint64_t address) const {
  const long isOn = address != 0 ? 1 : 0;
  return ptrace(PTRACE_POKEUSER, m_nThread, offsetof(user, u_debugreg[0]), address) == 0 &&
         ptrace(PTRACE_POKEUSER, m_nThread, offsetof(user, u_debugreg[7]), isOn) == 0;
}

Stepper::tStop Stepper::goTo(const Trace& trace, std::size_t number) {
  const std::uint64_t address = trace.addresses[number];
  setBreakpoint(address);
  tStop stop = STOPPED;
  for (std::size_t i = 0; i <= number && stop == STOPPED; ++i) {
    if (trace.addresses[i] == address)
      stop = proceed(PTRACE_CONT, kStepLimitMs);
  }
  if (stop == STOPPED)
    setBreakpoint(0);
  return stop;
}

void Stepper::readStack(std::vector<std::uint64_t>& stack) const {
  stack.resize(512);
  const iovec local{stack.data(), stack.size() * sizeof stack[0]};
  const iovec remote{reinterpret_cast<void*>(registerAt(offsetof(user, regs.rsp))), local.iov_len};
  const ssize_t length = process_vm_readv(m_nProcess, &local, 1, &remote, 1, 0);
  stack.resize(static_cast<std::size_t>(std::max<ssize_t>(length, 0)) / sizeof stack[0]);
}

Stepper::Result Stepper::trace(std::size_t operation, Trace& trace) {
  Result result;
  tStop stop = launch(operation, TRACE, 0) ? STOPPED : ENDED;
  const bool isAllowed = stop == ENDED || (setBreakpoint(1) && setBreakpoint(0));
  for (trace.count = 0; stop == STOPPED && !m_pSlot->finished && trace.count < Trace::kMost;) {
    trace.addresses[trace.count++] = registerAt(offsetof(user, regs.rip));
    stop = step();
  }
  trace.left = m_pSlot->left;
  judge(TRACE, stop, result);
  if (!isAllowed)
    result.verdict = NOT_ALLOWED;
  return result;
}

Stepper::Result Stepper::run(std::size_t operation, int mode, const Trace& trace,
                             std::size_t number, std::vector<std::uint64_t>* stack) {
  Result result;
  tStop stop = launch(operation, mode, trace.left) ? goTo(trace, number) : ENDED;
  if (stop == STOPPED) {
    result.address = registerAt(offsetof(user, regs.rip));
    if (stack != nullptr)
      readStack(*stack);
    release(mode, number, result);
    do {
      stop = proceed(0, mode == EXIT || mode == EXIT_HELD ? kExitLimitMs : kEndLimitMs);
    } while (stop == FINISHED);  // exit() can be faster than the end of the hold
  }
  judge(mode, stop, result);
  return result;
}

// Lets the process act and the thread go on, when it is time.
void Stepper::release(int mode, std::size_t number, Result& result) {
  const bool isHeld = mode != KILL && mode != EXIT;
  const int awaited = isHeld ? Slot::DONE : Slot::UNDER_WAY;
  const auto limit = std::chrono::milliseconds(isHeld ? kHoldLimitMs : kStepLimitMs);
  const auto end = Clock::now() + limit;
  m_pSlot->orders |= Slot::ACT;
  while (m_pSlot->action < awaited && Clock::now() < end)
    isHeld ? usleep(20) : sched_yield();
  result.wasLetGo = m_pSlot->action < awaited;
  const auto start = Clock::now() + std::chrono::microseconds(kHeadStartUs * (number % 8));
  while (!isHeld && Clock::now() < start)
    sched_yield();
  ptrace(PTRACE_DETACH, m_nThread, nullptr, nullptr);
}

// Says how the process ended, and ends what is left of it.
void Stepper::judge(int mode, tStop stop, Result& result) {
  const int good = mode == EXIT || mode == EXIT_HELD ? kExitCode : 0;
  const std::string stage = m_pSlot->stage;
  if (stop == FINISHED || (stop == STOPPED && mode == TRACE)) {
    result.verdict = mode == TRACE ? GOOD : MISSED;
  } else if (stop != ENDED) {
    result.verdict = FAULTY;
    result.text = good == kExitCode ? "no exit within 2 s" : "hangs: " + stage;
  } else if (WIFSIGNALED(m_nStatus)) {
    result.verdict = FAULTY;
    result.text = "signal " + std::to_string(WTERMSIG(m_nStatus)) + ": " + stage;
  } else if (WEXITSTATUS(m_nStatus) == kNotAllowed) {
    result.verdict = NOT_ALLOWED;
  } else if (mode == TRACE || WEXITSTATUS(m_nStatus) != good) {
    result.verdict = FAULTY;
    result.text = m_pSlot->text[0] != '\0'
                      ? m_pSlot->text
                      : "exit code " + std::to_string(WEXITSTATUS(m_nStatus)) + ": " + stage;
  }
  do {
    kill(-m_nProcess, SIGKILL);
  } while (waitpid(-1, nullptr, __WALL) >= 0 || errno == EINTR);
  setTicks(0);
}
