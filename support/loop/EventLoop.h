// The thread that waits for deadlines, descriptors and changes of files, all at once, and makes the
// calls of those objects that have no pool.
//
// A process has one loop, made with the first object that is enlisted; its thread runs while there
// are such objects. The child of a fork leaves the parent's loop behind, without touching what both
// share in the system, and makes one of its own when it needs it.
#ifndef SUPPORT_LOOP_EVENTLOOP_H
#define SUPPORT_LOOP_EVENTLOOP_H

#include <sys/epoll.h>

#include <array>
#include <cstdint>

#include "loop/CallQueue.h"
#include "loop/DeadlineHeap.h"
#include "loop/DescriptorSet.h"
#include "loop/FolderWatches.h"
#include "loop/LoopLock.h"
#include "loop/LoopObject.h"
#include "loop/StallWatch.h"
#include "runtime/System.h"

namespace VarnSupport {

class EventLoop {
 public:
  using Deadlines = DeadlineHeap<LoopObject>;

  // The loop of this process. Requires, as all that follows: the lock is held. Throws VarnException
  // or std::bad_alloc.
  static EventLoop& current();
  static bool isCurrent(const EventLoop* loop) { return loop != nullptr && loop == m_pCurrent; }

  EventLoop(const EventLoop&) = delete;
  EventLoop& operator=(const EventLoop&) = delete;

  Deadlines::Slot addObject(LoopObject& object);
  void removeObject(Deadlines::Slot slot);
  void setDeadline(Deadlines::Slot slot, MonotonicTime deadline);
  void clearDeadline(Deadlines::Slot slot) { m_oDeadlines.clear(slot); }

  // Has the thread look at that time, if it would later.
  void wakeFor(MonotonicTime deadline);

  CallQueue& ownQueue() { return m_oQueue; }
  DescriptorSet& descriptors() { return m_oDescriptors; }
  FolderWatches& folders() { return m_oFolders; }
  // Before the first watch. Throws VarnException.
  void openFolders();
  StallWatch& stalls() { return m_oStalls; }

  struct Fork;

 private:
  using Events = std::array<epoll_event, 256>;

  EventLoop();
  ~EventLoop() = delete;  // it may be waited in for as long as the process lives

  void ensureRunning();
  void run();
  bool waitForWork(LoopLock& lock, StallWatch::Worker& worker);
  int wait(Events& events, MonotonicTime until) const;
  void take(const Events& events, int count);
  void pendDue();

  static void awaitCallsAtExit();

  static constinit EventLoop* m_pCurrent;

  CallQueue m_oQueue{*this};
  Deadlines m_oDeadlines;
  StallWatch m_oStalls;
  DescriptorSet m_oDescriptors;
  FolderWatches m_oFolders;
  std::size_t m_nObjects = 0;
  bool m_bRunning = false;
  // When the thread looks again by itself; the beginning of all time while it does not wait.
  MonotonicTime m_oNextLook = MonotonicTime::min();
};

}  // namespace VarnSupport

#endif
