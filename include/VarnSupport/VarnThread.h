// Threads: a named, reference-counted object around one POSIX thread.
//
// A thread runs its runnable, or its own run(), and when the body returns tells its dependents with
// ThreadDone, on the thread itself. Exceptions never leave a body: they make its exit code 0.
// Waiting, killing, naming and the queries are safe from any thread; starting and destroying belong
// to the owner.
//
// kill() makes a body unwind, with the destructors of its frames: at the entry of an operation of
// the library that takes something (a lock, a reference, an entry in a list), before that is taken;
// while it waits inside such an operation, which then leaves nothing behind, or in a call of the
// system; and in code of its own, at an instruction at which nothing is to be destroyed, or, after
// 110 ms, at any at which the destructors can run. Operations that give something back, destructors
// above all, are always done to their end, and so are the platform's own functions. The critical
// sections that a thread holds when it ends, however it ends, become free; read-write locks stay as
// they are.
//
// What remains for bodies that are killed:
// - What a frame holds by hand, without a destructor that gives it back, is lost. Compilers leave
//   out such clean-ups around code that cannot throw.
// - An object that a body is changing by itself when the 110 ms are over is destroyed half changed.
// - A handler for all exceptions (...) must throw again: the platform ends the process otherwise.
// - A body that never leaves a destructor, a function that must not throw, code without unwind
//   tables, exit(), or a callback that an operation of the library makes for it, goes on until it
//   does.
// - The library interrupts the thread by SIGUSR2. Where a body blocks that signal, it is killed in
//   the next operation that takes something.
#ifndef VARNSUPPORT_VARNTHREAD_H
#define VARNSUPPORT_VARNTHREAD_H

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "VarnSupport/VarnCollaborator.h"
#include "VarnSupport/VarnCriticalSection.h"
#include "VarnSupport/VarnEvent.h"
#include "VarnSupport/VarnExport.h"
#include "VarnSupport/VarnObjectBase.h"
#include "VarnSupport/VarnWorkInformation.h"

namespace VarnSupport {

class ThreadControl;

class VSUPT_EXPORT VarnThread : public VarnCollaborator, public VarnObjectBase {
 public:
  // The work of a thread, apart from the thread. The results are exit codes, 0 by default.
  class VSUPT_EXPORT VarnRunnable : public VarnObjectBase {
   public:
    VarnRunnable();
    ~VarnRunnable() override;

    virtual int run();
    virtual int run(VarnWorkInformation& workInformation);
  };

  // What dependents are told when the body has returned; its id is 3.
  class VSUPT_EXPORT ThreadDone : public VarnNotification {
   public:
    explicit ThreadDone(int exitCode);
    ThreadDone(const ThreadDone&) = default;
    ThreadDone& operator=(const ThreadDone&) = default;
    ~ThreadDone() override;

    int getExitCode() const { return m_nExitCode; }

   private:
    std::int32_t m_nExitCode;
  };

  // No value is acted on.
  enum t_Priority : int { PRIORITY_LOW, PRIORITY_NORMAL, PRIORITY_HIGH };

  // Without a name the thread is called "class " and the type name of VarnThread itself. A name
  // that is given also becomes the system's name of the thread, cut to 15 bytes.
  VarnThread();
  explicit VarnThread(const std::string& name);
  explicit VarnThread(VarnSmartPointer<VarnRunnable> runnable);
  VarnThread(VarnSmartPointer<VarnRunnable> runnable, const std::string& name);
  VarnThread(const VarnThread&) = delete;
  VarnThread& operator=(const VarnThread&) = delete;
  // Waits for a running thread, unless it is marked: one marked for kill is cancelled, one marked
  // for death goes on without its object. A derived class whose run() uses its own members must see
  // to it that the body has ended before they go.
  ~VarnThread() override;

  // Starts the thread; does nothing while there is a handle. When the system refuses, the thread
  // stays without a handle and nothing is reported.
  virtual void start();
  // Does nothing; for derived classes.
  virtual void stop();
  // What run(VarnWorkInformation&) is called with; without any, or with null, it is run().
  // Requires: the thread is not running.
  virtual void setWorkInfo(VarnSmartPointer<VarnWorkInformation> workInformation);
  // Waits for the thread to end. 0 at once when it is not running; with -1 joins it and returns 0;
  // otherwise as the static form for this one thread (-2: the time-out passed). A thread that
  // nobody joined while it was running is never joined; callers rely on it.
  virtual int wait(int timeoutMs);
  // Does nothing and returns 0.
  virtual int setPriority(t_Priority priority);
  // The body without a runnable: the second with work information, else the first. A class that
  // overrides one hides the other, of which `using VarnThread::run;` keeps compilers from warning.
  virtual int run();
  virtual int run(VarnWorkInformation& workInformation);

