// What a log needs beyond the fields of its class, and what all logs of the process share.
//
// The idea: a state outlives its log. It is handed to a later log and never freed. So a thread may
// wait for the record lock of a log, or for a disk or a pipe, while the log is destroyed: what it
// does afterwards concerns the state alone, which says that the log is gone. That spares records a
// lock around the registration, and lets a process end whose log is stuck in a write.
//
// The invariant: once a VarnLogRecord has begun it touches the state and not the log, and so does
// whoever is inside a write. The log itself is touched by the older form, whose callers must not
// outlive it, and by flush threads, whose visits the destructor waits for: these are short.
//
// Locks, in the order in which they are taken:
//   the record lock of a log   while a record is built and written, across calls of user code
//   the list of timers         as the first value of the older form starts the idle timer
//   kWriting, kChanging        bits of the state's word: the file is written to, opened or closed
//   the tables                 the registration, the states, the components' levels of all logs
// The tables are never locked across a call that can block. A fork takes them and nothing else of
// the log: what a thread of the parent was building or writing is dropped in the child, and a file
// that one was opening or closing is open there if its number is known.
#ifndef SUPPORT_LOG_LOGSTATE_H
#define SUPPORT_LOG_LOGSTATE_H

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "VarnSupport/VarnLogging.h"
#include "log/LogFile.h"
#include "log/LogHeader.h"
#include "log/LogTurns.h"
#include "log/RecordText.h"
#include "runtime/Fork.h"
#include "runtime/System.h"

namespace VarnSupport {

// What the older form has under way.
struct OlderRecord {
  RecordText text;
  std::string component;
  std::int32_t level = 9;
};

// What an open VarnLogRecord has collected. Used by the thread that holds the record lock.
struct VSUPT_LOCAL VarnLogRecord::Content {
  // The innermost record that the calling thread has open.
  static constinit thread_local Content* t_pInnermost;

  VarnLogging::State* state = nullptr;
  RecordText text;
  std::string component;
  std::int32_t level = 0;
  int holds = 0;  // how often its thread had the record lock when it began, itself included
  Content* outer = nullptr;  // the record of the same thread that it stands in
  // What the older form had under way outside, while it is used inside.
  bool hasAside = false;
  OlderRecord aside;
};

struct VSUPT_LOCAL VarnLogging::State : LogTurns {
  static constexpr long kIdleMilliseconds = 60000;
  static constexpr int kLevelOff = -1;
  static constexpr int kHighestLevel = 9;
  static constexpr std::int32_t kNoRest = 100;

  // What records are built in. When a fork leaves behind the thread that was at it, the child takes
  // a new one.
  struct Building {
    RecordText older;       // the text of the older form, and what a threshold has rejected
    bool silenced = false;  // no text is taken any more
    VarnLogRecord::Content content;  // of a VarnLogRecord that stands in no other
    LogHeader header;
  };

  // Keeps a log from being destroyed, for a moment.
  class Visit {
   public:
    explicit Visit(const VarnLogging* log);
    Visit(const Visit&) = delete;
    Visit& operator=(const Visit&) = delete;
    ~Visit() { end(); }

    // Null when the log is being destroyed, or is gone.
    State* state() const { return m_pState; }
    void end();

   private:
    State* m_pState = nullptr;
  };

  struct Detach {
    void operator()(State* state) const { state->detach(); }
  };
  using Owner = std::unique_ptr<State, Detach>;

  static State* first() { return static_cast<State*>(m_pFirst); }
  State* following() const { return static_cast<State*>(next); }
  static State& of(const VarnLogging& log) { return *log.m_pState; }

  // The state of a new log, to which it belongs until detach().
  static Owner attachTo(VarnLogging& log);
  void detach();
  // Waits for those who use the log, no longer than a few seconds for what may take for ever. From
  // then on nobody uses it. False when its file is still being written to.
  bool awaitUsers();

  // What VarnLogFiles have not written yet is written, within a few seconds.
  static void finishFiles();

