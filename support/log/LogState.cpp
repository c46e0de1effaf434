// What a log does apart from its object: states outlive their logs and serve others later, so that
// a thread which is late finds memory that is still a state. Bits of one word say what is under
// way; a bit is set by whoever begins and cleared by whoever ends, without a lock unless somebody
// waits.
//
// A record's way: its text grows in a Building that the thread with the record lock owns;
// compose() puts the header before it; write() takes the turn of the file (kWriting) and gives it
// back before it goes on to standard output, where a reader that does not read may keep it for
// good. Opening and closing the file (kChanging) excludes kWriting and waits for it.
#include "log/LogState.h"

#include <algorithm>
#include <cassert>
#include <climits>
#include <cstddef>
#include <memory>
#include <new>
#include <utility>
#include <vector>

#include "locks/BriefHold.h"
#include "log/LogTarget.h"
#include "log/Observation.h"
#include "runtime/Cancellation.h"
#include "runtime/ProcessExit.h"

namespace VarnSupport {

namespace {

constexpr int kNoLog = INT_MIN;

}  // namespace

constinit std::atomic<VarnLogging*> VarnLogging::State::m_pValueLog{nullptr};
constinit std::atomic<VarnLogging::State*> VarnLogging::State::m_pRegistered{nullptr};
constinit std::atomic<bool> VarnLogging::State::m_bThresholds{false};
constinit std::atomic<std::int32_t> VarnLogging::State::m_nRest{VarnLogging::State::kNoRest};
constinit thread_local VarnLogging::State* VarnLogging::State::t_pValueOf = nullptr;
constinit VarnLogging::Registration VarnLogging::m_pInstance;
constinit std::atomic<int> VarnLogging::m_nAdmittedLevel{kNoLog};

VarnLogging::State::Owner VarnLogging::State::attachTo(VarnLogging& log) {
  std::shared_ptr<LogFile> unused;
  std::unique_lock guard(m_oTables);
  State* state = first();
  while (state != nullptr && (state->owner != nullptr || !state->resetLocked(unused)))
    state = state->following();
  if (state == nullptr) {
    guard.unlock();
    state = new State;
    guard.lock();
    state->next = m_pFirst;
    m_pFirst = state;
  }
  // Who finds the log by its address, be it that of a log before it, finds it with its state.
  assert(state->owner == nullptr && state->visits == 0);
  log.m_pState = state;
  state->owner = &log;
  return Owner(state);
}

void VarnLogging::State::detach() {
  std::shared_ptr<LogFile> unused;
  const std::lock_guard guard(m_oTables);
  assert(owner != nullptr && m_pRegistered != this);
  owner = nullptr;
  // Whoever has the record lock may be late, and still use the file.
  if (lock.testAndSet()) {
    unused.swap(file);
    lock.unlock();
  }
}

// A thread may still have a record of the log that is gone open, or the record lock for ever.
bool VarnLogging::State::resetLocked(std::shared_ptr<LogFile>& unused) {
  if (!lock.testAndSet())
    return false;
  const bool isFree = lock.lockCount() == 1 && (word & (kRecord | kWriting | kChanging)) == 0;
  if (isFree) {
    building->older.clear();
    building->silenced = false;
    building->content.hasAside = false;
    building->content.aside.text.clear();
    target = 0;
    rest = kNoRest;
    unused.swap(file);
    descriptor = -1;
    torn = false;
    word = 0;
  }
  lock.unlock();
  return isFree;
}

bool VarnLogging::State::awaitUsers() {
  std::unique_lock guard(m_oTables);
  word |= kEnding;
  awaitLocked(
      guard, [this] { return visits == 0; }, kForEver);
  // A thread that ends the process inside a record of its own does not come back to it.
  const std::uint32_t others = openContent() != nullptr ? 0 : kRecord;
  const MonotonicTime deadline = ProcessExit::latestEnd();
  awaitLocked(
      guard, [&] { return (word & others) == 0; }, deadline);
  if (file != nullptr) {
    guard.unlock();
    file->finish(deadline);
    guard.lock();
  }
  awaitLocked(
      guard, [&] { return (word & (others | kWriting)) == 0; }, deadline);
  target = 0;
  return (word.fetch_or(kLeft) & kWriting) == 0;
}

// At the exit, for logs that nobody destroys. What is written later is written at once.
void VarnLogging::State::finishFiles() {
  std::vector<std::shared_ptr<LogFile>> files;
  {
    const std::lock_guard guard(m_oTables);
    for (const State* state = first(); state != nullptr; state = state->following()) {
      if (state->file != nullptr)
        files.push_back(state->file);
    }
  }
  const MonotonicTime deadline = ProcessExit::latestEnd();
  for (const std::shared_ptr<LogFile>& file : files)
    file->finish(deadline);
}

VarnLogging::State::Visit::Visit(const VarnLogging* log) {
  const std::lock_guard guard(m_oTables);
  State* state = first();
  while (state != nullptr && (state->owner != log || (state->word & kEnding) != 0))
    state = state->following();
  if (state != nullptr)
    ++state->visits;
  m_pState = state;
}

void VarnLogging::State::Visit::end() {
  State* const state = std::exchange(m_pState, nullptr);
  if (state == nullptr)
    return;
  const std::lock_guard guard(m_oTables);
  assert(state->visits > 0);
  --state->visits;
  m_oCleared.value.notify_all();
}

// Of threads that race one sets it.
void VarnLogging::State::makeValueLog() {
  if (m_pValueLog != nullptr)
    return;
  auto made = std::make_unique<VarnLogging>(std::string(), 0, kLevelOff);
  VarnLogging* none = nullptr;
  if (m_pValueLog.compare_exchange_strong(none, made.get()))
    static_cast<void>(made.release());
}

void VarnLogging::State::setFile(std::shared_ptr<LogFile> newFile) {
  assert(file == nullptr && target == 0);
  const std::lock_guard guard(m_oTables);
  file = std::move(newFile);
}

bool VarnLogging::State::reopenFile() {
  assert(owner != nullptr && file != nullptr);
  const FileChange change(*this);
  return file->open();
}

// Whoever is told that a log admits a level finds that log.
void VarnLogging::State::registerLocked(VarnLogging* log) {
  assert(log == nullptr || (log->m_pState != nullptr && m_pValueLog != nullptr));
  if (log == nullptr)
    m_nAdmittedLevel = kNoLog;
  m_pInstance.m_pLog = log;
  m_pRegistered = log != nullptr ? log->m_pState : nullptr;
  if (log != nullptr)
    publishLevelsLocked(*log);
}

// What callers ask without a lock.
void VarnLogging::State::publishLevelsLocked(const VarnLogging& log) {
  if (m_pInstance != &log)
    return;
  m_nRest = log.m_pState->rest.load();
  m_bThresholds = log.m_nThresholds > 0 || m_nRest != kNoRest;
  m_nAdmittedLevel = log.m_nLogLevel.load();
}

bool VarnLogging::State::isAboveThreshold(const std::string& component, int level) {
  const std::lock_guard guard(m_oTables);
  const VarnLogging* const log = m_pInstance;
  return log == nullptr || level > log->levelOfLocked(component);
}

// The global level decides first: it becomes the highest, and what has no level of its own gets a
// threshold in its place.
bool VarnLogging::State::applyLevels(int restLevel, std::map<std::string, std::int32_t>& levels) {
  const std::lock_guard guard(m_oTables);
  VarnLogging* const log = m_pInstance;
  if (log == nullptr)
    return false;
  State& state = *log->m_pState;
  if (restLevel == kNoRest)
    restLevel = std::min(state.rest.load(), log->m_nLogLevel.load());
  std::int32_t highest = restLevel;
  for (const auto& [component, level] : levels)
    highest = std::max(highest, level);
  state.rest = restLevel < highest ? restLevel : kNoRest;
  log->m_nLogLevel = highest;
  log->m_mapLevels.swap(levels);
  log->m_nThresholds = static_cast<std::int32_t>(log->m_mapLevels.size());
  publishLevelsLocked(*log);
  return true;
}

// Changes nothing but the end of the text when it throws.
bool VarnLogging::State::compose(RecordText& text, int level, const std::string& component) {
  assert(lock.lockCount() > 0);
  if (text.isEmpty())
    return false;
  const std::string_view label = component.empty() ? "Global" : std::string_view(component);
  text.finish(label);
  if (this == m_pRegistered && Observation::isWanted(level))
    Observation::note(level, component, text.text());
  if (level != 0)
    building->header.putBefore(text, level, label);
  else
    *text.extendFront(1) = '\n';
  text.append("\n");
  return true;
}

void VarnLogging::State::write(RecordText& line, int level, std::uint32_t bits) {
  {
    const NoCancellation whole;
    const int to = target.load(std::memory_order_relaxed);
    if ((to & kToFile) != 0 && file != nullptr) {
      file->take(line.text().substr(1), level);
    } else if ((to & kToFile) != 0 && beginWriting()) {
      if (descriptor >= 0)
        writeLine(descriptor, line.text(), torn);
      bits |= kWriting;
    }
    if ((to & kToStandardOutput) != 0) {
      // Whoever closes the file does not wait for standard output.
      if ((bits & kWriting) != 0)
        clear(kWriting);
      bits &= ~kWriting;
      writeLineToStandardOutput(line.text());
    }
  }
  line.clear();
  if (bits != 0)
    clear(bits);
}

void VarnLogging::State::writeAlone(std::string_view text, int level) {
  const CancellationGuard closed;
  lock.lock();
  try {
    RecordText line;
    line.append(text);
    if (compose(line, level, std::string()))
      write(line, level, 0);
  } catch (const std::bad_alloc&) {
    // It is left out.
  }
  lock.unlock();
  Observation::tell();
}

// The file's turn of a thread that is gone is over. Text that it was changing stays where it is.
void VarnLogging::State::renew() {
  const bool lockWasLost = BriefHold::renewIfLost(lock);
  if (file != nullptr)
    file->renew();
  word &= lock.lockCount() > 0 ? kRecord | kEnding | kLeft : kEnding | kLeft;
  visits = 0;
  waiters = 0;
  if (!lockWasLost)
    return;
  if (VarnLogging* const log = owner) {
    log->m_nCurrentLevel = kDefaultRecordLevel;
    std::construct_at(&log->m_sComponent);
  }
  keepForever(building.release());
  building = spare != nullptr ? std::move(spare) : std::make_unique<Building>();
}

// What a child needs is made before, as far as there is memory: in the child the heap may be locked
// for ever, by a thread that it has not.
void VarnLogging::State::prepareFork() {
  m_oTables.lock();
  Observation::prepareFork();
  try {
    for (State* state = first(); state != nullptr; state = state->following()) {
      if (state->spare == nullptr)
        state->spare = std::make_unique<Building>();
    }
  } catch (const std::bad_alloc&) {
  }
}

void VarnLogging::State::releaseFork(ForkSide side) {
  if (side == ForkSide::CHILD) {
    std::construct_at(&m_oCleared.value);
    for (State* state = first(); state != nullptr; state = state->following())
      state->renew();
  }
  Observation::releaseFork(side);
  m_oTables.unlock();
}

constinit const ForkPart logFork{&VarnLogging::State::prepareFork,
                                 &VarnLogging::State::releaseFork};

}  // namespace VarnSupport
