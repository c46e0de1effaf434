// The log as its callers see it, and the older form of its records. What a record is built in, and
// how it is written, is in LogState.h; how values become text is in LogValues.cpp.
//
// A log can go while threads are still writing, as the process exits or by mistake. Whatever a
// writer needs is therefore in the state, not in the object; whoever needs the object itself
// visits it, and the destructor waits for such visits and for the record under way. Levels are
// asked for without a lock: the registered log's are kept in two static words, changed together
// with the registration.
#include "VarnSupport/VarnLogging.h"

#include <cassert>
#include <cerrno>
#include <cstdlib>
#include <mutex>
#include <new>
#include <utility>

#include "log/LogState.h"
#include "log/LogTarget.h"
#include "log/Observation.h"
#include "runtime/BriefGate.h"
#include "runtime/Cancellation.h"

namespace VarnSupport {

// Programs that were built while it was no inline function look for it in the library.
[[gnu::used]] VarnLogging* (*const keptGetInstance)() = &VarnLogging::getInstance;

VarnLogging* VarnLogging::Registration::operator=(VarnLogging* log) {
  const CancellationGuard closed;
  if (log != nullptr)
    State::makeValueLog();
  const std::lock_guard guard(State::m_oTables);
  State::registerLocked(log);
  return log;
}

void VarnLogging::setInstance(VarnLogging& log) { m_pInstance = &log; }

bool VarnLogging::admits(const std::string& component, int level) {
  if (!admits(level))
    return false;
  const CancellationGuard closed;
  return !State::isRejected(component, level);
}

VarnLogging::VarnLogging() : VarnLogging("log", kToStandardOutput, State::kLevelOff) {}

VarnLogging::VarnLogging(const std::string& fileName, int target, int level)
    : m_nTarget(target),
      m_nLogLevel(level),
      m_oIdleTimer(State::kIdleMilliseconds, false),
      m_sBaseName(fileName) {
  const QuietCancellationGuard closed;
  m_oIdleTimer.addDependent(*this);
  State::Owner state = State::attachTo(*this);
  m_pState->target = target;
  m_oRecordLock = m_pState->lock;
  VarnLogging::startLogging();
  static_cast<void>(state.release());
}

// Nobody new comes in once the registration is withdrawn and the idle timer is stopped.
VarnLogging::~VarnLogging() {
  const QuietCancellationGuard closed;
  {
    const std::lock_guard guard(State::m_oTables);
    if (m_pInstance == this)
      State::registerLocked(nullptr);
  }
  m_oIdleTimer.removeDependent(*this);
  m_oIdleTimer.stopAndWait();
  m_oRecordLock.unwind();
  if (m_pState->awaitUsers())
    m_pState->closeFile(*this);
  m_pState->detach();
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
  if ((m_nTarget & kToFile) == 0 || (newTarget & kToFile) != 0 || !isFileOpen())
    return;
  const CancellationGuard closed;
  const State::FileChange change(*m_pState);
  m_pState->closeFile(*this);
}

void VarnLogging::setTarget(int target) {
  if (target == m_nTarget)
    return;
  stopLogging(target);
  m_nTarget = target;
  m_pState->target = target;
  startLogging();
}

void VarnLogging::openLogFile() {
  const CancellationGuard closed;
  const State::FileChange change(*m_pState);
  if (isFileOpen())
    return;
  if (m_pState->file != nullptr) {
    m_pState->file->open();
    return;
  }
  std::string name = m_sBaseName.substr(0, m_sBaseName.rfind('.'));
  name += std::to_string(BriefGate::inside(std::rand));
  name += ".log";
  if (name.front() == '"')
    name.erase(0, 1);
  std::fprintf(stderr, "VarnLogging: Opening %s for logging...\n", name.c_str());
  std::FILE* const opened = openForRecords(name);
  if (opened == nullptr) {
    const int error = errno;
    std::fprintf(stderr, "VarnLogging: Cannot open log file %s (%d)\n", name.c_str(), error);
    return;
  }
  const std::lock_guard guard(State::m_oTables);
  m_pFile = opened;
  m_pState->descriptor = fileno(opened);
  m_pState->torn = false;
  m_bFileOpen = true;
}

void VarnLogging::State::closeFile(VarnLogging& log) {
  assert(owner == &log && (word & (kChanging | kLeft)) != 0 && (word & kWriting) == 0);
  if (file != nullptr)
    file->close();
  std::FILE* closed = nullptr;
  {
    const std::lock_guard guard(m_oTables);
    log.m_bFileOpen = false;
    descriptor = -1;
    closed = std::exchange(log.m_pFile, nullptr);
  }
  if (closed != nullptr)
    std::fclose(closed);
}

bool VarnLogging::isFileOpen() const {
  return m_pState->file != nullptr ? m_pState->file->isOpen() : m_bFileOpen.load();
}

void VarnLogging::setLogLevel(int level) {
  if (level < State::kLevelOff || level > State::kHighestLevel)
    return;
  const CancellationGuard closed;
  const std::lock_guard guard(State::m_oTables);
  m_nLogLevel = level;
  m_pState->rest = State::kNoRest;
  State::publishLevelsLocked(*this);
}

int VarnLogging::getLogLevel(const std::string& component) const {
  if (m_nThresholds.load(std::memory_order_relaxed) == 0)
    return restLevel();
  const CancellationGuard closed;
  const std::lock_guard guard(State::m_oTables);
  return levelOfLocked(component);
}

int VarnLogging::levelOfLocked(const std::string& component) const {
  const auto found = m_mapLevels.find(component);
  return found != m_mapLevels.end() ? found->second : restLevel();
}

// Of what has no threshold of its own.
int VarnLogging::restLevel() const {
  const int rest = m_pState->rest.load(std::memory_order_relaxed);
  return rest != State::kNoRest ? rest : m_nLogLevel.load();
}

void VarnLogging::setLogLevel(const std::string& component, int level) {
  if (level < State::kLevelOff || level > State::kHighestLevel)
    return;
  const CancellationGuard closed;
  const std::lock_guard guard(State::m_oTables);
  m_mapLevels[component] = level;
  m_nThresholds = static_cast<std::int32_t>(m_mapLevels.size());
  State::publishLevelsLocked(*this);
}

void VarnLogging::setCurrentLevel(const std::string& component, int level) {
  const CancellationGuard closed;
  const VarnCriticalSection guard(m_oRecordLock);
  if (level < State::kLevelOff)
    return;
  m_pState->setAside(*this);
  m_sComponent = component;
  m_nCurrentLevel = level;
}

void VarnLogging::setCurrentLevel(int level) { setCurrentLevel(std::string(), level); }

bool VarnLogging::getLogAccess() {
  const CancellationGuard closed;
  m_oRecordLock.lock();
  m_pState->setAside(*this);
  if (m_nLogLevel >= m_nCurrentLevel) {
    resetTimer();
    State::t_pValueOf = m_pState;
    return true;
  }
  m_oRecordLock.unlock();
  return false;
}

void VarnLogging::endrecord() {
  const QuietCancellationGuard closed;
  if (m_oRecordLock.testAndSet())
    m_pState->endOlder(*this);
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

void VarnLogging::timerElapsed() { State::flush(this); }

// Makes the line of what was collected, if the level of the component admits it; else that stays,
// as it does when there is no memory for the line.
bool VarnLogging::State::composeOlder(VarnLogging& log) {
  const int threshold =
      log.m_sComponent.empty() ? log.restLevel() : log.getLogLevel(log.m_sComponent);
  if (log.m_nCurrentLevel > threshold && log.m_nCurrentLevel != 0) {
    if (rest != kNoRest)
      building->older.clear();
    return false;
  }
  try {
    return compose(building->older, log.m_bHeader ? log.m_nCurrentLevel : 0, log.m_sComponent);
  } catch (const std::bad_alloc&) {
    return false;
  }
}

// The log may be gone as soon as the visit has ended.
void VarnLogging::State::endOlder(VarnLogging& log, Visit* visit) {
  assert(lock.lockCount() > 0 && owner == &log);
  setAside(log);
  log.cancelTimer();
  const bool passes = composeOlder(log);
  const int level = log.m_nCurrentLevel;
  log.m_nCurrentLevel = kDefaultRecordLevel;
  log.m_sComponent.clear();
  if (visit != nullptr)
    visit->end();
  if (passes)
    write(building->older, level, 0);
  const VarnLogRecord::Content* const around = openContent();
  if (around == nullptr)
    lock.unwind();
  while (around != nullptr && lock.lockCount() > around->holds)
    lock.unlock();
  Observation::tell();
}

void VarnLogging::State::flush(VarnLogging* log) {
  const CancellationGuard closed;
  Visit visit(log);
  State* const state = visit.state();
  if (state == nullptr)
    return;
  const bool isNoted = isAccessAllowed() && log->m_nLogLevel > 8;
  if (state->lock.testAndSet())
    state->endOlder(*log, &visit);
  visit.end();
  if (isNoted)
    state->noteExpiry(log);
}

// Waits for an open record without a visit, so that the end of the log does not wait for this.
void VarnLogging::State::noteExpiry(VarnLogging* log) {
  lock.lock();
  Visit visit(log);
  if (visit.state() != this) {
    lock.unlock();
    return;
  }
  setAside(*log);
  log->m_nCurrentLevel = kDefaultRecordLevel;
  log->m_sComponent.clear();
  append(building->older,
         "VarnLogging::timerElapsed: called (NOTE: This message only appears and repeats when "
         "LogLevel = 9)");
  endOlder(*log, &visit);
}

// Of the registered log: other threads cannot log then.
bool VarnLogging::isRecordOpenOnThisThread() {
  State* const state = State::m_pRegistered;
  if (state == nullptr || state->lock.lockCount() == 0 || !state->lock.testAndSet())
    return false;
  const bool isOpen = state->lock.lockCount() > 1;
  state->lock.unlock();
  return isOpen;
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
    : VarnThread("VarnLoggingEventTimerThread"), m_pLog(&log) {}

VarnLoggingEventTimerThread::~VarnLoggingEventTimerThread() = default;

// The log may be gone by now.
int VarnLoggingEventTimerThread::run() {
  VarnLogging::State::flush(m_pLog);
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

}  // namespace VarnSupport
