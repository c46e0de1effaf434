// What keeps the library whole in a process that goes on after fork().
//
// Only the thread that forks exists in the child. Every process-wide lock that is held for a moment
// is taken before the fork and given back on both sides, and nobody is inside a brief section
// (BriefGate.h). What may be held for long, across calls of user code or a system call (the record
// lock of a log, the pass lock of the timers, the writing of a record), is not waited for: in the
// child it becomes free, and what the vanished thread had under way is dropped. Timers go on in the
// child, but for those on the stacks of vanished threads; threads do not.
#ifndef SUPPORT_RUNTIME_FORK_H
#define SUPPORT_RUNTIME_FORK_H

#include <atomic>
#include <cstdint>

#include "runtime/ThreadScope.h"

namespace VarnSupport {

enum class ForkSide { PARENT, CHILD };

// What one part of the library takes before a fork, and gives back, or in a child makes anew, after
// it. Neither may throw. Each stands in the source of what it guards; Fork.cpp has the order.
struct ForkPart {
  void (*prepare)();
  void (*release)(ForkSide side);
};

extern const ForkPart serviceFork;
extern const ForkPart factoryFork;
extern const ForkPart threadFork;
extern const ForkPart waitFork;
extern const ForkPart connectionFork;
extern const ForkPart timerFork;
extern const ForkPart loopFork;
extern const ForkPart controlFork;
extern const ForkPart logFork;
extern const ForkPart commandFork;
extern const ForkPart zoneFork;
extern const ForkPart localeFork;
extern const ForkPart signalEventFork;
extern const ForkPart pidFileFork;
extern const ForkPart relayFork;
extern const ForkPart exitFork;
extern const ForkPart sectionFork;

// Around a fork() whose parent ends: what is one process's alone goes over to the child.
class ForkToGoOn : public ThreadScopeOf<ForkToGoOn> {};

// How many forks, without an exec, led to this process since the library was loaded. It does not
// change while a process has a second thread.
extern constinit std::atomic<std::uint32_t> g_nForks;

// Registers the handlers, once.
void installForkHandlers();

// For what cannot be destroyed in a child, as it may be half changed: keeps it reachable.
void keepForever(const void* object);

}  // namespace VarnSupport

#endif
