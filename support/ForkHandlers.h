// What keeps the library whole in a process that goes on after fork().
//
// Only the thread that forks exists in the child. Every process-wide lock that is held for a moment
// is taken before the fork and given back on both sides. The two that may be held for long, across
// calls of user code (the record lock of the log and the pass lock of the timers), are not waited
// for: in the child they become free, and what the vanished thread had under way is dropped. Timers
// go on in the child, but for those on the stacks of vanished threads; threads do not.
#ifndef SUPPORT_FORKHANDLERS_H
#define SUPPORT_FORKHANDLERS_H

#include <atomic>
#include <cstdint>

#include "VarnSupport/VarnExport.h"

namespace VarnSupport {

class VarnCriticalSectionObject;
class VarnEvent;
class VarnLogging;
class VarnTimerManager;

// Set around a fork() whose child does nothing but exec: the handlers then do nothing.
extern constinit thread_local bool t_bChildWillExec;
// How many forks, without an exec, led to this process since the library was loaded. It does not
// change while a process has a second thread.
extern constinit std::atomic<std::uint32_t> g_nForks;

class ForkHandlers {
 public:
  // Registers the handlers, once.
  static void install();

 private:
  enum tSide { PARENT, CHILD };

  static void prepare() VSUPT_UNCHECKED;
  static void release(tSide side) VSUPT_UNCHECKED;

  // Each family's part, in its own source; the second of a pair gives back what the first has
  // taken.
  static void prepareFactory() VSUPT_UNCHECKED;
  static void releaseFactory(tSide side) VSUPT_UNCHECKED;
  static void prepareThreads() VSUPT_UNCHECKED;
  static void releaseThreads(tSide side) VSUPT_UNCHECKED;
  static void prepareTimers() VSUPT_UNCHECKED;
  static void releaseTimers(tSide side) VSUPT_UNCHECKED;
  static void prepareLog();
  static void releaseLog(tSide side);
  static void prepareLocalTime();
  static void releaseLocalTime();

  // For the child: frees what another thread held, or was changing, when the process forked.
  static void renew(VarnCriticalSectionObject& lock);
  // Only if another thread holds it; true when that was so.
  static bool renewIfLost(VarnCriticalSectionObject& lock);
  static void renew(VarnEvent& event);
  static void renew(VarnTimerManager& manager) VSUPT_UNCHECKED;
  static void leaveManagerBehind();
  static void renew(VarnLogging& log) VSUPT_UNCHECKED;
  // For what cannot be destroyed, as it may be half changed: keeps it reachable.
  static void keepForever(const void* object);
};

}  // namespace VarnSupport

#endif
