// Timers: events that set themselves when their interval has passed, once or periodically.
//
// All timers share one manager, which drives them with the process interval timer (ITIMER_REAL),
// SIGALRM and SIGUSR1; a program must not use these. Resolution is one second: deadlines compare by
// whole seconds. Expired timers are set on a short-lived VarnTimerThread, one after the other, so a
// slow dependent delays the others. Timers are safe from any thread, from their own callbacks too.
#ifndef VARNSUPPORT_VARNTIMER_H
#define VARNSUPPORT_VARNTIMER_H

#include <atomic>
#include <cstdint>
#include <ctime>
#include <memory>
#include <vector>

#include "VarnSupport/VarnCriticalSection.h"
#include "VarnSupport/VarnEvent.h"
#include "VarnSupport/VarnExport.h"
#include "VarnSupport/VarnThread.h"

namespace VarnSupport {

class VSUPT_EXPORT VarnTimer : public VarnEvent {
 public:
  // Seconds and thousandths of one, both signed.
  struct VSUPT_EXPORT TimeInterval {
    TimeInterval() = default;
    TimeInterval(long wholeSeconds, long thousandths) { set(wholeSeconds, thousandths); }
    // Moves whole seconds out of the milliseconds; negative values stay negative.
    void set(long wholeSeconds, long thousandths);

    // Asymmetric: with equal seconds, an interval is less when its own seconds exceed its own
    // milliseconds, and equal when they are the same. Callers rely on it: it makes deadlines, which
    // are seconds since the epoch, compare by whole seconds.
    bool operator<(const TimeInterval& other) const;
    bool operator==(const TimeInterval& other) const;
    bool operator<=(const TimeInterval& other) const;

    std::int32_t seconds = 0;
    std::int32_t milliseconds = 0;
  };

  // Constructing does not start a timer. Periodic unless `oneShot`.
  VarnTimer();
  VarnTimer(long milliseconds, bool oneShot);
  VarnTimer(long seconds, long milliseconds, bool oneShot);
  // Stops the timer and waits for a callback that is under way, unless called from it. A derived
  // class that overrides set() calls stopAndWait() in its own destructor.
  ~VarnTimer() override;

  // Starts the timer again with its stored interval.
  void reset() override;
  // (Re)starts the timer; with both parts below 1 it stays stopped. After the timer manager has
  // been shut down these quietly do nothing.
  virtual void start(long milliseconds, bool oneShot);
  virtual void start(long seconds, long milliseconds, bool oneShot);
  // Stops the timer; a callback may be under way on another thread.
  virtual void stop();
  virtual bool isOneShot() const;
  // Stops the timer, and when it returns no callback is under way, unless it is called from one.
  void stopAndWait();

 private:
  friend class VarnTimerManager;

  // Changed under the list lock of the manager; the flags are read without it.
  TimeInterval m_oInterval;
  TimeInterval m_oDeadline;  // while active, its place in the manager's schedule
  std::atomic<bool> m_bOneShot{false};
  bool m_bVisited = false;
  std::atomic<bool> m_bActive{false};
};

// Keeps the active timers by deadline and sets those that are due. Lock order: pass lock, list
// lock. No callback runs under the list lock.
class VSUPT_EXPORT VarnTimerManager {
 public:
  // The one manager, made on first use. Throws VarnException ("VarnTimerManager::getInstance:
  // Exiting system") once a manager was destroyed or the library has shut its timers down.
  static VarnTimerManager& getInstance();
  // Shuts the manager down, if there is one, and waits for the expiry passes that are under way,
  // but no longer than a few seconds.
  static void deleteInstance();

  VarnTimerManager();
  VarnTimerManager(const VarnTimerManager&) = delete;
  VarnTimerManager& operator=(const VarnTimerManager&) = delete;
  virtual ~VarnTimerManager();

  // Puts a timer into the list, or takes it out, and makes sure that the interval timer is armed.
  void add(VarnTimer& timer);
  void remove(VarnTimer& timer);
  // Puts a timer into the list, in front of those due in the same second. Requires: list lock held.
  void addImpl(VarnTimer& timer) VSUPT_REQUIRES(m_oListLock);
  // Makes sure that the interval timer is armed for the first deadline: by sending SIGUSR1 to the
  // process, unless it is armed already, or, with `inSignal`, directly. When the deadline has
  // passed, a VarnTimerThread runs a pass at once.
  void reset(bool inSignal);
  // Sets every timer that is due, on the calling thread. Waits for a pass that is under way on
  // another thread; from a callback of its own pass it returns at once.
  void elapsed();
  // Makes sure that a VarnTimerThread runs a pass.
  void timeout();
  // Sets the manager's own event, for which nothing in the library waits.
  void cancelTimer();

  static std::atomic<VarnTimerManager*> m_pThis;
  static std::atomic<bool> m_bExiting;

  // Of the library itself.
  struct State;
  struct Fork;
  class Pass;

 private:
  friend class VarnTimer;
  friend class VarnTimerThread;
  static bool isAtRest(const VarnTimer& timer);
  void shutDown();
  void declinePass();

  VarnEvent m_oEvent;
  std::vector<VarnTimer*> m_vTimers;  // empty: the state has the timers
  VarnCriticalSectionObject m_oListLock;
  VarnTimer::TimeInterval m_oNextExpiry VSUPT_GUARDED_BY(m_oListLock){1, 0};
  std::atomic<bool> m_bCancel{false};
  VarnCriticalSectionObject m_oPassLock;
  bool m_bBusy VSUPT_GUARDED_BY(m_oListLock) = false;
  std::unique_ptr<State> m_pState;
};

// Runs one expiry pass and deletes itself.
class VSUPT_EXPORT VarnTimerThread : public VarnThread {
 public:
  explicit VarnTimerThread(VarnTimerManager& manager);
  ~VarnTimerThread() override;

  using VarnThread::run;
  int run() override;

 private:
  friend class VarnTimerManager;

  static bool launchFor(VarnTimerManager& manager);

  VarnTimerManager& m_oManager;
};

}  // namespace VarnSupport

#endif
