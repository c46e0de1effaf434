// The thread waits on its timer as on any event. A stop sets that event, too, so the thread looks
// at the flag again after each wait, and takes the ticket of the wait before: a stop that comes
// between the two is not lost.
#include "VarnSupport/VarnEventTimerThread.h"

#include <new>

#include "log/OwnRecords.h"
#include "runtime/Cancellation.h"
#include "threads/EventTicket.h"

namespace VarnSupport {

namespace {

void trace(const char* text) {
  OwnRecords::write(OwnRecords::TRACE, "VarnEventTimerThread::~VarnEventTimerThread: ", text);
}

}  // namespace

VarnEventTimerThread::VarnEventTimerThread(const std::string& name, VarnTimer& timer)
    : VarnThread(name), m_oTimer(timer) {}

VarnEventTimerThread::~VarnEventTimerThread() {
  const QuietCancellationGuard closed;
  trace("entering");
  VarnEventTimerThread::stop();
  trace("exiting");
}

// The thread may look at the flag as soon as it runs.
void VarnEventTimerThread::start() {
  if (isAlive())
    return;
  m_bKeepRunning = true;
  VarnThread::start();
}

void VarnEventTimerThread::stop() {
  if (!isAlive() || !m_bKeepRunning)
    return;
  trace("setting exit event");
  m_bKeepRunning = false;
  try {
    m_oTimer.set();
  } catch (const std::bad_alloc&) {
    // The dependents are not told, but the thread wakes.
  }
  trace("waiting for thread to exit");
  waitForThreadExit();
  joinFinally();
}

int VarnEventTimerThread::run() {
  while (awaitEvent())
    onTimerEvent();
  return 0;
}

// False when the thread is to end. The ticket comes before the look at the flag: a stop() after the
// look ends the wait, in whatever way the event waits.
bool VarnEventTimerThread::awaitEvent() {
  const CancellationGuard closed;
  EventTicket ticket(stateOf(m_oTimer));
  const EventTicket::Presented presented(ticket);
  m_bWaiting = true;
  if (m_bKeepRunning)
    m_oTimer.wait(-1);
  return m_bKeepRunning;
}

}  // namespace VarnSupport
