// Where records go: how the file of a log is opened, and how a line gets into a target.
#ifndef SUPPORT_LOG_LOGTARGET_H
#define SUPPORT_LOG_LOGTARGET_H

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

// Writes all but the first byte of `line`, as a rule with one write(). Goes on after a signal, and
// gives up silently after any other error. `torn` says, before and after, that the target took only
// the first part of a record. The first byte, a line feed, is written too then, so that this record
// begins on a line of its own.
void writeLine(int descriptor, std::string_view line, bool& torn);

// The same to standard output, after what the program itself has left in that stream.
void writeLineToStandardOutput(std::string_view line);

}  // namespace VarnSupport

#endif
