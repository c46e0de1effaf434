// The last records of the log, kept where the handler of a crash can read them.
#ifndef SUPPORT_INSIGHT_RECORDRING_H
#define SUPPORT_INSIGHT_RECORDRING_H

#include "VarnSupport/VarnLogObserver.h"
#include "insight/PlainText.h"

namespace VarnSupport {

// There is one for the process, of fixed size. Writers wait for nobody: one that finds its place
// still being written to leaves its record out.
class RecordRing {
 public:
  // Keeps the record as one printable line. Throws std::bad_alloc.
  static void put(const VarnLogEntry& entry);
  // Writes the lines, the oldest first, but for those that are being written. Async-signal-safe.
  static void write(PlainText& text);
  // Requires: nobody puts.
  static void clear();
};

}  // namespace VarnSupport

#endif
