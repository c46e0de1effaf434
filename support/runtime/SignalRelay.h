// Takes the library's work out of signal context.
//
// A handler may interrupt malloc() or a half-taken lock, so none of ours does more than note the
// signal and post a semaphore. One library thread, the relay, then runs the routine that the signal
// is routed to. The relay is started on first need, and again in the child after a fork. It ends
// when the main thread has ended by pthread_exit() and it is the last thread. The main thread's end
// is seen if that thread itself has called route(), listen() or ensureRunning() at some time.
//
// A routine must not wait: for no thread that has not ended, for no code of users, for no lock that
// users can hold. What has to gets a thread of its own.
#ifndef SUPPORT_RUNTIME_SIGNALRELAY_H
#define SUPPORT_RUNTIME_SIGNALRELAY_H

#include <csignal>
#include <cstdint>

namespace VarnSupport {

class SignalRelay {
 public:
  using Routine = void (*)(int signal);

  // Installs the handler of `signal`, with signal(); from then on `routine` runs on the relay after
  // each delivery. Several deliveries may be answered by one call.
  static void route(int signal, Routine routine);

  // Has `listener` run, too, until stopListening(): for whoever wants the signal for a while,
  // beside what the library routes. Each signal has one listener. False when the system refuses the
  // handler.
  static bool listen(int signal, Routine listener);
  // Puts back what listen() displaced, unless the signal has been routed since, or somebody else
  // has installed a handler.
  static void stopListening(int signal);
  // How often the handler of `signal` has run.
  static std::uint64_t deliveries(int signal);

  // Starts the relay unless it runs; called by whoever is about to depend on it, not in signal
  // context. False when the system refuses a thread: signals are kept until a later call succeeds.
  static bool ensureRunning();

  // What the handler does, for a caller that has just sent the signal to the process: the routine
  // runs even if the signal cannot be delivered.
  static void post(int signal);
  // Sends the signal to the process, on the relay's thread: no call of others is interrupted.
  static void raise(int signal);

  // Whether the calling thread is the relay.
  static bool isRelay();

  // Runs the routines of signals that have come, on the calling thread, while there is no relay.
  static void runPending();

  // Runs the routine of `signal` after that time unless the signal comes first. A lost signal
  // delays the work and no more. In the child of a fork it stands in for the interval timer, which
  // a child does not have and which, set there, would survive an exec.
  static void expectWithin(int signal, long milliseconds);

  // The relay's own mask blocks all but the library's signals. Threads that it starts for user code
  // get a mask that a user's thread had: that of the last caller of rememberCallersMask().
  static void rememberCallersMask();
  static sigset_t callersMask();
  static void adoptCallersMask();

  // Gives the relay some milliseconds to finish what it is at. Before a fork: what the relay is in
  // the middle of, the child would find half done, and not every heap is whole in a child then.
  static void settle();
  // In the child of a fork, when all is whole: lets the relay start from here on, and starts it if
  // a signal is expected, or if it ran and others than the library may send the signals that are
  // routed or listened for.
  static void resumeInChild();
};

}  // namespace VarnSupport

#endif
