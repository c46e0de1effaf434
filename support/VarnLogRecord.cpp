// A VarnLogRecord collects its text in a place of its own, beside that of the older form, so that
// each is whole inside the other.
//
// A record that is open holds the record lock of its log, as one of the older form does from its
// first part to its end. A record that begins inside another one of the same thread gets memory of
// its own; the outermost uses the place that the log keeps, so that the usual record allocates
// nothing.
#include "VarnSupport/VarnLogRecord.h"

#include <cassert>
#include <memory>
#include <new>
#include <utility>

#include "log/LogState.h"
#include "log/Observation.h"
#include "runtime/Cancellation.h"

namespace VarnSupport {

constinit thread_local VarnLogRecord::Content* VarnLogRecord::Content::t_pInnermost = nullptr;

VarnLogRecord::VarnLogRecord(int level) {
  const CancellationGuard entry;  // a body may do nothing but suppressed records
  if (VarnLogging::admits(level))
    begin(std::string(), level);
}

VarnLogRecord::VarnLogRecord(const std::string& component, int level) {
  const CancellationGuard entry;
  if (VarnLogging::admits(level))
    begin(component, level);
}

// Cancellation stays closed while the record is open.
void VarnLogRecord::begin(const std::string& component, int level) {
  if (level < VarnLogging::State::kLevelOff)
    return;
  closeCancellation();
  if (!VarnLogging::State::isRejected(component, level))
    m_pContent = VarnLogging::State::begin(component, level);
  if (m_pContent != nullptr)
    m_pLog = VarnLogging::State::m_pValueLog.load(std::memory_order_relaxed);
  else
    openCancellation();
}

VarnLogRecord::~VarnLogRecord() {
  if (m_pContent == nullptr)
    return;
  {
    const QuietCancellationGuard whole;
    m_pContent->state->finish(*m_pContent);
  }
  openCancellation();
}

// A state is the registered one, or serves another log by now, or none: whoever has its record lock
// and has said so finds that out, as the end of a log begins with its registration.
VarnLogRecord::Content* VarnLogging::State::begin(const std::string& component, int level) {
  while (State* const state = m_pRegistered) {
    state->lock.lock();
    const bool isInner = (state->word.fetch_or(kRecord) & kRecord) != 0;
    const bool isRegistered = state == m_pRegistered;
    VarnLogRecord::Content* const content =
        isRegistered ? state->open(component, level, isInner) : nullptr;
    if (content != nullptr)
      return content;
    if (!isInner)
      state->clear(kRecord);
    state->lock.unlock();
    if (isRegistered)
      return nullptr;
  }
  return nullptr;
}

VarnLogRecord::Content* VarnLogging::State::open(const std::string& component, int level,
                                                 bool isInner) {
  assert(lock.lockCount() > 0 && (word & kRecord) != 0);
  VarnLogRecord::Content* content = &building->content;
  try {
    std::unique_ptr<VarnLogRecord::Content> inner;
    if (isInner) {
      inner = std::make_unique<VarnLogRecord::Content>();
      content = inner.get();
    }
    content->component = component;
    static_cast<void>(inner.release());
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
  content->state = this;
  content->level = level;
  content->holds = lock.lockCount();
  content->outer = std::exchange(VarnLogRecord::Content::t_pInnermost, content);
  t_pValueOf = nullptr;  // a thread that was killed may have left its value out
  return content;
}

// Without memory the record is left out.
void VarnLogging::State::finish(VarnLogRecord::Content& content) {
  assert(lock.lockCount() >= content.holds && &content == VarnLogRecord::Content::t_pInnermost);
  if (content.hasAside && (word & kLeft) == 0)
    bringBack(content);
  // What was rejected waits for a record that stands in no other.
  const bool isLed = content.holds == 1 && !building->older.isEmpty();
  bool passes = false;
  try {
    if (isLed)
      content.text.lead(building->older.text());
    passes = compose(content.text, content.level, content.component);
  } catch (const std::bad_alloc&) {
    content.text.clear();
  }
  if (passes && isLed)
    building->older.clear();
  VarnLogRecord::Content::t_pInnermost = content.outer;
  const bool isInner = &content != &building->content;
  if (passes)
    write(content.text, content.level, isInner ? 0 : kRecord);
  else if (!isInner)
    clear(kRecord);
  if (isInner)
    delete &content;
  lock.unlock();
  Observation::tell();
}

VarnLogRecord::Content* VarnLogging::State::openContent() const {
  VarnLogRecord::Content* content = VarnLogRecord::Content::t_pInnermost;
  while (content != nullptr && content->state != this)
    content = content->outer;
  return content;
}

void VarnLogging::State::setAside(VarnLogging& log) {
  VarnLogRecord::Content* const content = openContent();
  if (content == nullptr || content->hasAside)
    return;
  content->hasAside = true;
  std::swap(content->aside.text, building->older);
  content->aside.component.swap(log.m_sComponent);
  content->aside.level = std::exchange(log.m_nCurrentLevel, kDefaultRecordLevel);
}

// What a threshold rejected meanwhile leads the next record that passes, as always.
void VarnLogging::State::bringBack(VarnLogRecord::Content& content) {
  assert(owner != nullptr && content.hasAside);
  VarnLogging& log = *owner;
  if (lock.lockCount() > content.holds)
    endOlder(log);
  OlderRecord& aside = content.aside;
  std::swap(building->older, aside.text);
  try {
    building->older.append(aside.text.text());
  } catch (const std::bad_alloc&) {
    // It is lost then.
  }
  aside.text.clear();
  log.m_sComponent.swap(aside.component);
  aside.component.clear();
  log.m_nCurrentLevel = aside.level;
  content.hasAside = false;
}

}  // namespace VarnSupport
