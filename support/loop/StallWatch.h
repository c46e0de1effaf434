// Tells in the log when a call takes longer than a second.
#ifndef SUPPORT_LOOP_STALLWATCH_H
#define SUPPORT_LOOP_STALLWATCH_H

#include <string>
#include <vector>

#include "runtime/Descriptor.h"
#include "runtime/System.h"

namespace VarnSupport {

class LoopObject;

// Its thread sleeps at a timer of the system, which is set while calls are made and no longer: a
// process whose calls are short never wakes it. Guarded by the lock of the loop.
class StallWatch {
 public:
  // A thread that makes calls, for as long as it does; stands on its stack. Making and destroying
  // it takes the lock.
  class Worker {
   public:
    // `waiting` is how many objects are in line for the thread and its like; null where others
    // are always held up.
    explicit Worker(StallWatch& watch, const std::size_t* waiting = nullptr);
    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;
    ~Worker();

    void begin(const LoopObject& object, MonotonicTime now);
    void end() { m_pObject = nullptr; }
    // The thread is about to wait.
    void rest() { m_oWatch.disarmIfIdle(); }

   private:
    friend class StallWatch;

    bool holdsUpOthers() const { return m_pWaiting == nullptr || *m_pWaiting > 0; }

    StallWatch& m_oWatch;
    const std::size_t* const m_pWaiting;
    Worker* m_pNext = nullptr;
    const LoopObject* m_pObject = nullptr;  // of the call that is under way
    MonotonicTime m_oBegin{};
    bool m_bTold = false;
  };

  StallWatch() = default;
  StallWatch(const StallWatch&) = delete;
  StallWatch& operator=(const StallWatch&) = delete;

  // Without a thread nothing is told.
  void ensureRunning();
  void stop();
  void closeInChild() { m_oTimer.close(); }

 private:
  static constexpr std::chrono::seconds kPatience{1};

  void run();
  std::vector<std::string> takeStalled();
  void arm(MonotonicTime time);
  void disarmIfIdle();

  Worker* m_pWorkers = nullptr;
  Descriptor m_oTimer;
  bool m_bArmed = false;
  bool m_bRunning = false;
  bool m_bStopping = false;
};

}  // namespace VarnSupport

#endif
