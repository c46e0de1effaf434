// The platform runs handlers of a fork in an order that depends on who registered when. All locks
// of the library are therefore taken by one handler, in the order in which every thread takes
// them, so that a fork cannot stop in the middle of them, and given back by one, in the reverse
// order. Locks that callers hold while the library runs their code are not among them: the thread
// that forks may hold such a lock itself, as may one that never gives it back.
#include "runtime/Fork.h"

#include <pthread.h>

#include <array>
#include <mutex>
#include <new>

#include "runtime/BriefGate.h"
#include "runtime/Cancellation.h"
#include "runtime/SignalRelay.h"

namespace VarnSupport {

namespace {

// In lock order: what is taken first stands first. The global section is the last lock that
// anything takes; the gate is closed when there is nothing left to wait for.
constexpr std::array kParts{
    &serviceFork,     &factoryFork, &threadFork, &waitFork,    &connectionFork, &timerFork,
    &loopFork,        &controlFork, &logFork,    &commandFork, &zoneFork,       &localeFork,
    &signalEventFork, &pidFileFork, &relayFork,  &exitFork,    &sectionFork};

void prepare() {
  closeCancellationQuietly();
  SignalRelay::settle();
  for (const ForkPart* const part : kParts)
    part->prepare();
  BriefGate::close();
}

void release(ForkSide side) {
  if (side == ForkSide::CHILD) {
    ++g_nForks;
    BriefGate::forgetOthers();
  }
  BriefGate::open();
  for (auto part = kParts.rbegin(); part != kParts.rend(); ++part)
    (*part)->release(side);
  if (side == ForkSide::CHILD)
    SignalRelay::resumeInChild();
  openCancellationQuietly();
}

}  // namespace

constinit std::atomic<std::uint32_t> g_nForks{0};

void installForkHandlers() {
  static std::once_flag once;
  std::call_once(once, [] {
    // A fork cannot throw: what the parts allocate when they are first used is made now.
    for (const ForkPart* const part : kParts) {
      part->prepare();
      part->release(ForkSide::PARENT);
    }
    if (pthread_atfork([] { prepare(); }, [] { release(ForkSide::PARENT); },
                       [] { release(ForkSide::CHILD); }) != 0)
      throw std::bad_alloc();
  });
}

// Without allocating: more than a few forks in a row that lose something are not to be expected.
void keepForever(const void* object) {
  static constinit std::array<const void*, 64> kept{};
  static constinit std::size_t count = 0;
  kept[count++ % kept.size()] = object;
}

}  // namespace VarnSupport
