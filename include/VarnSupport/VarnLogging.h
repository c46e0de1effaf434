// The process-wide log: levelled records, per-component thresholds, a file and standard output.
//
// An application makes one VarnLogging, registers it with setInstance() and streams records into
// it:
//
//   if (VarnLogging::admits(5))
//     VarnLogRecord(5) << "Worker::run: started " << count << " jobs";
//
// A VarnLogRecord is whole: no other thread's values come between. The older form streams
// setloglevel(), values and endrecord into the log itself; there level and component belong to the
// log, not to the thread, and setloglevel() holds the record lock only while it runs. Inside a
// VarnLogRecord of the same thread the older form makes a record of its own.
//
// Levels: -1 off, 1 failures, 5 notable events, 9 tracing; level 0 is written without a header and
// past any component's threshold. Any thread may log. No operation throws for what happens to the
// file, and write errors are not reported; a record that a target took in part is followed by a
// line feed. A target that does not take its data holds up the records of that log, and nothing
// else.
#ifndef VARNSUPPORT_VARNLOGGING_H
#define VARNSUPPORT_VARNLOGGING_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <map>
#include <memory>
#include <string>

#include "VarnSupport/VarnCollaborator.h"
#include "VarnSupport/VarnCriticalSection.h"
#include "VarnSupport/VarnExport.h"
#include "VarnSupport/VarnStringUtilities.h"
#include "VarnSupport/VarnThread.h"
#include "VarnSupport/VarnTimer.h"

namespace VarnSupport {

class VSUPT_EXPORT VarnLogging : public VarnDependent {
 public:
  // Bits of a target.
  static constexpr int kToFile = 1;
  static constexpr int kToStandardOutput = 2;

  // The place of the registered log, used like an atomic pointer. A store into it registers, null
  // registers none.
  class VSUPT_EXPORT Registration {
   public:
    constexpr Registration() = default;
    Registration(const Registration&) = delete;
    Registration& operator=(const Registration&) = delete;

    VarnLogging* operator=(VarnLogging* log);
    void store(VarnLogging* log) { *this = log; }
    VarnLogging* load() const { return m_pLog.load(std::memory_order_acquire); }
    operator VarnLogging*() const { return load(); }
    VarnLogging* operator->() const { return load(); }

   private:
    friend class VarnLogging;

    std::atomic<VarnLogging*> m_pLog{nullptr};
  };

  // Registers the log of the process, which must outlive its use.
  static void setInstance(VarnLogging& log);
  // The registered log, or null.
  VSUPT_EXPORT static VarnLogging* getInstance() { return m_pInstance; }
  // True when a log is registered and its global level is 0 or more.
  static bool isAccessAllowed() { return admits(0); }
  // True when a log is registered and its global level is at least `level`: one load and a compare.
  static bool admits(int level) {
    return m_nAdmittedLevel.load(std::memory_order_relaxed) >= level;
  }
  // The same for records of a component, whose own level, or that of all others if it is empty or
  // has none, must admit them as well.
  static bool admits(const std::string& component, int level);

  // To standard output, level -1, base name "log".
  VarnLogging();
  // The file's name is `fileName` up to its last ".", then a number by rand(), then ".log"; a
  // leading double quote is dropped. The file is made anew whenever it is opened.
  VarnLogging(const std::string& fileName, int target, int level);
  VarnLogging(const VarnLogging&) = delete;
  VarnLogging& operator=(const VarnLogging&) = delete;
  // Waits for a VarnLogRecord that is open, and for the file to take what is being written, but no
  // longer than a few seconds: such a record is left out, such a file left open.
  // Requires: no other thread uses the log, but through VarnLogRecord.
  ~VarnLogging() override;

  // Flushes a record that was begun and never ended, on a thread of its own.
  void handleNotification(VarnCollaborator& source, const VarnNotification& notification) override;
  // Opens the file if the target has it.
  virtual void startLogging();
  // Closes the file if the current target has it and `newTarget` has not.
  virtual void stopLogging(int newTarget);

  // Changes the target, calling stopLogging(target) and startLogging(); the same one changes
  // nothing.
  void setTarget(int target);
  int getTarget() const { return m_nTarget.load(std::memory_order_relaxed); }
  // Opens the file unless it is open, and says so on standard error. Without a file its records are
  // skipped. Its descriptor is never that of a standard stream.
  void openLogFile();
  // False after an open that failed, too. Never waits.
  bool isFileOpen() const;

  // The global level. Values outside -1 to 9 are ignored.
  int getLogLevel() const { return m_nLogLevel.load(std::memory_order_relaxed); }
  void setLogLevel(int level);
  // A component's threshold: it can suppress records, not let more pass than the global level does.
  // It applies when a VarnLogRecord begins, and when a record of the older form ends. Without one
  // the global level is returned. Neither waits for an open record.
  int getLogLevel(const std::string& component) const;
  void setLogLevel(const std::string& component, int level);
  // The level, and component, of the record being built; a level below -1 changes neither. Waits
  // while another thread has a record open.
  void setCurrentLevel(const std::string& component, int level);
  void setCurrentLevel(int level);

