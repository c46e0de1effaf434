// What the threads of this process wait for, and who holds what: for a process that hangs.
//
//   2 threads
//   4711 "greeter": in clock_nanosleep()
//     holds section 0x5581c0 (the record lock of the log), 1 level, wanted for 12.340 s
//   4712 "worker", a VarnThread: waits for 12.340 s for section 0x5581c0 (the record lock of the
//     log), which 4711 "greeter" holds
//   4713 "vsupt-loop", of the library: in epoll_wait(), descriptor 5, anon_inode:[eventpoll]
//
// Nothing is locked, and no other thread is stopped or told: it works while any of them hangs,
// whatever they hold. What is told is a picture of threads that go on, and can be in itself at odds
// where they do. A program that checks the order of its locks (VSUPT_CHECK_LOCKS=1 in its
// environment) is told of two sections that are taken in both orders when that happens; the guide
// has more on that. It all costs nothing until it is asked for.
#ifndef VARNSUPPORT_VARNDESCRIBETHREADS_H
#define VARNSUPPORT_VARNDESCRIBETHREADS_H

#include <string>

#include "VarnSupport/VarnExport.h"

namespace VarnSupport {

// Each thread of the process, up to 4,096: the system's number and name, whether it runs a
// VarnThread or is of the library, what it waits for, and the critical sections that it holds.
//
// - "waits for" tells of the critical sections and events of the library, and since when: a wait
//   has begun at that time, to within a tick of some milliseconds.
// - "in" tells of the call of the system that a thread is in, its descriptor, and, where it waits
//   for a mutex or the end of a thread, for whom.
// - A section is known by the address of its state; some of the library's own have names. A held
//   one says how often its thread has it; "wanted for" is how long the longest of its present
//   waiters has been waiting, while the holder may have come later; "held for at least" is since
//   when its holder waits for something itself. Nothing else is known of when it was taken. A
//   section that the library holds for some instructions is told of with who waits for it alone.
// - Read-write locks, and mutexes that are none of the library, show as calls of the system.
//
// Without /proc, or without a free descriptor, there is the calling thread alone, and the text says
// so; where the system keeps from a process what its threads are in (after a change of user, say),
// calls of the system are left out.
//
// The text is on the heap: where a thread may hang inside of that, use the other form.
// Throws std::bad_alloc.
VSUPT_EXPORT std::string VarnDescribeThreads();

// The same, written to a descriptor as it is put together, without the heap. Gives up when that
// fails, as in a pipe that nobody reads, or takes nothing for two seconds. Async-signal-safe; errno
// stays.
VSUPT_EXPORT void VarnDescribeThreads(int descriptor);

}  // namespace VarnSupport

#endif
