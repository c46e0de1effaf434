// A mutex for brief sections.
#ifndef SUPPORT_RUNTIME_BRIEFMUTEX_H
#define SUPPORT_RUNTIME_BRIEFMUTEX_H

#include <pthread.h>

#include "runtime/BriefGate.h"

namespace VarnSupport {

// In the child of a fork it is free, and what it guards is whole: whoever holds it is inside a
// brief section, which a fork waits for. Requires: cancellation is closed while it is held.
class BriefMutex {
 public:
  BriefMutex() = default;
  BriefMutex(const BriefMutex&) = delete;
  BriefMutex& operator=(const BriefMutex&) = delete;

  class Hold {
   public:
    explicit Hold(BriefMutex& mutex) : m_pMutex(&mutex.m_oMutex) { pthread_mutex_lock(m_pMutex); }
    Hold(const Hold&) = delete;
    Hold& operator=(const Hold&) = delete;
    ~Hold() { pthread_mutex_unlock(m_pMutex); }

   private:
    BriefGate::Pass m_oPass;
    pthread_mutex_t* m_pMutex;
  };

 private:
  // Looks at a lock that is held for a while before it sleeps: its holder is about to give it back.
  pthread_mutex_t m_oMutex = PTHREAD_ADAPTIVE_MUTEX_INITIALIZER_NP;
};

}  // namespace VarnSupport

#endif
