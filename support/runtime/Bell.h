// What wakes a thread that waits for descriptors.
#ifndef SUPPORT_RUNTIME_BELL_H
#define SUPPORT_RUNTIME_BELL_H

#include <sys/eventfd.h>

#include "runtime/Cancellation.h"
#include "runtime/Descriptor.h"

namespace VarnSupport {

// An eventfd, which is readable once it has been rung. Not open, with errno, when the system
// refuses.
inline Descriptor makeBell() { return Descriptor(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)); }

// Is no cancellation point: whoever rings has changed already what is to be seen.
inline void ringBell(int bell) {
  const NoCancellation whole;
  static_cast<void>(eventfd_write(bell, 1));
}

}  // namespace VarnSupport

#endif