  // Sees that there is a log which is never destroyed: the values of every VarnLogRecord go through
  // it, as their own log may be gone.
  static void makeValueLog();
  // Registers a log, or null. Requires: the tables are locked, here and where a name says so.
  static void registerLocked(VarnLogging* log);
  static void publishLevelsLocked(const VarnLogging& log);
  // Whether the registered log rejects the level by the threshold of a component, or of what has
  // none of its own.
  static bool isRejected(const std::string& component, int level) {
    if (!m_bThresholds.load(std::memory_order_relaxed) || level == 0)
      return false;
    return component.empty() ? level > m_nRest.load(std::memory_order_relaxed)
                             : isAboveThreshold(component, level);
  }
  static bool isAboveThreshold(const std::string& component, int level);
  // Replaces all thresholds of the registered log; with `rest`, which may be kNoRest, that of what
  // has none of its own. False without a log.
  static bool applyLevels(int rest, std::map<std::string, std::int32_t>& levels);

  // Begins a VarnLogRecord of the registered log; null without a log, or without memory.
  static VarnLogRecord::Content* begin(const std::string& component, int level) VSUPT_UNCHECKED;
  VarnLogRecord::Content* open(const std::string& component, int level, bool isInner);
  void finish(VarnLogRecord::Content& content) VSUPT_UNCHECKED;
  // The innermost VarnLogRecord of this log that the calling thread has open, or null.
  VarnLogRecord::Content* openContent() const;

  // The older form stands aside, with what it has under way, while it is used inside a
  // VarnLogRecord, and comes back when that ends.
  void setAside(VarnLogging& log) VSUPT_UNCHECKED;
  void bringBack(VarnLogRecord::Content& content) VSUPT_UNCHECKED;
  // What endrecord() does once it has the record lock. Ends the visit before it writes.
  void endOlder(VarnLogging& log, Visit* visit = nullptr) VSUPT_UNCHECKED;
  bool composeOlder(VarnLogging& log) VSUPT_UNCHECKED;
  // What timerElapsed() does, for a log that may be gone.
  static void flush(VarnLogging* log) VSUPT_UNCHECKED;
  void noteExpiry(VarnLogging* log) VSUPT_UNCHECKED;

  void append(RecordText& text, std::string_view value);
  // Makes the line of a record; false for one without text.
  bool compose(RecordText& text, int level, const std::string& component);
  // Writes the line and empties the text, then clears `bits`.
  void write(RecordText& line, int level, std::uint32_t bits);
  // Writes a whole line: with a header unless the level is 0.
  void writeAlone(std::string_view text, int level) VSUPT_UNCHECKED;
  // Gives the log the file that it writes to under one name. Requires: it has none, and no target.
  void setFile(std::shared_ptr<LogFile> newFile);
  // Opens that file again; false when the old one stays.
  bool reopenFile();
  // Closes the file of the log. Requires: nobody else uses it.
  void closeFile(VarnLogging& log);
  // Makes a state that has no log as good as new, if nobody is at it. The file that it had is in
  // `unused` then.
  bool resetLocked(std::shared_ptr<LogFile>& unused);

  static void prepareFork() VSUPT_UNCHECKED;
  static void releaseFork(ForkSide side) VSUPT_UNCHECKED;
  // Makes what other threads held or changed anew, in the child of a fork.
  void renew() VSUPT_UNCHECKED;

  static constinit std::atomic<VarnLogging*> m_pValueLog;
  // Of the registered log.
  static constinit std::atomic<State*> m_pRegistered;
  static constinit std::atomic<bool> m_bThresholds;
  static constinit std::atomic<std::int32_t> m_nRest;
  // Set by getLogAccess() for the value that follows.
  static constinit thread_local State* t_pValueOf;

  std::unique_ptr<Building> building = std::make_unique<Building>();  // guarded by `lock`
  std::unique_ptr<Building> spare;  // for a child, made before the fork
  std::atomic<std::int32_t> target{0};
  // The level of what has no threshold of its own; at kNoRest the log's.
  std::atomic<std::int32_t> rest{kNoRest};
  // Of a VarnLogFile, in place of the descriptor; fixed while the log is there.
  std::shared_ptr<LogFile> file;
  // Used by whoever has kWriting or kChanging. The descriptor changes under the tables, as that of
  // a LogFile does.
  int descriptor = -1;
  bool torn = false;
  // Guarded by the tables.
  std::atomic<VarnLogging*> owner{nullptr};
  int visits = 0;
};

}  // namespace VarnSupport

#endif
