#include <pthread.h>

#include "TestTools.h"
#include "VarnSupport/VarnCriticalSection.h"

namespace {

// What another thread gets from a try.
bool otherThreadGets(VarnCriticalSectionObject& lock) {
  return elsewhere([&] {
    const bool taken = lock.testAndSet();
    lock.unlock();
    return taken;
  });
}

LockImplementation* newest() {
  return static_cast<LockImplementation*>(pthread_getspecific(LockThreadStorage::m_mutexListKey));
}

}  // namespace

TEST(VarnCriticalSection, IsRecursiveAndCounts) {
  VarnCriticalSectionObject lock;
  EXPECT_EQ(0, lock.lockCount());
  lock.lock();
  lock.lock();
  EXPECT_TRUE(lock.testAndSet());
  EXPECT_EQ(3, lock.lockCount());
  EXPECT_FALSE(otherThreadGets(lock));
  std::thread([&] { lock.unlock(); }).join();
  for (int left = 3; left > 0; --left) {
    EXPECT_EQ(left, lock.lockCount());
    EXPECT_FALSE(otherThreadGets(lock));
    lock.unlock();
  }
  EXPECT_EQ(0, lock.lockCount());
  lock.unlock();
  EXPECT_TRUE(otherThreadGets(lock));
  lock.lock();
  lock.lock();
  lock.unwind();
  EXPECT_TRUE(otherThreadGets(lock));
}

TEST(VarnCriticalSection, CopiesOfAUsedLockAreOneLock) {
  VarnCriticalSectionObject used;
  VarnCriticalSectionObject before(used);
  used.lockCount();
  VarnCriticalSectionObject after(used);
  VarnMutexObject assigned;
  static_cast<VarnCriticalSectionObject&>(assigned) = used;
  used.lock();
  EXPECT_TRUE(otherThreadGets(before));
  EXPECT_FALSE(otherThreadGets(after));
  EXPECT_FALSE(otherThreadGets(assigned));
  after.unlock();
  EXPECT_TRUE(otherThreadGets(used));
  used.lock();
  used = before;  // the hold stays with the lock that `after` still names
  EXPECT_TRUE(otherThreadGets(used));
  EXPECT_FALSE(otherThreadGets(after));
  after.unlock();
}

TEST(VarnCriticalSection, TheLastSharerGivesUpItsHolds) {
  LockImplementation* const outer = newest();
  {
    VarnCriticalSectionObject lock;
    VarnCriticalSection guard(lock, true);
    guard.unlock();
    guard.unlock();  // one level only
    lock.lock();
    lock.lock();
    EXPECT_EQ(2, lock.lockCount());
    EXPECT_NE(outer, newest());
  }
  EXPECT_EQ(outer, newest());
}

TEST(VarnCriticalSection, TheThreadListFollowsLocksTakenAndGivenUpInAnyOrder) {
  VarnCriticalSectionObject a;
  VarnCriticalSectionObject b;
  VarnCriticalSectionObject c;
  EXPECT_EQ(nullptr, newest());
  a.lock();
  LockImplementation* const first = newest();
  b.lock();
  c.lock();
  b.unlock();
  c.unlock();
  EXPECT_EQ(first, newest());
  b.lock();
  b.lock();
  c.lock();
  a.unlock();
  VarnCriticalSectionRecoverFn(nullptr);
  EXPECT_EQ(nullptr, newest());
  for (VarnCriticalSectionObject* const lock : {&a, &b, &c})
    EXPECT_TRUE(otherThreadGets(*lock));
}

TEST(VarnCriticalSection, RacingFirstUsersMakeOneLock) {
  for (int round = 0; round < 200; ++round) {
    VarnCriticalSectionObject lock;
    int unguarded = 0;
    std::atomic<int> ready{0};
    onThreads(3, [&](int) {
      ++ready;
      while (ready < 3) {
      }
      for (int i = 0; i < 20; ++i) {
        const VarnCriticalSection guard(lock, true);
        ++unguarded;
      }
    });
    ASSERT_EQ(60, unguarded);
  }
}

static_assert(std::is_nothrow_destructible_v<VarnCriticalSection>, "a guard may be a member");
