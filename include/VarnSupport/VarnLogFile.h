// A log in a file whose name stays, for processes that live long: the file is appended to, opened
// again when somebody has renamed it, and records that it did not take are counted and told of.
//
//   VarnLogFile log("/var/log/app.log", 5);
//   VarnLogging::setInstance(log);
//   ...
//   log.reopen();  // after logrotate, at SIGHUP as a rule
//
// It is a VarnLogging in all else: levels, headers, both forms of records, standard output as a
// second target. Every operation is safe from any thread, reopen() on several at once too; the
// destructor is VarnLogging's, and waits for records as that does. Nothing throws but for want of
// memory in a constructor, or where a text is returned; what happens to the file is in
// isFileOpen(), lostRecords() and lastError(). A write to it raises neither SIGPIPE nor SIGXFSZ; a
// limit of the size that is set while the file is larger already is noticed within 64 records.
#ifndef VARNSUPPORT_VARNLOGFILE_H
#define VARNSUPPORT_VARNLOGFILE_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "VarnSupport/VarnExport.h"
#include "VarnSupport/VarnLogging.h"

namespace VarnSupport {

struct VarnLogEntry;

// Where there is no name, the records go to standard error. When that is the journal of systemd,
// which says so in JOURNAL_STREAM, each line begins with the priority that belongs to its level:
// <3> for 1, <4> to 4, <5> for 5, <6> to 8 and for 0, <7> for 9.
//
// With a Background, records wait in memory for a thread to write them, some hundredths of a second
// at most; the thread starts with the first. A record that finds no room is lost. One of level 1
// is written when its statement ends, with all that came before. All is written when the log
// ends, and by exit() or a return from main() even if it does not, but for a file that takes
// nothing for three seconds; what ends the process otherwise loses what waits. In the child of a
// fork nothing waits: those records are the parent's, which writes them; the child has a thread of
// its own as soon as it needs one.
//
// A record that the file did not take in whole, as the disk was full or a limit reached, is lost.
// When the file takes data again a record of level 1, "N records lost", comes first.
class VSUPT_EXPORT VarnLogFile : public VarnLogging {
 public:
  struct Background {
    std::size_t queueBytes = std::size_t{1} << 20;  // allocated twice
  };

  // Opens the file, or makes it, with mode 0640 or what the process's mask leaves of that. A
  // relative name is that of the current folder, for good. No symbolic link is followed at the last
  // part of the name; what is neither a regular file nor a character device, a FIFO above all, is
  // refused without waiting. If that fails, standard error says so, and records are lost until
  // reopen() succeeds.
  VarnLogFile(const std::string& name, int level);
  VarnLogFile(const std::string& name, int level, Background background);
  ~VarnLogFile() override;

  // The whole path, or nothing for standard error.
  std::string getName() const;

  // Opens the file by its name again, which makes it if it is gone, and closes the old one. No
  // record is lost or written twice, and none reaches the old file after the return. False when
  // that fails: then the old file stays in force, and a record of level 1 in it says so. Waits for
  // the file to take what is being written to it. Does nothing while the target has no file. A
  // child that is forked meanwhile has the old file or the new one.
  bool reopen();

  // Returns when all records that are complete have been written. Without a Background that is so
  // at any time.
  void flush();

  // Writes a line of its own, without a header and past all levels, up to the first NUL; an empty
  // one is left out.
  void writeLine(std::string_view line);

  // How many records were lost since the beginning, whether told of or not.
  std::uint64_t lostRecords() const;
  // The last failure, "/var/log/app.log: No space left on device"; empty without one.
  std::string lastError() const;

 private:
  friend class VarnJsonLog;

  // Has what the file itself tells of written by that function, as a record of level 1 is.
  void setForm(std::string (*form)(const VarnLogEntry& entry));
};

}  // namespace VarnSupport

#endif
