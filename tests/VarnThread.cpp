#include "VarnSupport/VarnThread.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <stdexcept>
#include <vector>

#include "TestTools.h"

using namespace VarnSupport;
using namespace TestTools;

namespace {

// Runs a function; the derived part outlives the body.
class Task : public VarnThread {
 public:
  explicit Task(std::function<int()> body, const std::string& name = "task")
      : VarnThread(name), m_oBody(std::move(body)) {}
  ~Task() override { waitForThreadExit(); }
  int run() override { return m_oBody(); }

 private:
  std::function<int()> m_oBody;
};

class Gate {
 public:
  void open() { m_bOpen = true; }
  int pass(int result) {
    EXPECT_TRUE(eventually([this] { return m_bOpen.load(); }));
    return result;
  }

 private:
  std::atomic<bool> m_bOpen{false};
};

class DoneObserver : public VarnDependent {
 public:
  void handleNotification(VarnCollaborator& source, const VarnNotification& n) override {
    thread = pthread_self();
    id = n.getId();
    exitCode = dynamic_cast<const VarnThread::ThreadDone&>(n).getExitCode();
    name = dynamic_cast<VarnThread&>(source).getName();
    ++calls;
  }
  pthread_t thread{};
  int id = 0;
  int exitCode = 0;
  std::string name;
  std::atomic<int> calls{0};
};

std::atomic<bool> looping{false};

// Its body has nothing to destroy, and no instrumentation that would: it can be cancelled at any
// instruction.
class Endless : public VarnThread {
 public:
  VarnCriticalSectionObject* first = nullptr;
  VarnCriticalSectionObject* second = nullptr;
  __attribute__((no_sanitize_thread)) int run() override {
    first->lock();
    first->lock();
    second->lock();
    looping.store(true);
    for (;;)
      m_nTurns = m_nTurns + 1;
  }

 private:
  volatile long m_nTurns = 0;
};

bool becomesFree(VarnCriticalSectionObject& lock) {
  return eventually([&] {
    const bool taken = lock.testAndSet();
    lock.unlock();
    return taken;
  });
}

}  // namespace

TEST(VarnThread, RunsNotifiesAndKeepsItsExitCode) {
  Task task([] { return 7; });
  DoneObserver observer;
  task.addDependent(observer);
  EXPECT_EQ(-1, task.getExitCode());
  EXPECT_FALSE(task.isAlive());
  EXPECT_EQ(0, task.wait(500));
  task.start();
  task.start();
  EXPECT_EQ(0, task.waitForThreadExit());
  EXPECT_EQ(7, task.getExitCode());
  EXPECT_TRUE(task.isAlive());
  ASSERT_TRUE(eventually([&] { return observer.calls == 1; }));
  EXPECT_EQ(3, observer.id);
  EXPECT_EQ(7, observer.exitCode);
  EXPECT_EQ("task", observer.name);
  EXPECT_FALSE(pthread_equal(observer.thread, pthread_self()));
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
  VarnThread plain("plain");
  EXPECT_EQ(0, plain._run());
  plain.setWorkInfo(new Work);
  EXPECT_EQ(0, plain._run());
  EXPECT_EQ(0, VarnThread::VarnRunnable().run());
}

TEST(VarnThread, ExceptionsEndABodyWithZero) {
  for (const int kind : {0, 1, 2}) {
    Task task([kind]() -> int {
      if (kind == 0)
        throw VarnException(3);
      if (kind == 1)
        throw std::runtime_error("x");
      throw kind;
    });
    task.start();
    task.waitForThreadExit();
    EXPECT_EQ(0, task.getExitCode());
  }
}

TEST(VarnThread, AFinishedThreadIsNotJoinedAnyMore) {
  auto thread = std::make_unique<VarnThread>("finished");
  DoneObserver observer;
  thread->addDependent(observer);
  thread->start();
  const pthread_t identifier = *static_cast<pthread_t*>(thread->getHandle());
  ASSERT_TRUE(eventually([&] { return observer.calls == 1 && thread->wait(1) == 0; }));
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
  std::thread opener([&] {
    sleepMs(50);
    gates[1].open();
  });
  EXPECT_EQ(1, VarnThread::wait(threads, false, -1));
  opener.join();
  EXPECT_EQ(1, threads[1]->getExitCode());
  gates[0].open();
  gates[2].open();
  std::vector<VarnThread*> rest{threads[0], threads[2]};
  for (VarnThread* const thread : rest)
    EXPECT_EQ(0, thread->wait(20000));
}

TEST(VarnThread, EmptySetsOfThreads) {
  std::vector<VarnThread*> none;
  EXPECT_EQ(0, VarnThread::wait(none, true, -1));
  EXPECT_EQ(-2, VarnThread::wait(none, false, 1));
  EXPECT_EQ(0, VarnThread::wait(-1, nullptr, true, 1));
}

