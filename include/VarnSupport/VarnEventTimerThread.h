// A thread that sleeps on a timer, or any event that a timer object stands for, and runs a handler
// each time it is set.
#ifndef VARNSUPPORT_VARNEVENTTIMERTHREAD_H
#define VARNSUPPORT_VARNEVENTTIMERTHREAD_H

#include <atomic>
#include <string>

#include "VarnSupport/VarnExport.h"
#include "VarnSupport/VarnThread.h"
#include "VarnSupport/VarnTimer.h"

namespace VarnSupport {

// A set() that comes while the handler runs is not remembered. A derived class calls stop() in its
// own destructor: the handler must not run in an object that is partly gone.
class VSUPT_EXPORT VarnEventTimerThread : public VarnThread {
 public:
  // The timer must outlive the thread.
  VarnEventTimerThread(const std::string& name, VarnTimer& timer);
  // Stops the thread.
  ~VarnEventTimerThread() override;

  // Starts the thread, not the timer.
  void start() override;
  // Ends the thread and waits for it; the handler is not called again. The timer is set once, which
  // tells its other dependents too. Does nothing unless the thread was started. Requires: not
  // called from the handler.
  void stop() override;
  using VarnThread::run;
  int run() override;

  // Runs on the thread after each set() of the timer. An exception that leaves it ends the thread,
  // with the exit code 0.
  virtual void onTimerEvent() = 0;

 private:
  bool awaitEvent();

  VarnTimer& m_oTimer;
  std::atomic<bool> m_bWaiting{false};
  std::atomic<bool> m_bKeepRunning{false};
};

}  // namespace VarnSupport

#endif
