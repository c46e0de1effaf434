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
#include <mutex>

#include "loop/CallQueue.h"
#include "loop/DeadlineHeap.h"
#include "loop/DescriptorSet.h"
#include "loop/FolderWatches.h"
#include "loop/StallWatch.h"
#include "runtime/System.h"

namespace VarnSupport {

class EventLoop {
 public:
  // Holds the lock of all that loops have, for a few instructions and calls of the system that do
  // not wait. When it is given back, the loop's thread is woken if that was asked for.
  class Lock {
   public:
    Lock() { lock(); }
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;
    ~Lock() {
      if (m_bHeld)
        unlock();
    }

    void lock() {
      m_oMutex.lock();
      m_bHeld = true;
    }
    void unlock();

   private:
    bool m_bHeld = false;
  };

  // The loop of this process. Requires, as all that follows: the lock is held. Throws VarnException
  // or std::bad_alloc.
  static EventLoop& current();
  static bool isCurrent(const EventLoop* loop) { return loop != nullptr && loop == m_pCurrent; }

  EventLoop(const EventLoop&) = delete;
  EventLoop& operator=(const EventLoop&) = delete;

  DeadlineHeap<Callee>::Slot addObject(Callee& callee);
  void removeObject(DeadlineHeap<Callee>::Slot slot);
  void setDeadline(DeadlineHeap<Callee>::Slot slot, MonotonicTime deadline);
  void clearDeadline(DeadlineHeap<Callee>::Slot slot) { m_oDeadlines.clear(slot); }

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
  bool waitForWork(Lock& lock, StallWatch::Worker& worker);
  int wait(Events& events, MonotonicTime until) const;
  void take(const Events& events, int count);
  void pendDue();

  static void awaitCallsAtExit();

  static constinit std::mutex m_oMutex;
  static constinit EventLoop* m_pCurrent;
  static constinit int m_nToWake;  // descriptor, or -1

  CallQueue m_oQueue{*this};
  DeadlineHeap<Callee> m_oDeadlines;
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