TEST(VarnThread, ManualNotificationsCountForAWait) {
  VarnThread idle[2];
  std::thread notifier([&] {
    for (VarnThread& thread : idle) {
      sleepMs(50);
      thread.notify(VarnThread::ThreadDone(0));
    }
  });
  std::vector<VarnThread*> threads{&idle[0], &idle[1]};
  EXPECT_EQ(0, VarnThread::wait(threads, true, 20000));
  notifier.join();
}

TEST(VarnThread, MarkedForDeathDeletesItselfAndIsJoined) {
  static std::atomic<int> alive{0};
  struct Mortal : VarnThread {
    Mortal() : VarnThread("mortal") { ++alive; }
    ~Mortal() override { --alive; }
  };
  for (int i = 0; i < 20; ++i) {
    auto* const thread = new Mortal;
    thread->setMarkForDeath();
    thread->start();
  }
  const auto isReaped = [] {
    const VarnCriticalSection guard(g_exitThreadLock, true);
    return g_vExitThreads.empty();
  };
  EXPECT_TRUE(eventually([&] { return alive == 0 && isReaped(); }));
}

// The list would keep an identifier that another thread may have by the time of the join.
TEST(VarnThread, ADetachedThreadThatDeletesItselfIsNotListedToBeJoined) {
  struct Mortal : VarnThread {
    int run() override {
      while (!marked)
        std::this_thread::yield();
      return 0;
    }
    std::atomic<bool> marked{false};
  };
  const VarnCriticalSection guard(g_exitThreadLock, true);
  const int threads = entriesIn("/proc/self/task");
  auto* const thread = new Mortal;
  thread->setMarkForDeath();
  thread->start();
  thread->setMarkForKill();
  thread->marked = true;
  EXPECT_TRUE(eventually([&] { return entriesIn("/proc/self/task") <= threads; }));
}

TEST(VarnThread, AKilledThreadFreesItsLocks) {
  VarnCriticalSectionObject first;
  VarnCriticalSectionObject second;
  for (const bool marked : {false, true}) {
    looping = false;
    Endless endless;
    endless.first = &first;
    endless.second = &second;
    endless.start();
    ASSERT_TRUE(eventually([] { return looping.load(); }));
    const pthread_t identifier = *static_cast<pthread_t*>(endless.getHandle());
    if (marked) {
      endless.setMarkForKill();
      endless.kill();
    } else {
      endless.kill();
      void* result = nullptr;
      EXPECT_EQ(0, pthread_join(identifier, &result));
      EXPECT_EQ(PTHREAD_CANCELED, result);
    }
    EXPECT_FALSE(endless.isAlive());
    EXPECT_EQ(-1, endless.getExitCode());
    EXPECT_EQ(0, endless.wait(-1));
    EXPECT_TRUE(becomesFree(first) && becomesFree(second));
  }
}

TEST(VarnThread, AThreadThatWaitsForAnEventCanBeKilled) {
  struct Sleeper : VarnThread {
    int run() override {
      const VarnCriticalSection guard(lock, true);
      started = true;
      return event.wait(-1);
    }
    VarnEvent event;
    VarnCriticalSectionObject lock;
    std::atomic<bool> started{false};
  } sleeper;
  sleeper.start();
  ASSERT_TRUE(eventually([&] { return sleeper.started.load(); }));
  const pthread_t identifier = *static_cast<pthread_t*>(sleeper.getHandle());
  sleeper.kill();
  void* result = nullptr;
  EXPECT_EQ(0, pthread_join(identifier, &result));
  EXPECT_EQ(PTHREAD_CANCELED, result);
  EXPECT_EQ(0, sleeper.lock.lockCount());
}

TEST(VarnThread, EndsWithAllLocksFreeHoweverItEnds) {
  VarnCriticalSectionObject lock;
  Task task([&] {
    lock.lock();
    lock.lock();
    return 0;
  });
  task.start();
  task.waitForThreadExit();
  EXPECT_TRUE(becomesFree(lock));
}

TEST(VarnThread, AWaitInsideAnOpenRecordEnds) {
  EXPECT_EQ(0, runInChild([] {
              FileLog log(9);
              Gate gate;
              Task task([&] { return gate.pass(0); });
              task.start();
              log.log() << "first " << task.wait(1);
              gate.open();
              log.log() << ", then " << task.wait(20000) << endrecord;
              return log.texts() == std::vector<std::string>{"first -2, then 0"} ? 0 : 1;
            }));
}

TEST(VarnThread, TracesADepartureAtLevelNine) {
  FileLog log(9);
  Gate gate;
  Task task([&] { return gate.pass(0); }, "worker");
  task.start();
  std::thread opener([&] {
    sleepMs(50);
    gate.open();
  });
  EXPECT_EQ(0, task.wait(20000));
  opener.join();
  const std::vector<std::string> expected{
      "ThreadWaitDependent::handleNotification: thread worker departed",
      "ThreadWaitTimer::setJustEvent: delay has not expired, just setting event",
      "ThreadWaitDependent::handleNotification: returning"};
  EXPECT_EQ(expected, log.texts());
}
