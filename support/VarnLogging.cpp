#include "VarnSupport/VarnLogging.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <string_view>

#include "BriefHold.h"
#include "Cancellation.h"
#include "Fork.h"
#include "SecondText.h"
#include "VarnSupport/VarnException.h"
#include "VarnSupport/VarnLocaleFactory.h"

namespace VarnSupport {

namespace {

constexpr long kIdleMilliseconds = 60000;
constexpr int kLevelOff = -1;
constexpr int kHighestLevel = 9;
constexpr int kNoLog = INT_MIN;
constexpr useconds_t kLookMicroseconds = 1000;

// What all logs share, behind one lock that is never held while user code runs: it guards the
// registration, the targets and tables of every log, and the writing.
struct Sink {
  std::mutex mutex;
  std::string line;
  SecondText second;
  std::string nothing;
};

Sink& sink = *new Sink;  // never destroyed: threads that outlive main() still log

// Whole records that the calling thread has open.
constinit thread_local int t_nOwnRecords = 0;

template <typename T>
void appendNumber(std::string& text, T value) {
  char digits[24];
  const auto end = std::to_chars(digits, digits + sizeof digits, value);
  text.append(digits, end.ptr);
}

// "%04d%02d%02d_%02d:%02d:%02d %d %-10s [%d] " of the time, the level, the label and the thread.
void appendHeader(std::string& line, int level, const char* label) {
  constexpr std::size_t labelWidth = 10;
  const std::size_t labelLength = std::strlen(label);
  line += sink.second.now();
  line += ' ';
  appendNumber(line, level);
  line += ' ';
  line.append(label, labelLength);
  if (labelLength < labelWidth)
    line.append(labelWidth - labelLength, ' ');
  line += " [";
  appendNumber(line, static_cast<int>(pthread_self()));
  line += "] ";
}

// One write. One that a signal interrupts goes on; other errors end it, unreported.
void writeAll(int descriptor, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = ::write(descriptor, text.data(), text.size());
    if (written > 0)
      text.remove_prefix(static_cast<std::size_t>(written));
    else if (written == 0 || errno != EINTR)
      break;
  }
}

// The same, after what the program itself has left in its standard output.
void writeToStandardOutput(std::string_view text) {
  flockfile(stdout);
  fflush_unlocked(stdout);
  const int descriptor = fileno_unlocked(stdout);
  if (descriptor >= 0) {
    writeAll(descriptor, text);
  } else {
    fwrite_unlocked(text.data(), 1, text.size(), stdout);
    fflush_unlocked(stdout);
  }
  funlockfile(stdout);
}

// The file is closed on exec and, where this creates it, never wider than 0644: a daemon's mask is
// 0.
std::FILE* openForWriting(const std::string& name) {
  const int descriptor = open(name.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
  if (descriptor >= 0)
    close(descriptor);
  return std::fopen(name.c_str(), "we");
}

}  // namespace

constinit std::atomic<VarnLogging*> VarnLogging::m_pInstance{nullptr};
constinit std::atomic<int> VarnLogging::m_nAdmittedLevel{kNoLog};

void VarnLogging::setInstance(VarnLogging& log) {
  const CancellationGuard closed;
  const std::lock_guard guard(sink.mutex);
  m_pInstance = &log;
  log.publishLevelLocked();
}

VarnLogging* VarnLogging::getInstance() { return m_pInstance; }

VarnLogging::VarnLogging() : VarnLogging("log", kToStandardOutput, kLevelOff) {}

VarnLogging::VarnLogging(const std::string& fileName, int target, int level)
    : m_nTarget(target),
      m_nLogLevel(level),
      m_pRecord(std::make_unique<std::ostringstream>()),
      m_oIdleTimer(kIdleMilliseconds, false),
      m_sBaseName(fileName) {
  m_oRecordLock.init();
  m_oIdleTimer.addDependent(*this);
  VarnLogging::startLogging();
}

VarnLogging::~VarnLogging() {
  const QuietCancellationGuard closed;
  {
    const std::lock_guard guard(sink.mutex);
    if (m_pInstance == this) {
      m_pInstance = nullptr;
      m_nAdmittedLevel = kNoLog;
    }
  }
  // Nobody new comes in from here on: neither by the registration nor by the idle timer.
  m_oIdleTimer.removeDependent(*this);
  m_oIdleTimer.stopAndWait();
  m_oRecordLock.unwind();
  m_bEnding = true;
  for (int users = m_nUsers; users > t_nOwnRecords; users = m_nUsers)
    m_nUsers.wait(users);
  if (m_pFile != nullptr)
    std::fclose(m_pFile);
}

void VarnLogging::handleNotification(VarnCollaborator&, const VarnNotification&) {
  const CancellationGuard closed;
  VarnLoggingEventTimerThread::launchFor(*this);
}

void VarnLogging::startLogging() {
  if ((m_nTarget & kToFile) != 0)
    openLogFile();
}

void VarnLogging::stopLogging(int newTarget) {
  const CancellationGuard closed;
  const std::lock_guard guard(sink.mutex);
  if ((m_nTarget & kToFile) == 0 || (newTarget & kToFile) != 0 || m_pFile == nullptr)
    return;
  std::fclose(m_pFile);
  m_pFile = nullptr;
}

void VarnLogging::setTarget(int target) {
  if (target == m_nTarget)
    return;
  stopLogging(target);
  m_nTarget = target;
  startLogging();
}

void VarnLogging::openLogFile() {
  const CancellationGuard closed;
  const std::lock_guard guard(sink.mutex);
  if (m_pFile != nullptr)
    return;
  std::string name = m_sBaseName.substr(0, m_sBaseName.rfind('.'));
  name += std::to_string(std::rand());
  name += ".log";
  if (name.front() == '"')
    name.erase(0, 1);
  std::fprintf(stderr, "VarnLogging: Opening %s for logging...\n", name.c_str());
  m_pFile = openForWriting(name);
  if (m_pFile == nullptr) {
    const int error = errno;
    std::fprintf(stderr, "VarnLogging: Cannot open log file %s (%d)\n", name.c_str(), error);
  }
}

void VarnLogging::setLogLevel(int level) {
  if (level < kLevelOff || level > kHighestLevel)
    return;
  const CancellationGuard closed;
  const std::lock_guard guard(sink.mutex);
  m_nLogLevel = level;
  publishLevelLocked();
}

// Callers test one number, whether there is a log or not.
void VarnLogging::publishLevelLocked() {
  if (m_pInstance == this)
    m_nAdmittedLevel = m_nLogLevel.load();
}

int VarnLogging::getLogLevel(const std::string& component) const {
  const CancellationGuard closed;
  const std::lock_guard guard(sink.mutex);
  return levelOfLocked(component);
}

int VarnLogging::levelOfLocked(const std::string& component) const {
  const auto found = m_mapLevels.find(component);
  return found != m_mapLevels.end() ? found->second : m_nLogLevel.load();
}

void VarnLogging::setLogLevel(const std::string& component, int level) {
  if (level < kLevelOff || level > kHighestLevel)
    return;
  const CancellationGuard closed;
  const std::lock_guard guard(sink.mutex);
  m_mapLevels[component] = level;
}

void VarnLogging::setCurrentLevel(const std::string& component, int level) {
  const CancellationGuard closed;
  const VarnCriticalSection guard(m_oRecordLock, true);
  if (level < kLevelOff)
    return;
  m_sComponent = component;
  m_nCurrentLevel = level;
}

void VarnLogging::setCurrentLevel(int level) { setCurrentLevel(std::string(), level); }

bool VarnLogging::getLogAccess() {
  const CancellationGuard closed;
  m_oRecordLock.lock();
  if (m_nLogLevel >= m_nCurrentLevel) {
    resetTimer();
    return true;
  }
  m_oRecordLock.unlock();
  return false;
}

// Nothing goes into a stream that a null pointer made bad.
void VarnLogging::append(const char* text, std::size_t length) {
  const CancellationGuard closed;
  if (!m_pRecord->good())
    return;
  try {
    m_pRecord->rdbuf()->sputn(text, static_cast<std::streamsize>(length));
  } catch (const std::bad_alloc&) {
    // What there is no room for is dropped.
  }
}

void VarnLogging::put(const std::string& value) { append(value.data(), value.size()); }

void VarnLogging::put(const ci_string& value) { append(value.data(), value.size()); }

void VarnLogging::put(const std::wstring& value) {
  const CancellationGuard closed;
  try {
    put(VarnStringUtilities::narrow(value, VarnLocaleFactory::getDefaultLocale(true)));
  } catch (const VarnException&) {
    // A text that cannot be converted is dropped: no exception leaves the log.
  } catch (const std::bad_alloc&) {
    // So is one that there is no memory for.
  }
}

void VarnLogging::put(const ci_wstring& value) {
  const CancellationGuard closed;
  try {
    put(std::wstring(value.data(), value.size()));
  } catch (const std::bad_alloc&) {
    // As above.
  }
}

void VarnLogging::put(bool value) {
  const std::string_view text = value ? "true" : "false";
  append(text.data(), text.size());
}

template <typename T>
void VarnLogging::putNumber(T value) {
  char digits[24];
  const auto end = std::to_chars(digits, digits + sizeof digits, value);
  append(digits, static_cast<std::size_t>(end.ptr - digits));
}

void VarnLogging::put(long value) { putNumber(value); }

void VarnLogging::put(unsigned long value) { putNumber(value); }

void VarnLogging::put(int value) { putNumber(value); }

void VarnLogging::put(short value) { putNumber(value); }

void VarnLogging::put(unsigned int value) { putNumber(value); }

void VarnLogging::put(unsigned short value) { putNumber(value); }

// As "%c" does into a text: a NUL adds nothing.
void VarnLogging::put(char value) { append(&value, value != '\0' ? 1 : 0); }

void VarnLogging::put(const void* value) {
  const CancellationGuard closed;
  char text[32];
  append(text, static_cast<std::size_t>(std::snprintf(text, sizeof text, "%p", value)));
}

// The longest "%f" has 309 digits before the point.
void VarnLogging::put(double value) {
  const CancellationGuard closed;
  char text[400];
  append(text, static_cast<std::size_t>(std::snprintf(text, sizeof text, "%f", value)));
}

void VarnLogging::put(float value) { put(static_cast<double>(value)); }

void VarnLogging::put(const char* value) {
  if (value != nullptr)
    append(value, std::strlen(value));
  else
    m_pRecord->setstate(std::ios_base::badbit);  // for good; callers rely on it
}

void VarnLogging::endrecord() {
  const CancellationGuard closed;
  if (!m_oRecordLock.testAndSet())
    return;
  finishRecord();
  m_oRecordLock.unwind();
}

void VarnLogging::cancelTimer() {
  m_oIdleTimer.stop();
  m_bTimerStopped = true;
}

void VarnLogging::resetTimer() {
  if (!m_bTimerStopped)
    return;
  try {
    m_oIdleTimer.reset();
    m_bTimerStopped = false;
  } catch (const std::bad_alloc&) {
    // The next value tries again.
  }
}

void VarnLogging::timerElapsed() {
  endrecord();
  if (isAccessAllowed() && m_nLogLevel > 8)
    noteExpiry();
}

// The destructor of the log waits for this, so it must not wait for ever for an open record.
void VarnLogging::noteExpiry() {
  const CancellationGuard closed;
  while (!m_oRecordLock.testAndSet()) {
    if (m_bEnding)
      return;
    usleep(kLookMicroseconds);
  }
  m_nCurrentLevel = kDefaultRecordLevel;
  m_sComponent.clear();
  put("VarnLogging::timerElapsed: called (NOTE: This message only appears and repeats when "
      "LogLevel = 9)");
  finishRecord();
  m_oRecordLock.unwind();
}

// Everything of endrecord() but the lock.
void VarnLogging::finishRecord() {
  cancelTimer();
  try {
    writeRecord();
  } catch (const std::bad_alloc&) {
    // Without memory for the line the record stays for the next one to lead.
  }
  m_nCurrentLevel = kDefaultRecordLevel;
  m_sComponent.clear();
}

// Writes what was collected, if the level of the component admits it; else it stays.
void VarnLogging::writeRecord() {
  const std::string_view text = m_pRecord->view();
  if (text.empty())
    return;
  {
    const std::lock_guard guard(sink.mutex);
    const int threshold = m_sComponent.empty() ? m_nLogLevel.load() : levelOfLocked(m_sComponent);
    if (m_nCurrentLevel > threshold && m_nCurrentLevel != 0)
      return;
    sink.line.clear();
    if (m_bHeader && m_nCurrentLevel != 0)
      appendHeader(sink.line, m_nCurrentLevel,
                   m_sComponent.empty() ? "Global" : m_sComponent.c_str());
    sink.line += text.substr(0, text.find('\0'));
    sink.line += '\n';
    const NoCancellation writing;
    if ((m_nTarget & kToFile) != 0 && m_pFile != nullptr)
      writeAll(fileno_unlocked(m_pFile), sink.line);
    if ((m_nTarget & kToStandardOutput) != 0)
      writeToStandardOutput(sink.line);
  }
  m_pRecord->str(sink.nothing);  // keeps its memory
}

// The registered log if it admits `level`; it cannot be destroyed before the record ends.
VarnLogging* VarnLogging::pin(int level) {
  const std::lock_guard guard(sink.mutex);
  VarnLogging* const log = m_pInstance;
  if (log == nullptr || log->m_nLogLevel < level)
    return nullptr;
  log->addUser();
  ++t_nOwnRecords;
  return log;
}

// Of the registered log: other threads cannot log then.
bool VarnLogging::isRecordOpenOnThisThread() {
  const std::lock_guard guard(sink.mutex);
  VarnLogging* const log = m_pInstance;
  if (log == nullptr || log->m_oRecordLock.lockCount() == 0 || !log->m_oRecordLock.testAndSet())
    return false;
  const bool isOpen = log->m_oRecordLock.lockCount() > 1;
  log->m_oRecordLock.unlock();
  return isOpen;
}

void VarnLogging::addUser() { m_nUsers.fetch_add(1); }

// After the decrement the log may be gone: notify_all() takes an address and nothing else.
void VarnLogging::dropUser() {
  m_nUsers.fetch_sub(1);
  m_nUsers.notify_all();
}

// What a record had collected when another one of the same thread began.
struct VarnLogRecord::Outer {
  std::string text;
  std::string component;
  int level;
};

VarnLogRecord::VarnLogRecord(int level) { begin(std::string(), level); }

VarnLogRecord::VarnLogRecord(const std::string& component, int level) { begin(component, level); }

void VarnLogRecord::begin(const std::string& component, int level) {
  if (level < kLevelOff || !VarnLogging::admits(level))
    return;
  closeCancellation();
  m_pLog = VarnLogging::pin(level);
  if (m_pLog == nullptr) {
    openCancellation();
    return;
  }
  m_pLog->m_oRecordLock.lock();
  try {
    takeOver(component, level);
  } catch (const std::bad_alloc&) {
    // A record that there is no memory for is not admitted.
    m_pLog->m_oRecordLock.unlock();
    leave();
    m_pLog = nullptr;
  }
}

// Changes nothing when it throws.
void VarnLogRecord::takeOver(const std::string& component, int level) {
  std::string ownComponent(component);
  if (m_pLog->m_oRecordLock.lockCount() > 1) {
    m_pOuter = new Outer{m_pLog->m_pRecord->str(), std::string(), m_pLog->m_nCurrentLevel};
    m_pOuter->component.swap(m_pLog->m_sComponent);
    m_pLog->m_pRecord->str(std::string());
  }
  m_pLog->m_sComponent.swap(ownComponent);
  m_pLog->m_nCurrentLevel = level;
}

VarnLogRecord::~VarnLogRecord() {
  if (m_pLog == nullptr)
    return;
  m_pLog->finishRecord();
  if (m_pOuter != nullptr) {
    m_pLog->append(m_pOuter->text.data(), m_pOuter->text.size());
    m_pLog->m_sComponent.swap(m_pOuter->component);
    m_pLog->m_nCurrentLevel = m_pOuter->level;
    delete m_pOuter;
    m_pLog->m_oRecordLock.unlock();
  } else {
    m_pLog->m_oRecordLock.unwind();
  }
  leave();
}

void VarnLogRecord::leave() {
  --t_nOwnRecords;
  m_pLog->dropUser();
  openCancellation();
}

VarnLogging& operator<<(VarnLogging& log, const VarnSetLogLevelManipulator& manipulator) {
  return manipulator.apply(log);
}

VarnSetLogLevelManipulator setloglevel(int level) {
  return VarnSetLogLevelManipulator(__setloglevel, std::string(), level);
}

VarnSetLogLevelManipulator setloglevel(const std::string& component, int level) {
  return VarnSetLogLevelManipulator(__setloglevel, component, level);
}

VarnLogging& __setloglevel(VarnLogging& log, const std::string& component, int level) {
  log.setCurrentLevel(component, level);
  return log;
}

VarnLogging& endrecord(VarnLogging& log) {
  log.endrecord();
  return log;
}

VarnLoggingEventTimerThread::VarnLoggingEventTimerThread(VarnLogging& log)
    : VarnThread("VarnLoggingEventTimerThread"), m_pLog(&log) {
  m_pLog->addUser();
}

VarnLoggingEventTimerThread::~VarnLoggingEventTimerThread() { m_pLog->dropUser(); }

int VarnLoggingEventTimerThread::run() {
  m_pLog->timerElapsed();
  return 0;
}

void VarnLoggingEventTimerThread::launchFor(VarnLogging& log) {
  try {
    auto thread = std::make_unique<VarnLoggingEventTimerThread>(log);
    thread->setMarkForDeath();
    if (thread->launch())
      static_cast<void>(thread.release());  // it may be gone already
  } catch (const std::bad_alloc&) {
    // The next expiry of the idle timer tries again.
  }
}

struct VarnLogging::Fork {
  static void prepare() { sink.mutex.lock(); }
  static void release(ForkSide side) {
    VarnLogging* const log = m_pInstance;
    if (side == ForkSide::CHILD && log != nullptr)
      renew(*log);
    sink.mutex.unlock();
  }

 private:
  // A record that another thread had open is the parent's; its text may be half changed.
  static void renew(VarnLogging& log) VSUPT_UNCHECKED {
    if (BriefHold::renewIfLost(log.m_oRecordLock)) {
      keepForever(log.m_pRecord.release());
      log.m_pRecord = std::make_unique<std::ostringstream>();
      log.m_nCurrentLevel = kDefaultRecordLevel;
      log.m_sComponent.clear();
    }
    log.m_nUsers = t_nOwnRecords;
  }
};

constinit const ForkPart logFork{&VarnLogging::Fork::prepare, &VarnLogging::Fork::release};

}  // namespace VarnSupport