  VarnLogging& operator<<(VarnLogging& (*manipulator)(VarnLogging&)) { return manipulator(*this); }
  // Each value that the global level admits takes one hold of the record lock, until the record
  // ends. A null character pointer sets the record stream's bad state: all later text is dropped.
  VarnLogging& operator<<(const std::string& value) { return stream(value); }
  VarnLogging& operator<<(const ci_string& value) { return stream(value); }
  VarnLogging& operator<<(const std::wstring& value) { return stream(value); }
  VarnLogging& operator<<(const ci_wstring& value) { return stream(value); }
  VarnLogging& operator<<(bool value) { return stream(value); }
  VarnLogging& operator<<(long value) { return stream(value); }
  VarnLogging& operator<<(unsigned long value) { return stream(value); }
  VarnLogging& operator<<(int value) { return stream(value); }
  VarnLogging& operator<<(short value) { return stream(value); }
  VarnLogging& operator<<(unsigned int value) { return stream(value); }
  VarnLogging& operator<<(unsigned short value) { return stream(value); }
  VarnLogging& operator<<(char value) { return stream(value); }
  VarnLogging& operator<<(const void* value) { return stream(value); }
  VarnLogging& operator<<(double value) { return stream(value); }
  VarnLogging& operator<<(float value) { return stream(value); }
  VarnLogging& operator<<(const char* value) { return stream(value); }

  // Takes the record lock; true, keeping it, when the global level admits the current level.
  bool getLogAccess() VSUPT_UNCHECKED;
  // Writes the record, if its level passes, and gives up all the caller's holds of the record lock,
  // but for those of a VarnLogRecord. Text that a component's threshold rejects leads the next
  // record that passes. Does nothing while another thread has a record open.
  void endrecord() VSUPT_UNCHECKED;
  // The idle timer, which runs while a record is open.
  void cancelTimer();
  void resetTimer();
  void timerElapsed();

  static Registration m_pInstance;

  struct State;  // of the library itself

 private:
  friend class VarnLogRecord;
  friend class VarnLoggingEventTimerThread;
  friend class OwnRecords;

  template <typename T>
  VarnLogging& stream(const T& value) {
    if (getLogAccess())
      put(value);
    return *this;
  }
  // Requires: the record lock is held.
  void put(const std::string& value);
  void put(const ci_string& value);
  void put(const std::wstring& value);
  void put(const ci_wstring& value);
  void put(bool value);
  void put(long value);
  void put(unsigned long value);
  void put(int value);
  void put(short value);
  void put(unsigned int value);
  void put(unsigned short value);
  void put(char value);
  void put(const void* value);
  void put(double value);
  void put(float value);
  void put(const char* value) VSUPT_UNCHECKED;
  template <typename T>
  void putNumber(T value);
  void append(const char* text, std::size_t length);

  int levelOfLocked(const std::string& component) const;
  VSUPT_LOCAL int restLevel() const;
  static bool isRecordOpenOnThisThread() VSUPT_UNCHECKED;

  static constexpr int kDefaultRecordLevel = 9;
  static std::atomic<int> m_nAdmittedLevel;

  std::atomic<std::int32_t> m_nTarget;
  std::atomic<std::int32_t> m_nLogLevel;
  std::string m_sComponent VSUPT_GUARDED_BY(m_oRecordLock);
  std::int32_t m_nCurrentLevel VSUPT_GUARDED_BY(m_oRecordLock) = kDefaultRecordLevel;
  State* m_pState = nullptr;     // fixed after construction
  std::FILE* m_pFile = nullptr;  // changed and used in turns that the state gives
  VarnCriticalSectionObject m_oRecordLock;
  VarnTimer m_oIdleTimer;
  std::map<std::string, std::int32_t> m_mapLevels;  // guarded by the lock of the tables
  std::string m_sBaseName;                          // fixed after construction
  bool m_bHeader = true;                            // fixed after construction
  std::atomic<bool> m_bTimerStopped{true};
  std::atomic<bool> m_bFileOpen{false};
  std::atomic<std::int32_t> m_nThresholds{0};  // how many m_mapLevels has
};

// Sets level and component of the next record; what setloglevel() makes.
class VSUPT_EXPORT VarnSetLogLevelManipulator {
 public:
  using Function = VarnLogging& (*)(VarnLogging&, const std::string&, int);

  VarnSetLogLevelManipulator(Function function, const std::string& component, int level)
      : m_pFunction(function), m_sComponent(component), m_nLevel(level) {}

  VarnLogging& apply(VarnLogging& log) const { return m_pFunction(log, m_sComponent, m_nLevel); }

 private:
  Function m_pFunction;
  std::string m_sComponent;
  std::int32_t m_nLevel;
};

VSUPT_EXPORT VarnLogging& operator<<(VarnLogging& log,
                                     const VarnSetLogLevelManipulator& manipulator);
VSUPT_EXPORT VarnSetLogLevelManipulator setloglevel(int level);
VSUPT_EXPORT VarnSetLogLevelManipulator setloglevel(const std::string& component, int level);
VSUPT_EXPORT VarnLogging& __setloglevel(VarnLogging& log, const std::string& component, int level);
VSUPT_EXPORT VarnLogging& endrecord(VarnLogging& log);

// Runs the log's timerElapsed() and deletes itself.
class VSUPT_EXPORT VarnLoggingEventTimerThread : public VarnThread {
 public:
  explicit VarnLoggingEventTimerThread(VarnLogging& log);
  ~VarnLoggingEventTimerThread() override;

  using VarnThread::run;
  int run() override;

 private:
  friend class VarnLogging;

  static void launchFor(VarnLogging& log);

  VarnLogging* m_pLog;
};

}  // namespace VarnSupport

#include "VarnSupport/VarnLogRecord.h"  // needs the whole class of the log

#endif
