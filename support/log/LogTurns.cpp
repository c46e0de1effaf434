// A turn that nobody else wants costs one exchange of the word. Who finds it taken notes in the
// word that somebody waits, and sleeps on a condition that all logs share; who clears a bit wakes
// for that note alone. A condition of each log's own would have to outlive its waiters.
#include "log/LogTurns.h"

#include <cassert>

namespace VarnSupport {

constinit std::mutex LogTurns::m_oTables;
NeverDestroyed<std::condition_variable> LogTurns::m_oCleared;
constinit LogTurns* LogTurns::m_pFirst = nullptr;

LogTurns::FileChange::FileChange(LogTurns& turns) : m_oTurns(turns) {
  const auto begin = [&] { return turns.trySet(kChanging, kChanging | kWriting); };
  if (begin())
    return;
  std::unique_lock guard(m_oTables);
  turns.awaitLocked(guard, begin, kForEver);
}

// Ends its wait when the log goes, too: whoever waits for a turn at a log that is destroyed gets
// none.
bool LogTurns::beginWriting() {
  bool hasBegun = false;
  const auto begin = [&] {
    hasBegun = trySet(kWriting, kWriting | kChanging | kLeft);
    return hasBegun || (word & kLeft) != 0;
  };
  if (begin())
    return hasBegun;
  std::unique_lock guard(m_oTables);
  awaitLocked(guard, begin, kForEver);
  return hasBegun;
}

bool LogTurns::trySet(std::uint32_t bit, std::uint32_t excluded) {
  assert((excluded & bit) != 0);
  std::uint32_t seen = word.load(std::memory_order_relaxed);
  do {
    if ((seen & excluded) != 0)
      return false;
  } while (!word.compare_exchange_weak(seen, seen | bit));
  return true;
}

void LogTurns::wakeWaiters() {
  const std::lock_guard guard(m_oTables);
  m_oCleared.value.notify_all();
}

}  // namespace VarnSupport
