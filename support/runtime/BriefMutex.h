// A mutex for brief sections.
#ifndef SUPPORT_RUNTIME_BRIEFMUTEX_H
#define SUPPORT_RUNTIME_BRIEFMUTEX_H

#include <mutex>

#include "runtime/BriefGate.h"

namespace VarnSupport {

// In the child of a fork it is free, and what it guards is whole: whoever holds it is inside a
// brief section, which a fork waits for. Requires: cancellation is closed while it is held.
class BriefMutex {
 public:
  class Hold {
   public:
    explicit Hold(BriefMutex& mutex) : m_oGuard(mutex.m_oMutex) {}
    Hold(const Hold&) = delete;
    Hold& operator=(const Hold&) = delete;

   private:
    BriefGate::Pass m_oPass;
    std::lock_guard<std::mutex> m_oGuard;
  };

 private:
  std::mutex m_oMutex;
};

}  // namespace VarnSupport

#endif
