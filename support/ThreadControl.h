// What a VarnThread and its POSIX thread share.
#ifndef SUPPORT_THREADCONTROL_H
#define SUPPORT_THREADCONTROL_H

#include <pthread.h>
#include <sys/types.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <string>

#include "Cancellation.h"
#include "VarnSupport/VarnThread.h"

namespace VarnSupport {

// Both sides hold one use each; the last to drop it deletes the control. The thread touches its
// object only between begin() and the end of its announcement, and abandon() makes sure that it
// does not even then: an object may be killed and destroyed at any moment of its thread's life.
class ThreadControl {
 public:
  // Used by the object that makes it.
  ThreadControl(VarnThread& object, const std::string& systemName);
  ThreadControl(const ThreadControl&) = delete;
  ThreadControl& operator=(const ThreadControl&) = delete;
  void drop();

  // The control of the calling thread if that runs `object`, else null.
  static ThreadControl* of(const VarnThread& object);

  // For the owner of the object.

  // Creates the thread and stores its identifier before the thread can go on.
  bool start(pthread_t& handle);
  // Joins the thread, unless it was detached or another caller does so: then waits for its end.
  void join();
  // True when the thread still has to be joined, which from then on is up to the caller.
  bool claimJoin();
  void detach();
  void cancel();
  // Separates the thread from its object; waits while it is telling the dependents.
  void abandon();
  // Runs `action` if the body has not returned yet, and keeps it from being announced meanwhile;
  // false when it has returned. A thread that a fork left behind stays in its body.
  template <typename Action>
  bool ifInBody(Action action) {
    std::unique_lock guard(m_oMutex, std::defer_lock);
    if (belongsToThisProcess())
      guard.lock();
    if (m_ePhase != BODY)
      return false;
    action();
    return true;
  }

  // For the thread.

  // Opens cancellation for the body, and closes it again.
  void enterBody() { m_oCancellation.enterBody(); }
  void leaveBody() { m_oCancellation.leaveBody(); }
  // Both are false when the object is gone. After beginAnnouncement() and until endAnnouncement()
  // the object stays, unless this very thread destroys it.
  bool beginAnnouncement();
  bool isAbandoned();
  void endAnnouncement();

  // The thread that forked is the only one in the child: makes its control belong there.
  static void adoptInChild();

 private:
  enum tPhase { BODY, ANNOUNCING, FINISHED };

  class Use;
  ~ThreadControl() = default;
  static void* routine(void* control);
  bool belongsToThisProcess() const;

  std::atomic<int> m_nUses{1};
  std::string m_sSystemName;  // fixed after construction
  CancellationState m_oCancellation;
  std::mutex m_oMutex;
  std::condition_variable m_oChanged;
  // Guarded by m_oMutex.
  VarnThread* m_pObject;
  pthread_t m_hThread{};
  pid_t m_nProcess;
  tPhase m_ePhase = BODY;
  bool m_bEnded = false;
  bool m_bJoinable = false;
};

}  // namespace VarnSupport

#endif
