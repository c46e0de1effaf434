// Sets of signals, for masks. Async-signal-safe.
#ifndef SUPPORT_RUNTIME_SIGNALSET_H
#define SUPPORT_RUNTIME_SIGNALSET_H

#include <csignal>
#include <initializer_list>

namespace VarnSupport {

inline sigset_t signalSet(std::initializer_list<int> signals) {
  sigset_t set;
  sigemptyset(&set);
  for (const int signal : signals)
    sigaddset(&set, signal);
  return set;
}

// The mask of a thread on which none of the program's handlers is to run.
inline sigset_t allSignals() {
  sigset_t all;
  sigfillset(&all);
  return all;
}

}  // namespace VarnSupport

#endif
