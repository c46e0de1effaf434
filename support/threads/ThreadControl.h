// What a VarnThread and its POSIX thread share.
#ifndef SUPPORT_THREADS_THREADCONTROL_H
#define SUPPORT_THREADS_THREADCONTROL_H

#include <pthread.h>

#include <atomic>
#include <cassert>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>

#include "VarnSupport/VarnThread.h"
#include "runtime/Cancellation.h"
#include "runtime/System.h"

namespace VarnSupport {

// Each side holds one use, and so does who waits for the thread or kills it; the last to drop it
// deletes the control. The thread touches its object only between beginBody() and the end of its
// announcement, and abandon() makes sure that it does not even then: an object may be killed and
// destroyed at any moment of its thread's life.
class ThreadControl : public CancellationState {
 public:
  // What the thread runs; without a runnable it is the object's own body.
  struct Work {
    VarnSmartPointer<VarnThread::VarnRunnable> runnable;
    VarnSmartPointer<VarnWorkInformation> information;
  };

  // A use of an object's control for a scope: the owner may start the object anew, or destroy it.
  class Visit {
   public:
    explicit Visit(VarnThread& object);
    Visit(const Visit&) = delete;
    Visit& operator=(const Visit&) = delete;
    ~Visit();

    explicit operator bool() const { return m_pControl != nullptr; }
    ThreadControl* operator->() const {
      assert(m_pControl != nullptr);
      return m_pControl;
    }

   private:
    ThreadControl* m_pControl;
  };

  // Gives the object a control, which it uses. Requires: it has none.
  static ThreadControl& make(VarnThread& object, const std::string& systemName, const Work& work);
  // Separates the object from its control, if it has one, and both from the thread.
  static void part(VarnThread& object);

  // The name of an object, which any thread may change at any time.
  static std::string nameOf(const VarnThread& object);
  static void setNameOf(VarnThread& object, std::string name);

  ThreadControl(const ThreadControl&) = delete;
  ThreadControl& operator=(const ThreadControl&) = delete;

  // The control of the calling thread if that was started for `object`, else null.
  static ThreadControl* of(const VarnThread& object);

  // For the owner of the object, and for those who wait.

  // Creates the thread and stores its identifier before the thread can go on.
  bool start(pthread_t& handle);
  // Joins the thread, unless it was detached or another caller does so: then waits for its end.
  void join();
  // The same; a thread that has not ended before `deadline` is left alone.
  void joinBefore(MonotonicTime deadline);
  void detach();
  // Has the thread unwound, and gives it some milliseconds to end.
  void cancel();
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

  // The body of the thread, for a scope in which it can be cancelled.
  class Body {
   public:
    explicit Body(ThreadControl& control);
    Body(const Body&) = delete;
    Body& operator=(const Body&) = delete;
    ~Body();

    // What there is to do; null when the object is gone.
    const Work* work() const { return m_pWork; }

   private:
    ThreadControl& m_oControl;
    const Work* m_pWork;
  };

  // Both are false when the object is gone. After beginAnnouncement() and until endAnnouncement()
  // the object stays, unless this very thread destroys it.
  bool beginAnnouncement();
  bool isAbandoned();
  // Empty when the object is gone.
  std::string nameOfObject();
  void endAnnouncement();
  // True when the thread still has to be joined, which from then on is up to the caller.
  bool claimJoin();

  struct Fork;

 private:
  enum tPhase { BODY, ANNOUNCING, FINISHED };

  class Use;
  ThreadControl(VarnThread& object, const std::string& systemName, const Work& work);
  ~ThreadControl() = default;
  void drop();
  void abandon();
  static void* routine(void* control);
  bool belongsToThisProcess() const;

  std::atomic<int> m_nUses{1};
  const std::string m_sSystemName;
  const VarnThread* const m_pIdentity;  // the object's address, which may be another's by now
  Work m_oWork;                         // used by the thread alone
  std::mutex m_oMutex;
  std::condition_variable m_oChanged;
  // Guarded by m_oMutex.
  VarnThread* m_pObject;  // null once the object is gone
  pthread_t m_hThread{};
  std::uint32_t m_nForks;  // of the process that the thread is in
  tPhase m_ePhase = BODY;
  std::atomic<bool> m_bEnded{false};
  bool m_bJoinable = false;
};

}  // namespace VarnSupport

#endif
