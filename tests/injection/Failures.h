// Calls of the system that fail on demand: the source beside this defines malloc, fork, open and
// their like, which are then what the library calls.
#ifndef TESTS_INJECTION_FAILURES_H
#define TESTS_INJECTION_FAILURES_H

#include <atomic>

// While one exists, every n-th call of one kind fails, on whatever thread, until kMost have: a
// shortage that never ends could be waited for for ever.
class Failures {
 public:
  enum tKind { MEMORY, SYSTEM };
  static constexpr int kMost = 50;

  Failures(tKind kind, int every);
  Failures(const Failures&) = delete;
  Failures& operator=(const Failures&) = delete;
  ~Failures();

  // How many calls have failed in this process.
  static int count();

  // Called in place of a thread's creation before that fails; null, as at first, for nothing.
  static std::atomic<void (*)()> beforeThreadFails;
};

#endif
