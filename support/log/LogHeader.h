// What a line of the log begins with.
#ifndef SUPPORT_LOG_LOGHEADER_H
#define SUPPORT_LOG_LOGHEADER_H

#include <pthread.h>

#include <string>
#include <string_view>

#include "log/RecordText.h"
#include "log/SecondText.h"

namespace VarnSupport {

// Makes the headers of one log. Keeps the texts of the last second and of the last thread: most
// records have both in common with the one before. Not for several threads at once.
class LogHeader {
 public:
  // Puts "\n%04d%02d%02d_%02d:%02d:%02d %d %-10s [%d] " before a text: the time, the level, the
  // label, and the calling thread's identifier cut to an int.
  void putBefore(RecordText& text, int level, std::string_view label);

 private:
  SecondText m_oSecond;
  pthread_t m_hThread = 0;
  std::string m_sThread;
};

}  // namespace VarnSupport

#endif
