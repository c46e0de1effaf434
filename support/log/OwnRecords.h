// Records that the library writes about itself.
#ifndef SUPPORT_LOG_OWNRECORDS_H
#define SUPPORT_LOG_OWNRECORDS_H

#include "VarnSupport/VarnLogging.h"

namespace VarnSupport {

class OwnRecords {
 public:
  enum tLevel : int { FAILURE = 1, EVENT = 5, TRACE = 9 };

  static bool areWanted(tLevel level) { return VarnLogging::admits(level); }

  // Writes one whole record of all the values, if the level is wanted.
  template <typename... Values>
  static void write(tLevel level, const Values&... values) {
    if (!areWanted(level))
      return;
    VarnLogRecord record(level);
    (record << ... << values);
  }

  // Whether the calling thread has a record open, for which a record of another thread would wait.
  static bool isOneOpenHere() { return VarnLogging::isRecordOpenOnThisThread(); }
};

}  // namespace VarnSupport

#endif
