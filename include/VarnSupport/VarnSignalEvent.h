// Signals as events: what a daemon does on SIGHUP and its kind, on a thread instead of in a
// handler.
//
// While a VarnSignalEvent exists its signal is handled by the library, and each delivery sets the
// event: the dependents are called, then those who wait wake up. That happens on a thread of the
// library, with nothing interrupted, so callbacks may do whatever a thread may; what they throw is
// dropped, with a record at level 1. Several objects may have one signal, and each is set.
//
// All operations are safe from any thread; nobody may wait on an event that is being destroyed.
#ifndef VARNSUPPORT_VARNSIGNALEVENT_H
#define VARNSUPPORT_VARNSIGNALEVENT_H

#include <chrono>
#include <csignal>  // the names of signals, for callers
#include <cstdint>

#include "VarnSupport/VarnEvent.h"
#include "VarnSupport/VarnExport.h"

namespace VarnSupport {

class SignalEntry;

// Deliveries that come while the callbacks run set the event at least once more, when these have
// returned; a callback of one event never runs beside another of the same event. The events of
// different signals, and several of one, do not wait for each other.
//
// As with all events, a set() for which nobody waits is lost to wait(); take() misses none.
//
// In the child of a fork the event goes on, with the dependents that it has, and deliveries to the
// parent that nobody has taken are not the child's. An event on the stack of a thread that the
// child does not have is gone, and the signal's earlier action back. In a program that is started
// the signal has its default action.
class VSUPT_EXPORT VarnSignalEvent final : public VarnEvent {
 public:
  // From here on the signal sets the event, also when it was ignored before. SIGINT, SIGTERM,
  // SIGPIPE and SIGCHLD may be had beside a VarnService, which answers to them as ever. Real-time
  // signals are counted one by one.
  //
  // Throws VarnException for a number that is no signal, SIGKILL and SIGSTOP, which cannot be
  // caught, SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS and SIGABRT, which end what a thread
  // does, and SIGALRM, SIGUSR1 and SIGUSR2, which the library needs: SIGHUP, SIGQUIT and
  // SIGRTMIN + n are free; and when the system refuses a thread.
  //
  // A signal that all threads block is not delivered. As with every handler, a delivery interrupts
  // calls that are not restarted, such as poll() and sleep().
  explicit VarnSignalEvent(int signal);
  VarnSignalEvent(const VarnSignalEvent&) = delete;
  VarnSignalEvent& operator=(const VarnSignalEvent&) = delete;
  // The last event of a signal puts back the action that was there before the first, unless another
  // one has been installed since. Waits for callbacks under way on another thread; may run inside
  // one. No callback runs afterwards. Ignore the signal before the event is made if it must not end
  // the process when the event has gone.
  ~VarnSignalEvent() override;

  // Waits until the signal has been delivered since the last take(), or since the event was made,
  // and returns how often; 0 when `limit` has passed before. Each delivery is taken by one caller,
  // who does not wait for the callbacks, and may be one.
  std::uint64_t take(std::chrono::nanoseconds limit = std::chrono::nanoseconds::max());

  int signal() const;
  // How often the signal has been delivered since the event was made. Several that come before the
  // system has delivered the first are one delivery, unless the signal is a real-time one.
  std::uint64_t deliveries() const;

 private:
  SignalEntry* m_pEntry;
};

}  // namespace VarnSupport

#endif
