// A last report of a process that crashes.
//
// While it exists, a SIGSEGV, SIGABRT, SIGBUS or SIGFPE, an uncaught exception and std::terminate()
// write to a descriptor what happened, at which address and in which thread; the calls that the
// thread is inside of; and the last records of the log. Then all takes its course as without it,
// with the same core dump and exit status:
//
//   crash: SIGSEGV (11), code 1, address 0x10
//   process 4711, thread 4712 "worker", 2026-01-31T08:30:00.123456789Z
//   stack:
//     0x55d0c0de1234 in /usr/sbin/greeterd 0x1234
//     0x7f0011223344 in /usr/lib/x86_64-linux-gnu/libvsupt.so.1 0x43344
//   records:
//     2026-01-31T08:29:59.000000000Z 5 net [4711] connected
//   end of the report
//
// `addr2line -Cfe /usr/sbin/greeterd 0x1234` then names the function and the line.
#ifndef VARNSUPPORT_VARNCRASHREPORT_H
#define VARNSUPPORT_VARNCRASHREPORT_H

#include "VarnSupport/VarnExport.h"

namespace VarnSupport {

// A process has one at a time, best made first in main(), or in onStart() by a daemon. The child of
// a fork has it, too.
//
// - The report is made by async-signal-safe means alone: it needs no heap, no lock and no stream,
//   and it does not matter which of them the crash has left broken. A fault while it is made ends
//   the part that it is in, and the next follows. What an uncaught exception says of itself is the
//   code of that exception, and therefore comes last.
// - Handlers need a stack. The thread that makes the object, and threads of the library that start
//   later (each VarnThread is one), get one of 64 KiB for it, and report that they have no stack
//   left, too. Another thread uses its own, of which a report takes less than 16 KiB, unless it has
//   set one by sigaltstack(2): when it has used up its stack, the process ends without a report.
// - A report opens files, one at a time: a descriptor is kept for that, should the program have
//   used up its own.
// - Places are those of the calls themselves. Where the stack cannot be walked, the words on it
//   that are addresses of code are listed, of which some are calls.
// - The last 32 records of the registered log are kept, those of all levels that it writes, cut to
//   200 bytes and made printable, as VarnEscaped() does it. They are those since the object was
//   made; one that a thread is in the middle of is not among them. To write a record takes about
//   twice as long for it.
// - Threads that crash at the same time report one after the other.
// - Then the handler that was there before the object is put back, and gets the signal: the default
//   action, or that of the program. A program that goes on after it has reported that signal once.
//   A signal that the program had ignored before stays ignored when another process sends it.
// - A thread that blocks a signal does not get it, and the system ends the process without a report
//   where it is one of a fault.
class VSUPT_EXPORT VarnCrashReport {
 public:
  // The descriptor must outlive the object; one of a file or a pipe is as good as standard error.
  // A pipe that nobody reads is given up after two seconds. Throws VarnException with EEXIST when
  // there is an object already, or with EBADF when the number is no open descriptor's;
  // std::bad_alloc.
  explicit VarnCrashReport(int descriptor);
  VarnCrashReport(const VarnCrashReport&) = delete;
  VarnCrashReport& operator=(const VarnCrashReport&) = delete;
  // Puts back the handlers that were there, unless others have been set since.
  ~VarnCrashReport();

 private:
  struct State;  // of the library itself

  State* m_pState;
};

}  // namespace VarnSupport

#endif
