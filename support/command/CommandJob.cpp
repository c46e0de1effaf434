// The end of a process is seen in two steps: its status is looked at as soon as it is there, which
// leaves the process a zombie, and taken when all else is done. As long as the zombie is there, its
// number, which names the group, is nobody else's, and the group can be sent signals. Outputs are
// read after the look, so that what the program has written is read whole.
//
// What a program leaves behind does not keep the job: outputs that its children hold open are read
// for a quarter of a second after its end, and a process that not even SIGKILL ends at once, as in
// a call of the system that hangs, is given a second.
#include "command/CommandJob.h"

#include <sys/wait.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <exception>
#include <utility>

#include "runtime/Cancellation.h"

// The header of some releases of the platform does not say it.
extern "C" {
#include <sys/pidfd.h>
}

namespace VarnSupport {

namespace {

// How long outputs are read that others hold open when the program has ended.
constexpr std::chrono::milliseconds kDrain{250};
// How long the system may take to end what was sent SIGKILL.
constexpr std::chrono::seconds kSlowDeath{1};
// How often to look at a process that cannot be polled.
constexpr std::chrono::milliseconds kLook{10};
constexpr std::chrono::hours kLongest{24 * 365 * 100};

constexpr std::size_t kBlockBytes = std::size_t{1} << 16;
// A pipe holds no more, as a rule: what the program has written is read before the next look.
constexpr int kBlocksAtOnce = 16;
constinit char block[kBlockBytes];  // guarded by commandLock

// Of pidfd_send_signal(), which older systems do not know.
constexpr unsigned int kToGroup = 4;

MonotonicTime::duration bounded(std::chrono::milliseconds time) {
  using std::chrono::milliseconds;
  return std::clamp<milliseconds>(time, milliseconds(0), kLongest);
}

}  // namespace

constinit std::mutex commandLock;
constinit CommandJob* CommandJob::m_pFirst = nullptr;

CommandJob::CommandJob(const CommandSettings& settings)
    : m_pOutcome(std::make_shared<CommandOutcome>()),
      m_oLimit(bounded(settings.limit)),
      m_oGrace(bounded(settings.grace)),
      m_oOutput{{}, settings.output.limitBytes, m_pOutcome->output},
      m_oErrors{{}, settings.errors.limitBytes, m_pOutcome->errors} {
  const std::lock_guard guard(commandLock);
  m_pNext = m_pFirst;
  if (m_pNext != nullptr)
    m_pNext->m_pPrevious = this;
  m_pFirst = this;
}

CommandJob::~CommandJob() {
  const std::lock_guard guard(commandLock);
  (m_pPrevious != nullptr ? m_pPrevious->m_pNext : m_pFirst) = m_pNext;
  if (m_pNext != nullptr)
    m_pNext->m_pPrevious = m_pPrevious;
}

void CommandJob::start(const CommandSettings& settings) noexcept {
  assert(!m_bFinished && isReaped() && NoCancellation::isInForce());
  LaunchedProgram program = launchProgram(settings);
  if (program.error != 0) {
    fail(program.error, std::move(program.subject));
    return;
  }
  const std::lock_guard guard(commandLock);
  m_nProcess = program.process;
  m_oHandle = std::move(program.handle);
  m_oOutput.end = std::move(program.output);
  m_oErrors.end = std::move(program.errors);
  if (m_oLimit > MonotonicTime::duration::zero())
    m_oLimitAt = monotonicNow() + m_oLimit;
}

void CommandJob::fail(int error, std::string subject) noexcept {
  assert(!m_bFinished && isReaped() && error != 0);
  const std::lock_guard guard(commandLock);
  m_pOutcome->outcome = VarnCommand::NOT_STARTED;
  m_pOutcome->error = error;
  m_pOutcome->subject = std::move(subject);
  m_bFinished = true;
}

void CommandJob::collect(std::vector<pollfd>& polled) const {
  for (const Stream* const stream : {&m_oOutput, &m_oErrors}) {
    if (stream->end.isOpen())
      polled.push_back({stream->end.get(), POLLIN, 0});
  }
  if (!m_bEnded && m_oHandle.isOpen())
    polled.push_back({m_oHandle.get(), POLLIN, 0});
}

// What polling cannot tell of: times that are over, and the end of a process without a handle.
MonotonicTime CommandJob::nextLook(MonotonicTime now) const {
  MonotonicTime next = MonotonicTime::max();
  if (!m_bEnded && !isReaped() && !m_oHandle.isOpen())
    next = now + kLook;
  if (m_bFinished)
    return next;
  if (!m_bEnded && !m_bTerminating)
    next = std::min(next, m_oLimitAt);
  if (m_bTerminating && !m_bKilled)
    return std::min(next, m_oKillAt);
  return std::min(next, m_oPatientUntil);
}

void CommandJob::advance(MonotonicTime now) {
  if (!m_bEnded && !isReaped())
    lookForEnd(now);
  if (m_bFinished) {
    if (m_bEnded && !isReaped())
      reap();
    return;
  }
  m_oOutput.readSome();
  m_oErrors.readSome();
  if (!m_bEnded && now >= m_oLimitAt && terminate(now))
    std::swap(m_pOutcome->isTimedOut, m_pOutcome->isKilled);
  if (m_bTerminating && !m_bKilled && now >= m_oKillAt)
    killGroup(now);
  if (isComplete(now))
    finish();
}

// The first call asks the group to end, and each may bring forward the moment at which it is
// killed. True for the first.
bool CommandJob::terminate(MonotonicTime now, MonotonicTime::duration atMost) {
  if (m_bFinished)
    return false;
  m_oKillAt = std::min(m_oKillAt, now + std::min(m_oGrace, atMost));
  const bool begins = !std::exchange(m_bTerminating, true);
  if (begins) {
    if (!m_bEnded)
      lookForEnd(now);
    m_pOutcome->isKilled = !m_bEnded;
    signalGroup(SIGTERM);
    signalGroup(SIGCONT);  // what is stopped cannot heed it
  }
  if (!m_bKilled && now >= m_oKillAt)
    killGroup(now);
  return begins;
}

// Outputs that are open after the end are waited for, for as long as the patience lasts.
bool CommandJob::isComplete(MonotonicTime now) const {
  if (m_bEnded && !isOutputOpen())
    return true;
  if (m_bTerminating && !m_bKilled)
    return false;
  return (m_bEnded || m_bKilled) && now >= m_oPatientUntil;
}

void CommandJob::lookForEnd(MonotonicTime now) {
  siginfo_t information{};
  const bool hasStatus = waitWith(WNOWAIT, information) == 0;
  if (hasStatus && information.si_pid == 0)
    return;
  if (hasStatus && !m_bFinished) {
    const bool hasExited = information.si_code == CLD_EXITED;
    m_pOutcome->outcome = hasExited ? VarnCommand::EXITED : VarnCommand::SIGNALLED;
    (hasExited ? m_pOutcome->exitCode : m_pOutcome->signal) = information.si_status;
  }
  m_bEnded = true;
  m_oPatientUntil = now + kDrain;
}

// Whether the process, if only its status, is still there.
bool CommandJob::isOurs() const {
  siginfo_t information{};
  return waitWith(WNOWAIT, information) == 0;
}

int CommandJob::waitWith(int options, siginfo_t& information) const {
  options |= WEXITED | WNOHANG;
  if (m_oHandle.isOpen()) {
    const auto handle = static_cast<id_t>(m_oHandle.get());
    const int result = waitid(P_PIDFD, handle, &information, options);
    if (result == 0 || errno != EINVAL)
      return result;
  }
  return waitid(P_PID, static_cast<id_t>(m_nProcess), &information, options);
}

void CommandJob::signalGroup(int signal) const {
  if (m_oHandle.isOpen() && pidfd_send_signal(m_oHandle.get(), signal, nullptr, kToGroup) == 0)
    return;
  if (!isReaped() && isOurs())
    ::kill(-m_nProcess, signal);
}

// The program may have gone over to another group.
void CommandJob::killGroup(MonotonicTime now) {
  assert(!m_bKilled && !m_bFinished);
  signalGroup(SIGKILL);
  if (!m_bEnded &&
      (!m_oHandle.isOpen() || pidfd_send_signal(m_oHandle.get(), SIGKILL, nullptr, 0) != 0) &&
      isOurs())
    ::kill(m_nProcess, SIGKILL);
  m_bKilled = true;
  m_oPatientUntil = now + (m_bEnded ? MonotonicTime::duration(kDrain) : kSlowDeath);
}

// A status that somebody else has taken is gone, too.
void CommandJob::reap() {
  assert(m_bEnded && !isReaped());
  siginfo_t information{};
  waitWith(0, information);
  m_nProcess = -1;
  m_oHandle.close();
}

void CommandJob::finish() {
  assert(!m_bFinished && (m_bEnded || m_bKilled));
  if (m_bTerminating && !m_bKilled)
    signalGroup(SIGKILL);
  m_oOutput.end.close();
  m_oErrors.end.close();
  if (m_bEnded)
    reap();
  m_bFinished = true;
}

// In the child of a fork: the programs are children of the parent, and nobody here can wait for
// them.
void CommandJob::orphanAll() {
  for (CommandJob* job = m_pFirst; job != nullptr; job = job->m_pNext) {
    job->m_oOutput.end.close();
    job->m_oErrors.end.close();
    job->m_oHandle.close();
    job->m_nProcess = -1;
    job->m_bOrphan = true;
    if (job->m_bFinished)
      continue;
    job->m_pOutcome->outcome = VarnCommand::UNKNOWN;
    job->m_bFinished = true;
  }
}

void CommandJob::Stream::readSome() {
  for (int i = 0; i < kBlocksAtOnce && end.isOpen(); ++i) {
    const ssize_t count = retrying([&] { return read(end.get(), block, kBlockBytes); });
    if (count > 0)
      keep(block, static_cast<std::size_t>(count));
    else if (count == -1 && errno == EAGAIN)
      return;
    else
      end.close();
  }
}

// What there is no memory for is dropped like what is beyond the limit.
void CommandJob::Stream::keep(const char* bytes, std::size_t count) {
  std::size_t kept = std::min(count, limitBytes - std::min(limitBytes, captured.text.size()));
  if (captured.dropped > 0)
    kept = 0;
  try {
    captured.text.append(bytes, kept);
  } catch (const std::exception&) {
    kept = 0;
  }
  captured.dropped += count - kept;
}

}  // namespace VarnSupport
