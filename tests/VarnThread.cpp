#include <latch>

#include "LibraryTools.h"
#include "VarnSupport/VarnDateTime.h"
#include "VarnSupport/VarnMonotonicTimer.h"
#include "VarnSupport/VarnThread.h"

namespace {

// The one wait out of which ThreadSanitizer follows a thread that is cancelled. Out of all others
// it believes the thread still in the wait, and takes what that does until it ends for unordered.
int sleepForEver() {
  std::mutex mutex;
  std::condition_variable never;
  std::unique_lock guard(mutex);
  for (;;)
    never.wait(guard);
}

// Keeps a body from returning until it is opened.
struct Gate : std::latch {
  Gate() : latch(1) {}
  std::jthread openedLater() {
    return std::jthread([this] {
      sleepMs(50);
      count_down();
    });
  }
  int pass(int result) { return wait(), result; }
};

}  // namespace

TEST(VarnThread, RunsNotifiesGivesUpItsLocksAndKeepsItsExitCode) {
  VarnCriticalSectionObject lock;
  Task task([&] {
    lock.lock();
    lock.lock();
    return 7;
  });
  Observer observer(task, [](VarnCollaborator& source, const VarnNotification& done) {
    EXPECT_EQ("task", dynamic_cast<VarnThread&>(source).getName());
    EXPECT_EQ(3, done.getId());
    EXPECT_EQ(7, dynamic_cast<const VarnThread::ThreadDone&>(done).getExitCode());
  });
  EXPECT_EQ(-1, task.getExitCode());
  EXPECT_FALSE(task.isAlive());
  EXPECT_EQ(0, task.wait(500));
  task.start();
  task.start();
  EXPECT_EQ(0, task.waitForThreadExit());
  EXPECT_EQ(7, task.getExitCode());
  EXPECT_TRUE(task.isAlive());
  EXPECT_TRUE(eventually([&] { return observer.calls == 1; }));
  EXPECT_TRUE(eventually([&] { return lock.testAndSet(); }));
  EXPECT_EQ(0, task.setPriority(VarnThread::PRIORITY_HIGH));
}

TEST(VarnThread, ChoosesItsBody) {
  struct Work : VarnWorkInformation {
    int value = 5;
  };
  struct Runnable : VarnThread::VarnRunnable {
    int run() override { return 1; }
    int run(VarnWorkInformation& work) override { return dynamic_cast<Work&>(work).value; }
  };
  VarnThread runnable(new Runnable);
  EXPECT_EQ("class VarnSupport10VarnThreadE", runnable.getName());
  EXPECT_EQ(1, runnable._run());
  runnable.setWorkInfo(new Work);
  EXPECT_EQ(5, runnable._run());
  VarnThread idle(new VarnThread::VarnRunnable, "idle");
  VarnThread plain("plain");
  plain.setWorkInfo(new Work);
  EXPECT_EQ(0, idle._run() + plain._run());
}

TEST(VarnThread, AFinishedThreadIsNotJoinedAnyMore) {
  auto thread = std::make_unique<VarnThread>("finished");
  const Observer observer(*thread);
  thread->start();
  const pthread_t identifier = *static_cast<pthread_t*>(thread->getHandle());
  ASSERT_TRUE(eventually([&] { return observer.calls == 1; }));
  ASSERT_TRUE(eventually([&] { return thread->wait(1) == 0; }));
  void* const address = thread.get();
  thread.reset();
  void* result = nullptr;
  EXPECT_EQ(0, pthread_join(identifier, &result));
  EXPECT_EQ(address, result);
}

TEST(VarnThread, WaitsForAllOrTheFirstOrATimeOut) {
  Gate gates[3];
  std::vector<std::unique_ptr<Task>> tasks;
  std::vector<VarnThread*> threads;
  for (int i = 0; i < 3; ++i) {
    tasks.push_back(std::make_unique<Task>([&gates, i] { return gates[i].pass(i); }));
    threads.push_back(tasks.back().get());
    threads.back()->start();
  }
  EXPECT_EQ(-2, threads[0]->wait(100));
  EXPECT_EQ(-2, VarnThread::wait(threads, true, 100));
  EXPECT_EQ(-1, threads[1]->getExitCode());
  {
    const auto opener = gates[1].openedLater();
    EXPECT_EQ(1, VarnThread::wait(threads, false, -1));
  }
  EXPECT_EQ(1, threads[1]->getExitCode());
  gates[0].count_down();
  gates[2].count_down();
  EXPECT_EQ(0, threads[0]->wait(20000) + threads[2]->wait(20000));
}

