// Where records go: how the file of a log is opened, and how a line gets into a target.
#ifndef SUPPORT_LOG_LOGTARGET_H
#define SUPPORT_LOG_LOGTARGET_H

#include <cstddef>
#include <cstdio>
#include <string>
#include <string_view>

namespace VarnSupport {

// Opens the file of a log and empties it; null, with errno, when that fails. Where this creates the
// file it is never wider than 0644, as the mask of a daemon is 0. The file is closed on exec. All
// writes go to its end, whoever else truncates it or writes to it. Its descriptor is above those of
// the standard streams: a program that was started without these would write to the log, or close
// it, by their numbers.
std::FILE* openForRecords(const std::string& name);

// A file that keeps what it has.
struct AppendedFile {
  int descriptor = -1;
  int error = 0;        // why there is none: an errno, or kNotForRecords
  bool isTorn = false;  // it does not end with a line feed
};

// The name is neither a regular file nor a character device. A pipe or a socket would not keep what
// it takes, and hold up the process when its reader stops.
constexpr int kNotForRecords = -1;

// The same for such a file: never wider than 0640, no symbolic link is followed, and no wait for
// what is at the other end of a name.
AppendedFile openForAppending(const std::string& name);

// Writes records, which end with line feeds, as a rule by one call, and goes on after a signal.
// Returns how many were written in whole; after an error, which is in errno, not all. `torn` says,
// before and after, that the target's last line has no end: a line feed comes first then. Once a
// write is cut short, and before if `isQuiet`, neither SIGPIPE nor SIGXFSZ comes of it.
std::size_t writeRecords(int descriptor, const std::string_view* records, std::size_t count,
                         bool isQuiet, bool& torn);

// Whether a write may raise a signal though none was cut short: in a pipe or beyond a limit.
bool mayWriteRaise(int descriptor);

// Writes all but the first byte of `line`, as a rule with one write(). Goes on after a signal, and
// gives up silently after any other error. `torn` says, before and after, that the target took only
// the first part of a record. The first byte, a line feed, is written too then, so that this record
// begins on a line of its own.
void writeLine(int descriptor, std::string_view line, bool& torn);

// The same to standard output, after what the program itself has left in that stream.
void writeLineToStandardOutput(std::string_view line);

}  // namespace VarnSupport

#endif
