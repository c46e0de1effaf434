// Waits racing thread ends, self-deletion by the thousand, observers, counts.
#include "LibraryTools.h"

namespace {

long residentKilobytes() {
  for (const std::string& line : linesOf("/proc/self/status")) {
    if (line.rfind("VmRSS:", 0) == 0)
      return std::stol(line.substr(6));
  }
  return 0;
}

std::atomic<int> mortalsAlive{0};

struct Mortal : VarnThread {
  Mortal() : VarnThread("mortal") { ++mortalsAlive; }
  ~Mortal() override { --mortalsAlive; }
};

bool areAllGone() { return mortalsAlive == 0 && areAllReaped(); }

void runMortals(int count) {
  for (int i = 0; i < count; ++i) {
    auto* const thread = new Mortal;
    thread->setMarkForDeath();
    thread->start();
    if (i % 200 == 199) {
      ASSERT_TRUE(eventually(areAllGone));
    }
  }
  ASSERT_TRUE(eventually(areAllGone));
}

// Has nothing to destroy, so that it can be cancelled anywhere.
struct Locker : VarnThread {
  std::array<VarnCriticalSectionObject, 2> locks;
  std::atomic<bool> started{false};
  int run() override {
    for (started = true;;) {
      locks[0].lock();
      locks[1].lock();
      locks[0].lock();
      locks[0].unlock();
      locks[0].unlock();
      locks[1].unlock();
    }
  }
};

}  // namespace

TEST(ThreadStress, WaitsRacingTheEndsOfThreads) {
  std::mt19937 random(7);
  for (int round = 0; round < 1000; ++round) {
    const auto turns = static_cast<unsigned>(random() % 20000);
    Task thread([turns] { spin(turns); });
    thread.start();
    const int result = thread.wait(1 + static_cast<int>(random() % 900));
    ASSERT_TRUE(result == 0 || result == -2) << result;
  }
}

// The threads end once the wait for them is under way: it does not notice those that have ended
// before.
TEST(ThreadStress, WaitsForAllAndForTheFirstOfSixteen) {
  const auto end = Clock::now() + stressTime();
  const pid_t self = gettid();
  for (unsigned round = 0; Clock::now() < end; ++round) {
    std::atomic<bool> gate{false};
    std::vector<std::unique_ptr<Task>> threads;
    std::vector<VarnThread*> pointers;
    for (unsigned i = 0; i < 16; ++i) {
      threads.push_back(std::make_unique<Task>([&gate, i] {
        gate.wait(false);
        spin(i * 100);
      }));
      pointers.push_back(threads.back().get());
      pointers.back()->start();
    }
    const std::jthread opener([&] {
      EXPECT_TRUE(eventually([&] { return isAsleep(self); }));
      gate = true;
      gate.notify_all();
    });
    const bool all = round % 2 == 0;
    const int result = VarnThread::wait(pointers, all, 20000);
    ASSERT_GE(result, 0);
    ASSERT_LE(result, all ? 0 : 15);
  }
}

TEST(ThreadStress, WaitsOverEventsThatAreSetMeanwhile) {
  const auto end = Clock::now() + stressTime();
  while (Clock::now() < end) {
    std::array<VarnEvent, 4> events;
    std::vector<VarnEvent*> pointers;
    for (VarnEvent& event : events)
      pointers.push_back(&event);
    const auto setter = repeating([&] {
      for (VarnEvent& event : events)
        event.set();
      std::this_thread::yield();
    });
    EXPECT_EQ(0, VarnEvent::wait(pointers, true, -1));
    const int first = VarnEvent::wait(4, events.data(), false, -1);
    EXPECT_GE(first, 0);
    EXPECT_LT(first, 4);
    EXPECT_GE(VarnEvent::wait(pointers, false, 20000), 0);  // ends at once
  }
}

