// Which critical sections threads hold, seen from outside.
//
// Nothing here waits or locks: all is copied by the system from under the threads that change it,
// and is a hint. Async-signal-safe.
#ifndef SUPPORT_LOCKS_HELDSECTIONS_H
#define SUPPORT_LOCKS_HELDSECTIONS_H

#include <pthread.h>
#include <sys/types.h>

#include <cstdint>

#include "VarnSupport/VarnCriticalSection.h"

namespace VarnSupport {

class HeldSections {
 public:
  // The calling thread's newest lock, which is what is stored under the key of LockThreadStorage,
  // kept where reading it costs nothing.
  static constinit thread_local LockImplementation* t_pNewest;

  // The state of a critical section. Sections are known by the addresses of their states.
  struct Section {
    pthread_t owner = 0;  // 0, too, while the library holds it for some instructions
    pid_t thread = 0;     // that has the mutex, as the system numbers it; 0 when it is free
    int levels = 0;
    std::uintptr_t older = 0;  // the next on its owner's list
  };
  static bool read(std::uintptr_t address, Section& section);

  // The section that a thread waits for which waits for that word of memory; 0 when it is none.
  static std::uintptr_t withFutex(std::uintptr_t word);

  // The address of the state of an object; 0 while it has none.
  static std::uintptr_t addressOf(const VarnCriticalSectionObject& object);
};

}  // namespace VarnSupport

#endif
