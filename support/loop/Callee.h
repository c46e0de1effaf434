// What the loop calls: the inner side of a timer, of a descriptor's event, of a watch of files.
#ifndef SUPPORT_LOOP_CALLEE_H
#define SUPPORT_LOOP_CALLEE_H

#include <atomic>
#include <memory>
#include <string>
#include <utility>

#include "VarnSupport/VarnCallbackPool.h"
#include "loop/DeadlineHeap.h"
#include "loop/LoopObject.h"
#include "runtime/CallUnderWay.h"
#include "runtime/Cancellation.h"
#include "runtime/System.h"

namespace VarnSupport {

class CallQueue;
class EventLoop;

// Belongs to its public object and, while a call is under way, to that call as well. It is of one
// loop at a time, the one of the process in which it was enlisted; in the child of a fork it is of
// none. What is not said to be otherwise is guarded by the lock of the loop.
class Callee : public LoopObject, public std::enable_shared_from_this<Callee> {
 public:
  // Throws VarnException, with `kind` and the reason, unless `hasFunction`.
  Callee(const char* kind, bool hasFunction, const VarnCallbackPool* pool);
  Callee(const Callee&) = delete;
  Callee& operator=(const Callee&) = delete;
  virtual ~Callee() = default;

  // For the constructor of a public object that is active from then on, without the lock. Throws
  // what enterLoop() throws.
  void activate();
  // For the destructor of the public object, without the lock: no call begins any more, and none is
  // under way on another thread when this returns.
  void withdraw() noexcept;
  // Waits for calls on other threads.
  void awaitCalls() const { Calls::await(this); }
  bool isUnderWayElsewhere() const { return Calls::isUnderWay(this); }

  // Makes it one of the current loop, unless it is. Throws VarnException.
  void enlist();
  bool isEnlisted() const;

  std::string describe() const override { return m_pKind; }

  // It is due, or something has come: a call is to be made. Several of them are one call.
  void pend();
  // Takes that back.
  void unpend();
  void onDeadline() override { pend(); }

 protected:
  using Calls = LoopCalls;

  // The steps of a call. What it is for is taken; the call is made, without the lock; and what was
  // put off until then is done, if the object still is one of the loop.
  virtual void beginCall(MonotonicTime now) = 0;
  virtual void makeCall() = 0;
  virtual void endCall() {}
  // What activate() is about. Takes the lock itself.
  virtual void enterLoop() {}
  // It is about to leave the loop.
  virtual void leaveLoop() {}

  // Around what an object does by itself, like a call.
  void holdCalls() { m_bRunning = true; }
  void letCalls();

  void setDeadline(MonotonicTime deadline);
  void clearDeadline();

  // For objects that are active once they are made: the first call may begin before the destructor
  // of a static object is known to the system. The exit is watched anew after that, lest such a
  // destructor waits for a function that hangs.
  void noteFirstCall() {
    if (!std::exchange(m_bCalled, true))
      ProcessExit::noteObject();
  }

  // Whether no call may begin. Needs no lock.
  bool isOver() const { return m_bWithdrawn || ProcessExit::hasBegun(); }
  // Calls user code. What it throws goes to the log and is told.
  template <typename Function>
  void guarded(Function function) const {
    try {
      function();
    } catch (...) {
      passOnCancellation();
      tellException();
    }
  }

  bool hasPool() const { return m_pPool != nullptr; }
  bool isPending() const { return m_bPending; }
  bool isRunning() const { return m_bRunning; }
  EventLoop& loop() const { return *m_pLoop; }
  const char* kind() const { return m_pKind; }

 private:
  friend class CallQueue;

  void tellException() const noexcept;

  const char* const m_pKind;
  const std::shared_ptr<VarnCallbackPool::State> m_pPool;  // null: the thread of the loop calls
  Callee* m_pNext = nullptr;                               // in the queue
  Callee* m_pPrevious = nullptr;
  CallQueue* m_pQueue = nullptr;
  // Side by side with what derived classes begin with: starting a timer among many that are not in
  // a cache touches little memory.
  EventLoop* m_pLoop = nullptr;
  DeadlineHeap<LoopObject>::Slot m_nSlot = 0;
  std::atomic<bool> m_bWithdrawn{false};
  bool m_bPending = false;
  bool m_bQueued = false;
  bool m_bRunning = false;
  bool m_bCalled = false;
};

}  // namespace VarnSupport

#endif