TEST(ThreadStress, TenThousandSelfDeletingThreadsLeaveNothing) {
  const int threads = threadCount() + 1;  // the one that joins the others
  // The last ones may still be on their way to the list, or be listed though they are joined.
  const auto haveLeft = [&] { return entriesIn("/proc/self/task") <= threads; };
  runMortals(500);
  ASSERT_TRUE(eventually(haveLeft));
  const int descriptors = entriesIn("/proc/self/fd");
  const long memory = residentKilobytes();
  runMortals(10000);
  EXPECT_TRUE(eventually(haveLeft));
  EXPECT_EQ(descriptors, entriesIn("/proc/self/fd"));
  // Each thread that was not joined would keep a page of its stack at least.
  EXPECT_TRUE(kInstrumented || residentKilobytes() < memory + 10000);
}

// Cancelling instrumented code at any instruction is not supported by the instrumentation.
TEST(ThreadStress, ThreadsKilledWhileTheyLockLeaveEveryLockFree) {
  const auto end = Clock::now() + stressTime();
  for (unsigned round = 0; !kInstrumented && Clock::now() < end; ++round) {
    Locker locker;
    locker.start();
    while (!locker.started) {
    }
    spin(round * 37 % 1000);
    killAndJoin(locker);
    ASSERT_EQ(-1, locker.getExitCode());
    for (VarnCriticalSectionObject& lock : locker.locks)
      ASSERT_TRUE(lock.testAndSet());
    for (VarnCriticalSectionObject& lock : locker.locks)
      lock.unlock();
  }
}

TEST(ThreadStress, ObserversComeAndGoDuringNotifications) {
  VarnCollaborator source;
  std::array<Observer, 8> observers;
  {
    const auto notify = [&] { source.notify(VarnNotification()); };
    const auto change = [&] {
      thread_local std::mt19937 random(std::random_device{}());
      Observer& observer = observers[random() % observers.size()];
      if (random() % 2 == 0)
        source.addDependent(observer);
      else
        source.removeDependent(observer);
    };
    const std::jthread threads[] = {repeating(notify), repeating(change), repeating(notify),
                                    repeating(change)};
    std::this_thread::sleep_for(stressTime());
  }
  EXPECT_TRUE(std::any_of(observers.begin(), observers.end(),
                          [](const Observer& observer) { return observer.calls > 0; }));
}

// Counts go on meanwhile on threads that live, are killed, or end while they hold the section, and
// in children.
TEST(ThreadStress, CountsStandStillForWhoeverHoldsTheGlobalSection) {
  const VarnSmartPointer<VarnWorkInformation> counted(new VarnWorkInformation);
  VarnCriticalSectionObject copy(*g_pCriticalSection);
  const auto isStillFor = [&](VarnCriticalSectionObject& held) {
    const int count = counted->refCount();
    spin(50);
    const bool isStill = counted->refCount() == count && counted->addRef() == count + 1 &&
                         counted->release() == count && counted->refCount() == count;
    held.unlock();
    return isStill;
  };
  const auto count = [&] {
    for (int i = 0; i < 2000; ++i)
      const VarnSmartPointer<VarnWorkInformation> taken(counted);
  };
  const auto countUntilKilled = [&] {
    if (kInstrumented)
      return;  // the instrumentation may not survive it
    Task killed([&] {
      for (;;)
        count();
      return 0;
    });
    killed.start();
    count();
    killed.kill();
    killed.waitForThreadExit();
  };
  {
    const std::jthread counting[] = {repeating(count), repeating(count), repeating([&] {
                                       countUntilKilled();
                                       Task holder([] { g_pCriticalSection->lock(); });
                                       holder.start();
                                       holder.waitForThreadExit();
                                     })};
    const auto end = Clock::now() + stressTime();
    for (int round = 0; Clock::now() < end; ++round) {
      VarnCriticalSectionObject& way = round % 2 == 0 ? *g_pCriticalSection : copy;
      if (round % 3 != 0 || !way.testAndSet())
        way.lock();
      ASSERT_TRUE(isStillFor(way)) << round;
      if (round % 100 == 0) {
        expectInBareChild([&] {
          copy.lock();
          EXPECT_TRUE(isStillFor(copy));
          EXPECT_EQ(0, copy.lockCount());
        });
      }
      for (int rest = round % 7 * 300; rest > 0; --rest)
        const VarnSmartPointer<VarnWorkInformation> taken(counted);
    }
  }
  EXPECT_EQ(1, counted->refCount());
}