TEST(VarnThread, ItsEndIsToldWhileAnotherThatIsWaitedForHasARecordOpen) {
  expectInChild([] {
    const FileLog log(9);
    Gate gate;
    std::atomic<bool> isOpen{false};
    Task writer([&] {
      gate.wait();
      *VarnLogging::getInstance() << setloglevel(1) << "open";
      isOpen = true;
      sleepMs(50);
      return 0;
    });
    Task other([&] { return eventually([&] { return isOpen.load(); }) ? 0 : 1; });
    std::vector<VarnThread*> threads{&writer, &other};
    for (VarnThread* const thread : threads)
      thread->start();
    const auto opener = gate.openedLater();
    EXPECT_EQ(0, VarnThread::wait(threads, true, -1));
  });
}

// The platform cancels threads that the library does not run, in its own calls.
TEST(VarnThread, WhatCannotFailDoesNotUnwindAForeignThread) {
  VarnMonotonicTimer later(1h, [] {});
  later.start();
  VarnMonotonicTimer sooner(1min, [] {});
  struct Cancelled {
    std::function<void()> operation;
    bool isDone = false;
  };
  Cancelled all[] = {{[] { VarnDateTime().getTime(); }}, {[&] { sooner.start(); }}, {[] {
                       const VarnFunctionThread thread("", [] { sleepMs(50); });
                     }}};
  setenv("TZ", "Pacific/Chatham", 1);  // which has not been looked up yet
  for (Cancelled& one : all) {
    const auto run = [](void* given) -> void* {
      pthread_cancel(pthread_self());
      static_cast<Cancelled*>(given)->operation();
      static_cast<Cancelled*>(given)->isDone = true;
      pthread_testcancel();
      return nullptr;
    };
    pthread_t thread{};
    ASSERT_EQ(0, pthread_create(&thread, nullptr, run, &one));
    ASSERT_EQ(0, pthread_join(thread, nullptr));
    EXPECT_TRUE(one.isDone);
  }
  unsetenv("TZ");
}

TEST(VarnThread, AllWaitersAreToldOfTheEndOfAThreadThatDeletesItself) {
  Gate gate;
  auto* const task = new Task([&] { return gate.pass(0); });
  task->setMarkForDeath();
  task->start();
  std::vector<std::jthread> waiters;
  for (int i = 0; i < 7; ++i)
    waiters.push_back(startSleeper([&, i] { EXPECT_EQ(0, task->wait(i % 3 == 2 ? -1 : 20000)); }));
  gate.count_down();
}

TEST(VarnThread, ManualNotificationsCountForAWait) {
  VarnThread idle[2];
  const std::jthread notifier([&] {
    for (VarnThread& thread : idle) {
      sleepMs(50);
      thread.notify(VarnThread::ThreadDone(0));
    }
  });
  EXPECT_EQ(0, VarnThread::wait(2, idle, true, 20000));
}

// The list would keep an identifier that another thread may have by the time of the join.
TEST(VarnThread, ADetachedThreadThatDeletesItselfIsNotListedToBeJoined) {
  const VarnCriticalSection guard(g_exitThreadLock, true);
  const int threads = threadCount();
  struct Mortal : VarnThread {
    int run() override {
      while (!marked)
        std::this_thread::yield();
      return 0;
    }
    std::atomic<bool> marked{false};
  };
  auto* const thread = new Mortal;
  thread->setMarkForDeath();
  thread->start();
  thread->setMarkForKill();
  thread->marked = true;
  EXPECT_TRUE(eventually([&] { return entriesIn("/proc/self/task") <= threads; }));
}

TEST(VarnThread, AThreadThatWaitsForAnEventCanBeKilled) {
  VarnEvent event;
  VarnCriticalSectionObject lock;
  killAndJoin(*startTask([&] {
    const VarnCriticalSection guard(lock, true);
    event.wait(-1);
  }));
  EXPECT_EQ(0, lock.lockCount());
}

TEST(VarnThread, TracesWaitsAtLevelNineButNotInsideAnOpenRecord) {
  FileLog log(9);
  Gate gate;
  Task task([&] { return gate.pass(0); }, "worker");
  task.start();
  log.log() << "inside " << task.wait(1) << endrecord;
  EXPECT_EQ(-2, task.wait(1));
  {
    const auto opener = gate.openedLater();
    EXPECT_EQ(0, task.wait(20000));
  }
  Lines texts = log.texts();
  texts.erase(std::unique(texts.begin(), texts.end()), texts.end());  // it may expire again
  EXPECT_EQ((Lines{"inside -2", "ThreadWaitTimer::set: timer expired",
                   "ThreadWaitDependent::handleNotification: thread worker departed",
                   "ThreadWaitTimer::setJustEvent: delay has not expired, just setting event",
                   "ThreadWaitDependent::handleNotification: returning"}),
            texts);
}

// An object may go at any moment of its thread's life, with what the thread is to run.
TEST(VarnThread, AThreadThatIsKilledAsItStartsLeavesItsObjectAlone) {
  struct Endless : VarnThread::VarnRunnable {
    int run() override { return sleepForEver(); }
  };
  for (int i = 0; i < 50; ++i) {
    auto* const thread = new VarnThread(new Endless, "victim");
    thread->setMarkForKill();
    thread->start();
    spin(static_cast<unsigned>(i * 100));
    delete thread;
  }
}

