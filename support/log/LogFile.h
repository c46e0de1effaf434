// What a VarnLogFile has behind its state: the file, which keeps its name, and the records that are
// on their way there or were lost.
//
// Whoever has the state's turn at the file (kWriting, kChanging) uses the descriptor. Without a
// queue that is who writes a record. With one a record is pushed under the mutex, which is held for
// a moment, and a thread takes the turn now and then, exchanges the two blocks, and writes what is
// in the full one, many records by one call. It starts with the first record, again after a pause
// or a fork, and ends when there is nothing to do: a process may end by its main thread's
// pthread_exit(). A record of level 1 does not wait for it: its own thread takes the turn.
//
// The descriptor is exchanged under the tables of the logs, which a fork holds: a file is opened
// before and closed after. So the number that a child finds is always that of a file which is open
// there, whatever the system copies first, and no fork waits for a file.
//
// The file belongs to the state and to its thread in common, so that a thread which is stuck in a
// write may come back when the log is gone.
#ifndef SUPPORT_LOG_LOGFILE_H
#define SUPPORT_LOG_LOGFILE_H

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "VarnSupport/VarnLogObserver.h"
#include "log/LogHeader.h"
#include "log/LogTurns.h"
#include "log/RecordBlock.h"
#include "runtime/System.h"

namespace VarnSupport {

class LogFile : public std::enable_shared_from_this<LogFile> {
 public:
  // The level of records that do not wait.
  static constexpr int kFailures = 1;

  // An empty name is standard error. Without `queueBytes` there is no queue.
  LogFile(LogTurns& turns, const std::string& name, std::size_t queueBytes);
  LogFile(const LogFile&) = delete;
  LogFile& operator=(const LogFile&) = delete;
  ~LogFile();

  // Opens the file anew; false, and the old one stays in force, when that cannot be done.
  // Requires: the caller has the turn at the file.
  bool open();
  // Requires: the same.
  void close();
  bool isOpen() const { return m_nDescriptor >= 0; }

  // Brings a record, which ends with a line feed, on its way, or counts it as lost.
  // Requires: the caller has the record lock of the state.
  void take(std::string_view record, int level);
  // Returns when all records that were taken are written.
  void flush();
  // Ends the thread, when all is written, or gives up at the deadline. From then on each record is
  // written at once.
  void finish(MonotonicTime deadline);
  // In the child of a fork: the records that wait are the parent's.
  void renew();

  // How the file's own records are written, in place of the form of all logs.
  using Form = std::string (*)(const VarnLogEntry& entry);
  void setForm(Form form) { m_pForm = form; }
  // A record of the file's own in that form, without a line feed; empty if there is none.
  std::string inOwnForm(const std::string& text) const;

  const std::string& name() const { return m_sName; }
  std::uint64_t lostCount() const { return m_nLost; }
  std::string lastError() const;

 private:
  struct Queue {
    explicit Queue(std::size_t capacity) : blocks{RecordBlock(capacity), RecordBlock(capacity)} {}

    std::array<RecordBlock, 2> blocks;
    std::size_t filling = 0;     // which of them; the other belongs to the turn
    std::uint64_t rejected = 0;  // records, since the exchange, that there was no room for
  };

  bool push(std::string_view record);
  bool hasThreadLocked();
  void run();
  bool writeInTurn(std::string_view record);

  // For whoever has the turn.
  void replace(int descriptor, bool isTorn);
  void writeQueued();
  void write(const std::string_view* records, std::size_t count);
  std::size_t writeSome(const std::string_view* records, std::size_t count);
  bool tellOfLost();
  std::string lineOf(const std::string& text);
  std::string_view withPriority(std::string_view record, int level, std::string& place) const;

  LogTurns& m_oTurns;
  const std::string m_sName;
  const std::unique_ptr<Queue> m_pQueue;  // guarded by the mutex, but for the block of the turn
  std::atomic<std::uint64_t> m_nLost{0};
  std::atomic<int> m_nError{0};  // of the last failure; kNotForRecords, or an errno
  std::atomic<Form> m_pForm{nullptr};
  std::atomic<bool> m_bJournal{false};
  std::atomic<bool> m_bAbandoned{false};
  std::string m_sRecord;  // with priorities; guarded by the record lock

  // For whoever has the turn.
  std::atomic<int> m_nDescriptor{-1};
  bool m_bTorn = false;
  bool m_bMayRaise = true;  // a signal, by a write
  unsigned m_nWrites = 0;
  std::uint64_t m_nUntold = 0;  // records that were lost since they were last told of
  LogHeader m_oHeader;

  std::mutex m_oMutex;
  std::condition_variable m_oWake;
  std::condition_variable m_oEnded;
  // Guarded by the mutex.
  bool m_bRunning = false;
  bool m_bUrgent = false;
  bool m_bFinished = false;
};

}  // namespace VarnSupport

#endif
