// A file takes records in whole or not at all: what a write leaves over is given up, counted, and
// told of before the next record, as soon as a write succeeds. Nothing is tried twice, so that a
// full disk costs a record one call of the system.
//
// The thread gathers for a moment once there is a record, as waking it costs its caller more than
// the record does: under load it is woken some dozens of times a second, however many records come.
#include "log/LogFile.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <new>
#include <utility>

#include "log/LogTarget.h"
#include "log/RecordText.h"
#include "runtime/Cancellation.h"
#include "runtime/SignalSet.h"
#include "runtime/System.h"
#include "runtime/SystemThreads.h"

namespace VarnSupport {

namespace {

// How long a record may wait for others, which are then written with it.
constexpr std::chrono::milliseconds kGathering{20};
// How long the thread waits for a record before it ends.
constexpr std::chrono::seconds kIdle{1};
constexpr std::size_t kRecordsAtOnce = 256;
constexpr unsigned kWritesPerLook = 64;

// Whether standard error is the journal's: it says so by device and inode, as descriptors are
// handed on and redirected.
bool isErrorStreamOfJournal() {
  const char* const named = std::getenv("JOURNAL_STREAM");
  struct stat status {};
  return named != nullptr && fstat(STDERR_FILENO, &status) == 0 &&
         std::to_string(status.st_dev) + ':' + std::to_string(status.st_ino) == named;
}

bool leadToSameFile(int one, int other) {
  struct stat first {};
  struct stat second {};
  return one >= 0 && fstat(one, &first) == 0 && fstat(other, &second) == 0 &&
         isSameFile(first, second);
}

// As the journal and syslog count, from 0, the worst, to 7.
char priorityOf(int level) {
  constexpr std::string_view priorities = "6344456667";
  return priorities[static_cast<std::size_t>(std::clamp(level, 0, 9))];
}

}  // namespace

LogFile::LogFile(LogTurns& turns, const std::string& name, std::size_t queueBytes)
    : m_oTurns(turns),
      m_sName(name),
      m_pQueue(queueBytes > 0 ? std::make_unique<Queue>(queueBytes) : nullptr) {}

LogFile::~LogFile() {
  if (m_nDescriptor > STDERR_FILENO)
    ::close(m_nDescriptor);
}

bool LogFile::open() {
  assert((m_oTurns.word & LogTurns::kChanging) != 0);
  const NoCancellation whole;
  AppendedFile opened;
  if (m_sName.empty())
    opened.descriptor = STDERR_FILENO;
  else
    opened = openForAppending(m_sName);
  if (opened.descriptor < 0) {
    m_nError = opened.error;
    return false;
  }
  writeQueued();
  m_bJournal = m_sName.empty() && isErrorStreamOfJournal();
  // Other processes may be in the middle of a record in the same file.
  const bool isTorn = leadToSameFile(m_nDescriptor, opened.descriptor) ? m_bTorn : opened.isTorn;
  replace(opened.descriptor, isTorn);
  return true;
}

void LogFile::close() {
  assert((m_oTurns.word & (LogTurns::kChanging | LogTurns::kLeft)) != 0);
  const NoCancellation whole;
  writeQueued();
  replace(-1, false);
}

// Some file systems tell of a want of room only when the file is closed.
void LogFile::replace(int descriptor, bool isTorn) {
  assert(NoCancellation::isInForce());
  int old = -1;
  {
    const std::lock_guard guard(LogTurns::m_oTables);
    old = m_nDescriptor.exchange(descriptor);
    m_bTorn = isTorn;
    m_nWrites = 0;
  }
  if (old > STDERR_FILENO && ::close(old) != 0 && errno != EINTR)
    m_nError = errno;
}

std::string LogFile::lastError() const {
  const int error = m_nError;
  if (error == 0)
    return "";
  const std::string name = m_sName.empty() ? "standard error" : m_sName;
  return name + ": " + (error == kNotForRecords ? "is no regular file" : errorText(error));
}

void LogFile::take(std::string_view record, int level) {
  assert(!record.empty() && record.back() == '\n' && m_oTurns.lock.lockCount() > 0);
  try {
    record = withPriority(record, level, m_sRecord);
    const bool canWait = m_pQueue != nullptr && level != kFailures;
    if ((!canWait || !push(record)) && !writeInTurn(record))
      ++m_nLost;
  } catch (const std::bad_alloc&) {
    m_nError = ENOMEM;
    ++m_nLost;
  }
}

// False when the record cannot wait: it is too large for the queue, or nobody would write it.
bool LogFile::push(std::string_view record) {
  assert(m_pQueue != nullptr && !record.empty());
  const std::lock_guard guard(m_oMutex);
  RecordBlock& block = m_pQueue->blocks[m_pQueue->filling];
  if (!block.hasEverRoomFor(record) || !hasThreadLocked())
    return false;
  const bool isFirst = block.isEmpty();
  if (block.push(record)) {
    if (isFirst || (!m_bUrgent && block.isHalfFull())) {
      m_bUrgent = !isFirst;
      m_oWake.notify_one();
    }
    return true;
  }
  ++m_pQueue->rejected;
  ++m_nLost;
  m_nError = ENOBUFS;
  return true;
}

bool LogFile::writeInTurn(std::string_view record) {
  if (m_bAbandoned || !m_oTurns.beginWriting())
    return false;
  writeQueued();
  write(&record, 1);
  m_oTurns.clear(LogTurns::kWriting);
  return true;
}

void LogFile::flush() {
  const NoCancellation whole;
  if (m_pQueue == nullptr || m_bAbandoned || !m_oTurns.beginWriting())
    return;
  writeQueued();
  m_oTurns.clear(LogTurns::kWriting);
}

// The thread begins with a record and not with the log: a daemon forks in between.
bool LogFile::hasThreadLocked() {
  if (m_bRunning || m_bFinished)
    return m_bRunning;
  const sigset_t all = allSignals();
  m_bRunning = startDetached(
                   "vsupt-log", [file = shared_from_this()] { file->run(); }, &all) == 0;
  return m_bRunning;
}

// What is left when the state's log is gone is lost.
void LogFile::run() {
  assert(m_pQueue != nullptr);
  std::unique_lock guard(m_oMutex);
  const auto hasRecord = [&] { return !m_pQueue->blocks[m_pQueue->filling].isEmpty(); };
  while (m_oWake.wait_for(guard, kIdle, [&] { return hasRecord() || m_bFinished; })) {
    m_oWake.wait_for(guard, kGathering, [&] { return m_bUrgent || m_bFinished; });
    m_bUrgent = false;
    guard.unlock();
    const bool hasTurn = m_oTurns.beginWriting();
    if (hasTurn) {
      writeQueued();
      m_oTurns.clear(LogTurns::kWriting);
    }
    guard.lock();
    if (!hasTurn || (m_bFinished && !hasRecord()))
      break;
  }
  m_bRunning = false;
  m_oEnded.notify_all();
}

// The exit waits for the thread until `deadline`. What it has not written by then is lost, and so
// is what comes later, as the thread may hold the turn at the file for ever.
void LogFile::finish(MonotonicTime deadline) {
  const NoCancellation waiting;
  std::unique_lock guard(m_oMutex);
  m_bFinished = true;
  m_oWake.notify_one();
  if (!m_oEnded.wait_until(guard, deadline, [this] { return !m_bRunning; }))
    m_bAbandoned = true;
}

// In the child of a fork: what waited is written by the parent.
void LogFile::renew() {
  std::construct_at(&m_oMutex);
  std::construct_at(&m_oWake);
  std::construct_at(&m_oEnded);
  std::construct_at(&m_sRecord);
  std::construct_at(&m_oHeader);
  m_bRunning = false;
  m_bUrgent = false;
  m_nUntold = 0;
  if (m_pQueue == nullptr)
    return;
  for (RecordBlock& block : m_pQueue->blocks)
    block.clear();
  m_pQueue->rejected = 0;
}

// Of what did not fit the file tells at once, as there may be no later record for long. One
// exchange is enough for all that was pushed before: the other block is empty between two turns.
void LogFile::writeQueued() {
  if (m_pQueue == nullptr)
    return;
  std::size_t full = 0;
  std::uint64_t rejected = 0;
  {
    const std::lock_guard guard(m_oMutex);
    full = std::exchange(m_pQueue->filling, 1 - m_pQueue->filling);
    rejected = std::exchange(m_pQueue->rejected, 0);
  }
  RecordBlock& block = m_pQueue->blocks[full];
  std::array<std::string_view, kRecordsAtOnce> records;
  std::size_t position = 0;
  while (const std::size_t count = block.read(position, records.data(), records.size()))
    write(records.data(), count);
  block.clear();
  m_nUntold += rejected;
  if (rejected > 0)
    tellOfLost();
}

// A record that is not taken is lost; the next one may be shorter.
void LogFile::write(const std::string_view* records, std::size_t count) {
  std::size_t done = 0;
  while (done < count) {
    if (m_nUntold == 0 || tellOfLost())
      done += writeSome(records + done, count - done);
    if (done == count)
      return;
    ++done;
    ++m_nLost;
    ++m_nUntold;
  }
}

// Returns how many records the file has taken in whole. The rest of a torn one is given up. To keep
// signals off costs two calls of the system, which is as much as a write: it is done where one may
// come, and after a failure. Whether the process has got a limit since is asked now and then.
std::size_t LogFile::writeSome(const std::string_view* records, std::size_t count) {
  const int descriptor = m_nDescriptor;
  if (descriptor < 0)
    return 0;
  if (m_nWrites++ % kWritesPerLook == 0)
    m_bMayRaise = mayWriteRaise(descriptor);
  const bool isQuiet = m_bMayRaise || m_bTorn || m_nUntold > 0;
  const std::size_t done = writeRecords(descriptor, records, count, isQuiet, m_bTorn);
  if (done < count)
    m_nError = errno;
  return done;
}

// In a line that looks like any other record, of which no reader need know.
bool LogFile::tellOfLost() {
  assert(m_nUntold > 0);
  try {
    const std::string line = lineOf(std::to_string(m_nUntold) + " records lost");
    std::string place;
    const std::string_view record = withPriority(line, kFailures, place);
    if (writeSome(&record, 1) == 0)
      return false;
    m_nUntold = 0;
    return true;
  } catch (const std::bad_alloc&) {
    return false;
  }
}

std::string LogFile::inOwnForm(const std::string& text) const {
  const Form form = m_pForm;
  if (form == nullptr)
    return {};
  const std::string name = nameOfThread();
  return form({std::chrono::system_clock::now(), kFailures, {}, text, name, gettid()});
}

std::string LogFile::lineOf(const std::string& text) {
  if (std::string line = inOwnForm(text); !line.empty())
    return line += '\n';
  RecordText record;
  record.append(text);
  m_oHeader.putBefore(record, kFailures, "Global");
  record.append(std::string_view("\n"));
  return std::string(record.text().substr(1));
}

// The journal takes each line for a record of its own.
std::string_view LogFile::withPriority(std::string_view record, int level,
                                       std::string& place) const {
  if (!m_bJournal)
    return record;
  const std::string priority{'<', priorityOf(level), '>'};
  place.clear();
  while (!record.empty()) {
    const std::string_view line = record.substr(0, record.find('\n') + 1);
    place += priority;
    place += line;
    record.remove_prefix(line.size());
  }
  return place;
}

}  // namespace VarnSupport