TEST(VarnThread, WaitersSurviveThatTheThreadIsStartedAnew) {
  std::atomic<int> starts{0};
  Task thread([&] {
    ++starts;
    return sleepForEver();
  });
  const std::jthread waiters[] = {repeating([&] { thread.wait(-1); }),
                                  repeating([&] { thread.wait(-1); })};
  for (int i = 1; i <= 300; ++i) {
    thread.start();
    ASSERT_TRUE(eventually([&] { return starts == i; }));
    thread.kill();
  }
}

TEST(VarnThread, ThreadsThatWereKilledOrDestroyedByThemselvesKeepNoMemory) {
  struct Suicide : VarnThread, VarnDependent {
    Suicide() { addDependent(*this); }
    void handleNotification(VarnCollaborator&, const VarnNotification&) override { delete this; }
  };
  struct Endless : VarnThread {
    int run() override { return sleepForEver(); }
  };
  const auto mappings = [] { return linesOf("/proc/self/maps").size(); };
  const auto threads = threadCount();
  const auto run = [&](int count) {
    for (int i = 0; i < count; ++i) {
      (new Suicide)->start();
      Endless endless;
      endless.start();
      endless.kill();
      EXPECT_TRUE(eventually([&] { return entriesIn("/proc/self/task") <= threads + 1; }));
    }
  };
  run(20);
  const std::size_t before = mappings();
  run(100);
  EXPECT_LT(mappings(), before + 50);
}

TEST(VarnThread, ATimeOutPassesInsideTheCallbackOfATimer) {
  Gate gate;
  Task task([&] { return gate.pass(0); });
  task.start();
  VarnTimer timer(1, true);
  const Observer callback(timer, [&] { EXPECT_EQ(-2, task.wait(1000)); });
  timer.reset();
  EXPECT_TRUE(eventually([&] { return callback.calls == 1; }));
  gate.count_down();
}

TEST(VarnThread, AThreadMayBeKilledInDestructorsAndItsChildrenLive) {
  if (kThreadSanitizer)
    return;  // the platform cancels threads there at any instruction
  expectInChild([] {
    std::atomic<bool> entered{false};
    Task destroying([&] {
      Task sub([] { sleepMs(200); });
      sub.start();
      entered = true;
    });
    destroying.start();
    eventually([&] { return entered.load(); });
    destroying.kill();
    destroying.waitForThreadExit();

    // The request is for the thread in the parent, not for its child.
    Task forking([] {
      startBareChild([] {
        VarnCriticalSectionObject section;
        for (int i = 0; i < 1000; ++i)
          const VarnCriticalSection guard(section, true);
        return 7;
      });
    });
    forking.start();
    forking.kill();
    forking.waitForThreadExit();
    int status = 0;
    EXPECT_TRUE(wait(&status) == -1 || WEXITSTATUS(status) == 7) << status;
  });
}

TEST(VarnThread, ANameMayBeAskedForWhileItIsGiven) {
  const std::string names[] = {std::string(100, 'a'), std::string(200, 'b')};
  VarnThread thread(names[0]);
  const std::jthread other([&](const std::stop_token& over) {
    for (unsigned i = 0; !over.stop_requested(); ++i)
      thread.setName(names[i % 2]);
  });
  for (int i = 0; i < 300000; ++i) {
    const std::string name = thread.getName();
    ASSERT_TRUE(name == names[0] || name == names[1]) << name;
  }
}

// The main thread may end before the others; the last of them ends the process.
TEST(VarnThread, TheProcessEndsWithItsLastThreadAlthoughTheLibraryHasOne) {
  if (kThreadSanitizer)
    return;  // has a thread of its own that never ends
  pid_t child = 0;
  std::thread([&] {
    child = fork();
    if (child != 0)
      return;
    leaksCanBeFound = false;
    auto* const thread = new VarnThread("last");
    thread->setMarkForDeath();
    thread->start();
    pthread_exit(nullptr);
  }).join();
  EXPECT_EQ(0, outcomeOf(child));
}

TEST(VarnThread, SlowEndsOfThreadsHoldUpNeitherTimersNorForks) {
  struct Slow {
    ~Slow() { mayEnd.wait(false); }
    std::atomic<bool>& mayEnd;
  };
  std::atomic<bool> mayEnd{false};
  auto* const mortal = new Task([&] { thread_local const Slow slow{mayEnd}; });
  mortal->setMarkForDeath();
  mortal->start();
  VarnTimer timer(1000, true);
  const Observer observer(timer);
  timer.reset();
  EXPECT_TRUE(eventually([&] { return observer.calls == 1; }, 5s));
  EXPECT_EQ(3, runInBareChild([] { return 3; }));
  mayEnd = true;
  mayEnd.notify_all();
  EXPECT_TRUE(eventually(areAllReaped));
}
