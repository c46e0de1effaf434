// Functions that are told of the records of the log, and a log of JSON objects made of them.
//
// An observer is told of each record that is written to the registered log, whatever that's target,
// on the thread that wrote it, after the record is on its way and while no lock of a log is held.
// The records of one thread come in their order; those of several threads may overtake each other,
// and calls may happen at once. Everything is safe from any thread. An observer has nothing to do
// with the life of a log: one may come and go without the other. In the child of a fork observers
// go on, for the records that the child writes.
#ifndef VARNSUPPORT_VARNLOGOBSERVER_H
#define VARNSUPPORT_VARNLOGOBSERVER_H

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "VarnSupport/VarnExport.h"
#include "VarnSupport/VarnLogFile.h"

namespace VarnSupport {

// A record as an observer sees it. The texts are there for the time of the call; the component is
// empty where the header says "Global".
struct VarnLogEntry {
  std::chrono::time_point<std::chrono::system_clock, std::chrono::nanoseconds> time;
  int level = 0;
  std::string_view component;
  std::string_view text;        // without the header, and without the line feed that ends it
  std::string_view threadName;  // as `ps -L` and gdb show it, at most 15 characters
  pid_t threadId = 0;           // the system's
};

// Calls a function for each record of its level or below, for as long as it lives. Records that are
// made inside a call, by the same thread, are written, and told to all other observers. What the
// function throws is dropped. A thread that is killed goes on until the call has returned. Nobody
// is told of a record for which there is no memory.
class VSUPT_EXPORT VarnLogObserver {
 public:
  using Function = std::function<void(const VarnLogEntry& entry)>;

  // Throws std::bad_alloc.
  VarnLogObserver(int level, Function function);
  VarnLogObserver(const VarnLogObserver&) = delete;
  VarnLogObserver& operator=(const VarnLogObserver&) = delete;
  // Waits for calls on other threads, while the process exits no longer than three seconds; then no
  // call is under way, and none will come. May run inside the function.
  // Requires: the thread holds nothing that the function waits for.
  ~VarnLogObserver();

 private:
  const void* m_pObserver;  // of the library itself
};

// The records of the log as JSON, one object a line, in a VarnLogFile of their own:
//
//   {"time":"2026-01-31T08:30:00.123456789Z","level":1,"component":"net","thread":"worker",
//    "tid":4711,"text":"cannot connect"}
//
// without the line break. Each line is valid UTF-8 whatever the record holds: bytes that are none
// become U+FFFD, control characters are escaped. Of a line that the file did not take in whole, as
// on a full disk, the beginning stays, as a line of its own that is no object.
class VSUPT_EXPORT VarnJsonLog {
 public:
  // As a VarnLogFile has them; the level is that of the records. With a Background, one of level 1
  // waits for its line to be written.
  VarnJsonLog(const std::string& name, int level)
      : m_oFile(name, 0), m_oObserver(level, written()) {
    m_oFile.setForm(toJson);
  }
  VarnJsonLog(const std::string& name, int level, VarnLogFile::Background background)
      : m_oFile(name, 0, background), m_oObserver(level, written()) {
    m_oFile.setForm(toJson);
  }
  VarnJsonLog(const VarnJsonLog&) = delete;
  VarnJsonLog& operator=(const VarnJsonLog&) = delete;

  // For reopen(), lostRecords() and their kind.
  VarnLogFile& file() { return m_oFile; }

  // The object of one record, without a line feed.
  static std::string toJson(const VarnLogEntry& entry);

 private:
  VarnLogObserver::Function written() {
    return [this](const VarnLogEntry& entry) {
      m_oFile.writeLine(toJson(entry));
      if (entry.level == 1)
        m_oFile.flush();
    };
  }

  VarnLogFile m_oFile;
  VarnLogObserver m_oObserver;
};

}  // namespace VarnSupport

#endif
