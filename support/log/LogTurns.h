// Who is at a log: its record lock, and turns at its file, as bits of one word. A bit is set by
// whoever begins and cleared by whoever ends, without a lock unless somebody waits. Nothing here
// knows of records, files or the log itself.
#ifndef SUPPORT_LOG_LOGTURNS_H
#define SUPPORT_LOG_LOGTURNS_H

#include <atomic>
#include <cassert>
#include <condition_variable>
#include <cstdint>
#include <mutex>

#include "VarnSupport/VarnCriticalSection.h"
#include "runtime/Cancellation.h"
#include "runtime/NeverDestroyed.h"
#include "runtime/System.h"

namespace VarnSupport {

// Is never destroyed: it serves another log when its own is gone.
struct LogTurns {
  // Bits of the word.
  static constexpr std::uint32_t kRecord = 1;    // a VarnLogRecord is open
  static constexpr std::uint32_t kWriting = 2;   // a record is being written to the file
  static constexpr std::uint32_t kChanging = 4;  // the file is being opened or closed
  static constexpr std::uint32_t kEnding = 8;    // the log is being destroyed, or is gone
  static constexpr std::uint32_t kLeft = 16;     // the log is gone
  static constexpr std::uint32_t kAwaited = 32;  // a thread waits for another bit to go

  static constexpr MonotonicTime kForEver = MonotonicTime::max();

  // Has the file for itself: no record is written to it, and nobody else opens or closes it. The
  // thread is not cancelled meanwhile, whoever runs it.
  class FileChange {
   public:
    explicit FileChange(LogTurns& turns);
    FileChange(const FileChange&) = delete;
    FileChange& operator=(const FileChange&) = delete;
    ~FileChange() { m_oTurns.clear(kChanging); }

   private:
    const NoCancellation m_oWhole;
    LogTurns& m_oTurns;
  };

  LogTurns() { lock.init(); }
  LogTurns(const LogTurns&) = delete;
  LogTurns& operator=(const LogTurns&) = delete;

  // Takes kWriting, which others may have or wait for. False when the log is gone.
  bool beginWriting();

  // Sets the bit unless one of `excluded` is set.
  bool trySet(std::uint32_t bit, std::uint32_t excluded);
  // Clears the bits. The word may serve another log at once, so this does not look at it again.
  void clear(std::uint32_t bits) {
    assert((word & bits) == bits);
    if ((word.fetch_and(~bits) & kAwaited) != 0)
      wakeWaiters();
  }
  static void wakeWaiters();
  // Waits until `condition` holds, or `deadline` has passed. Requires: `guard` holds the tables.
  template <typename Condition>
  void awaitLocked(std::unique_lock<std::mutex>& guard, Condition condition,
                   MonotonicTime deadline) {
    assert(guard.owns_lock() && guard.mutex() == &m_oTables);
    const NoCancellation whole;
    ++waiters;
    word |= kAwaited;
    m_oCleared.value.wait_until(guard, deadline, condition);
    if (--waiters == 0)
      word &= ~kAwaited;
  }

  static constinit std::mutex m_oTables;
  // Waited for under the tables, by whoever has set kAwaited.
  static NeverDestroyed<std::condition_variable> m_oCleared;
  static constinit LogTurns* m_pFirst;  // of all

  VarnCriticalSectionObject lock;  // of records, shared with the log
  std::atomic<std::uint32_t> word{0};
  // Guarded by the tables.
  int waiters = 0;
  LogTurns* next = nullptr;
};

}  // namespace VarnSupport

#endif