  // wait(-1).
  int waitForThreadExit();
  // Waits for all of the threads, or for the first. Returns 0 for all, the index of the one that
  // finished last, or -2 when the time-out passed; time-outs have the resolution of timers (below
  // one second at once, else about the whole seconds), -1 and below 1 wait without limit. A thread
  // that had finished, or was never started, before the call is not noticed. An empty vector with
  // `waitAll` gives 0 at once; without, it waits for the time-out.
  static int wait(std::vector<VarnThread*>& threads, bool waitAll, int timeoutMs);
  // The same for an array of plain VarnThread objects; a count below 1 is an empty vector.
  static int wait(int count, VarnThread* threads, bool waitAll, int timeoutMs);

  std::string getName() const;
  void setName(const std::string& name);
  // The address of the thread's pthread_t while there is a handle, else null.
  void* getHandle() const;
  // -1 until the body has returned, and without a handle.
  int getExitCode() const;
  // True while there is a handle, also after the body has returned.
  bool isAlive() const;
  // Makes the object delete itself when its body ends; its owner must then not delete it.
  void setMarkForDeath();
  // Makes the destructor cancel the thread instead of waiting for it; detaches a thread that has
  // been started.
  void setMarkForKill();
  // Asks the thread to unwind (see above), if there is a handle, and gives up the handle. Waits up
  // to 10 ms for the end of the thread; what takes longer goes on without its object.
  void kill();
  // Frees a handle, sets it to null and notes that the thread is not running.
  void cleanup(void*& handle);
  // The caller's pthread_self().
  static pthread_t getCurrentThreadId();
  // Runs the body on the calling thread, then tells the dependents; returns the exit code.
  int _run();

 protected:
  // start() that tells whether it worked. Requires: nothing else is done with an object that may
  // delete itself once it was started.
  bool launch();
  // Waits for the thread's very end, whether or not it is running any more, and joins it. For the
  // destructors of threads whose handles nobody else has seen.
  void joinFinally();

 private:
  friend class ThreadControl;
  friend class WaitForSeveral;
  friend VSUPT_EXPORT void* VarnThreadFn(void* thread);

  int runBody(ThreadControl* control);
  VSUPT_LOCAL int callBody(ThreadControl* control, VarnRunnable* runnable,
                           VarnWorkInformation* workInformation);
  void giveUpHandle();

  std::atomic<void*> m_pHandle{nullptr};
  VarnSmartPointer<VarnWorkInformation> m_pWorkInformation;
  std::string m_sName;
  std::atomic<std::int32_t> m_nExitCode{-1};
  std::atomic<bool> m_bMarkedForDeath{false};
  std::atomic<bool> m_bMarkedForKill{false};
  std::atomic<bool> m_bRunning{false};
  VarnSmartPointer<VarnRunnable> m_pRunnable;
  VarnCriticalSectionObject m_oLock{false};  // used by no operation
  // What the object and its POSIX thread share; outlives whichever goes first.
  ThreadControl* m_pControl = nullptr;
};

extern template class VarnSmartPointer<VarnThread>;
extern template class VarnSmartPointer<VarnThread::VarnRunnable>;

// The entry point of every thread: runs the VarnThread and returns its address, or, when it is
// marked for death, deletes it and returns null.
VSUPT_EXPORT void* VarnThreadFn(void* thread);

// Threads that deleted themselves and wait to be joined, and the lock that guards the list.
extern VSUPT_EXPORT std::vector<pthread_t>& g_vExitThreads;
extern VSUPT_EXPORT VarnCriticalSectionObject& g_exitThreadLock;

// Waits for one event, for VarnEvent's waits for several.
class VSUPT_EXPORT VarnEventWaitThread : public VarnThread {
 public:
  // The event must outlive the thread.
  VarnEventWaitThread(VarnEvent& event, int timeoutMs);
  // Ends a wait that is still under way.
  ~VarnEventWaitThread() override;

  using VarnThread::run;
  int run() override;

 private:
  VarnEvent* m_pEvent;
  std::int32_t m_nTimeoutMs;
  std::atomic<bool> m_bStarted{false};
  // The event's number when the thread was made, so that no set() since then is lost.
  std::uint64_t m_nTicket;
  std::atomic<bool> m_bAbandoned{false};
};

}  // namespace VarnSupport

#endif
