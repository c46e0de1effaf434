// Observers are called one at a time, each found anew under the tables by its number, as any of
// them may go or come while another is called. What a thread has noted and may not tell yet,
// because it holds the record lock of a log, waits in one list for all threads; entries of threads
// that a fork has left behind stay there for ever in the child, where nobody asks for them.
#include "log/Observation.h"

#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <chrono>
#include <iterator>
#include <list>
#include <mutex>
#include <new>
#include <optional>
#include <utility>
#include <vector>

#include "locks/BriefHold.h"
#include "log/LogTurns.h"
#include "runtime/CallUnderWay.h"
#include "runtime/Cancellation.h"
#include "runtime/NeverDestroyed.h"
#include "runtime/SystemThreads.h"
#include "runtime/ThreadScope.h"

namespace VarnSupport {

struct Observation::Noted {
  VarnLogEntry entry;
  std::string component;
  std::string text;
  std::string threadName;
  pthread_t thread = pthread_self();
  // Another number is of a vanished thread, or of a time before the fork: for the parent to tell.
  std::uint32_t forks = g_nForks;
};

namespace {

using Call = CallUnderWay<const Observation::Observer*>;

// An observer that the calling thread is inside a call of: it is not told of records that its own
// function writes, on any level of calls.
struct Inside : ThreadScopeOf<Inside> {
  explicit Inside(const Observation::Observer* which) : observer(which) {}

  static bool of(const Observation::Observer* observer) {
    const Inside* scope = innermost();
    while (scope != nullptr && scope->observer != observer)
      scope = scope->outer();
    return scope != nullptr;
  }

  const Observation::Observer* const observer;
};

// Guarded by the tables of the logs.
NeverDestroyed<std::vector<std::shared_ptr<Observation::Observer>>> observers;
NeverDestroyed<std::list<Observation::Noted>> noted;
constinit std::uint64_t newest = 0;

bool isRecordLockHeldLocked() {
  const LogTurns* log = LogTurns::m_pFirst;
  while (log != nullptr && !BriefHold::isHeldByCaller(log->lock))
    log = log->next;
  return log != nullptr;
}

// What the calling thread has noted since the last fork. What it noted before is dropped.
// Entries go over without being copied: nothing is allocated under the tables.
std::list<Observation::Noted> takeOwnLocked() {
  std::list<Observation::Noted> own;
  const pthread_t self = pthread_self();
  for (auto entry = noted.value.begin(); entry != noted.value.end();) {
    const auto next = std::next(entry);
    if (pthread_equal(entry->thread, self) != 0)
      own.splice(own.end(), noted.value, entry);
    entry = next;
  }
  own.remove_if([](const Observation::Noted& entry) { return entry.forks != g_nForks; });
  return own;
}

}  // namespace

constinit std::atomic<int> Observation::m_nLevel{kNobody};
constinit std::atomic<int> Observation::m_nNoted{0};

void Observation::publishLevelLocked() {
  int level = kNobody;
  for (const auto& observer : observers.value)
    level = std::max(level, observer->level);
  m_nLevel = level;
}

void Observation::add(std::shared_ptr<Observer> observer) {
  assert(observer != nullptr);
  const std::lock_guard guard(LogTurns::m_oTables);
  observer->number = ++newest;
  observers.value.push_back(std::move(observer));
  publishLevelLocked();
}

void Observation::remove(const Observer* observer) {
  std::shared_ptr<Observer> last;
  {
    const std::lock_guard guard(LogTurns::m_oTables);
    auto& all = observers.value;
    const auto found = std::find_if(all.begin(), all.end(),
                                    [&](const auto& entry) { return entry.get() == observer; });
    assert(found != all.end());
    last = std::move(*found);
    all.erase(found);
    publishLevelLocked();
  }
  Call::await(observer);
}

// The views of an entry are of the texts beside it, which stay where they are while it goes from
// list to list. Without memory the observers miss a record.
void Observation::note(int level, std::string_view component, std::string_view text) {
  try {
    std::list<Noted> made(1);
    Noted& record = made.front();
    record.component = component;
    record.text = text;
    record.threadName = nameOfThread();
    record.entry = {std::chrono::system_clock::now(),
                    level,
                    record.component,
                    record.text,
                    record.threadName,
                    gettid()};
    const std::lock_guard guard(LogTurns::m_oTables);
    noted.value.splice(noted.value.end(), made);
    m_nNoted = static_cast<int>(noted.value.size());
  } catch (const std::bad_alloc&) {
  }
}

void Observation::tellNoted() {
  std::list<Noted> own;
  {
    const std::lock_guard guard(LogTurns::m_oTables);
    if (isRecordLockHeldLocked())
      return;
    own = takeOwnLocked();
    m_nNoted = static_cast<int>(noted.value.size());
  }
  for (const Noted& record : own)
    tellAll(record.entry);
}

// A call is noted before the tables are free again, so that whoever removes the observer waits for
// it. The function goes before the call ends, as it may hold what its owner destroys then.
void Observation::tellAll(const VarnLogEntry& entry) {
  std::uint64_t told = 0;
  while (true) {
    std::optional<Call> call;
    std::shared_ptr<Observer> observer;
    {
      const std::lock_guard guard(LogTurns::m_oTables);
      const auto& all = observers.value;
      const auto behind = std::upper_bound(
          all.begin(), all.end(), told,
          [](std::uint64_t number, const auto& other) { return number < other->number; });
      const auto next = std::find_if(behind, all.end(), [&](const auto& candidate) {
        return candidate->level >= entry.level && !Inside::of(candidate.get());
      });
      if (next == all.end())
        return;
      observer = *next;
      call.emplace(observer.get());
    }
    told = observer->number;
    const Inside inside(observer.get());
    const NoCancellation whole;
    try {
      observer->function(entry);
    } catch (...) {
      passOnCancellation();
    }
  }
}

void Observation::prepareFork() { Call::lockList(); }

void Observation::releaseFork(ForkSide side) {
  if (side == ForkSide::CHILD)
    Call::forgetLost();
  Call::unlockList();
}

}  // namespace VarnSupport
