// Events: a broadcast that tells dependents first and then wakes every waiting thread.
//
// An event keeps no signalled state: a set() that finds nobody waiting is not remembered. All
// operations are safe from any thread; nobody may wait on an event that is being destroyed.
#ifndef VARNSUPPORT_VARNEVENT_H
#define VARNSUPPORT_VARNEVENT_H

#include <vector>

#include "VarnSupport/VarnCollaborator.h"
#include "VarnSupport/VarnExport.h"

namespace VarnSupport {

class EventState;

class VSUPT_EXPORT VarnEvent {
 public:
  VarnEvent();
  VarnEvent(const VarnEvent&) = delete;
  VarnEvent& operator=(const VarnEvent&) = delete;
  // May run inside a dependent's callback of its own set().
  virtual ~VarnEvent();

  // The dependents are called with a member of the event as the source, not with the event.
  void addDependent(VarnDependent& dependent);
  void removeDependent(VarnDependent& dependent);

  // Calls every dependent on this thread, with what createNotification() makes, then wakes all
  // threads in wait(). When there is no memory for that, wakes them and throws std::bad_alloc.
  virtual void set();
  // Makes the condition variable anew if nobody waits and getHandle() was never called; otherwise
  // nothing changes.
  virtual void reset();
  // With -1 waits for the next set() and returns 0. Any other time-out ends at once, without
  // waiting: -2 when timeoutMs x 1000000 in unsigned 32-bit arithmetic is a valid count of
  // nanoseconds (1 to 999 ms are), else -3. Callers rely on it; real time-outs are made with
  // timers.
  virtual int wait(int timeoutMs);
  // The address of a pthread_cond_t and, behind it, its pthread_mutex_t, which set() does not take:
  // callers rely on it. What a waiter there looks at has to change under the mutex.
  virtual void* getHandle();
  // What the dependents are told; the caller owns it and gives it back to destroyNotification().
  // Derived events override the pair to send more.
  virtual VarnNotification* createNotification();
  // Null is ignored.
  virtual void destroyNotification(VarnNotification* notification);

  // Waits for all of the events, or for the first one, on one thread per event. Returns 0 for all,
  // or the index of the one that was set last; nothing is lost between the call and the start of
  // the waiting. A finite time-out makes each of the waits end at once, with the same results, or
  // with -2 when it is below a second. An empty vector: see VarnThread::wait(). Throws
  // VarnException when the system refuses a thread.
  static int wait(std::vector<VarnEvent*>& events, bool waitAll, int timeoutMs);
  // The same for an array of plain VarnEvent objects; a count below 1 is an empty vector.
  static int wait(int count, VarnEvent* events, bool waitAll, int timeoutMs);

 private:
  // Of the library itself.
  friend EventState& stateOf(VarnEvent& event);
  friend VarnCollaborator& dependentsOf(VarnEvent& event);
  struct State;

  VSUPT_LOCAL void setAndTell();
  VarnNotification* makeNotification();

  VarnCollaborator m_oDependents;
  State* m_pState;
};

}  // namespace VarnSupport

#endif
