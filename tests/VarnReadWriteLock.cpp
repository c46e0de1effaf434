#include "VarnSupport/VarnReadWriteLock.h"
#include "LibraryTools.h"

namespace {

bool take(VarnCriticalSectionObject& lock) { return lock.testAndSet(); }
bool take(VarnReadWriteLock& lock) { return lock.tryWriteLock(); }
void giveUp(VarnCriticalSectionObject& lock) { lock.unlock(); }
void giveUp(VarnReadWriteLock& lock) { lock.writeUnLock(); }

template <typename LockType>
bool isTaken(LockType& lock, bool taken) {
  if (taken)
    giveUp(lock);
  return taken;
}

// Whether another thread gets the lock, for writing.
template <typename LockType>
bool isFree(LockType& lock) {
  return elsewhere([&] { return isTaken(lock, take(lock)); });
}

bool isOpenToReaders(VarnReadWriteLock& lock) {
  return elsewhere([&] { return isTaken(lock, lock.tryReadLock()); });
}

// The state holds the platform's lock and no more.
static_assert(sizeof(RwLockImplementation) == sizeof(VarnObjectBase) + sizeof(pthread_rwlock_t));

template <typename LockType>
class VarnLockFactoryOf : public testing::Test {};
using LockTypes = testing::Types<VarnCriticalSectionObject, VarnMutexObject, VarnReadWriteLock>;
TYPED_TEST_SUITE(VarnLockFactoryOf, LockTypes, );

}  // namespace

TEST(VarnReadWriteLock, AdmitsManyReadersOrOneWriterThroughAllCopies) {
  const FileLog log(1);
  std::optional<VarnReadWriteLock> original(std::in_place);
  VarnReadWriteLock copy(*original);
  original->readLock();
  EXPECT_TRUE(isOpenToReaders(copy));
  EXPECT_FALSE(isFree(copy));
  copy.writeUnLock();  // the same call as readUnLock()
  original->writeLock();
  EXPECT_FALSE(isOpenToReaders(copy));
  original.reset();
  EXPECT_FALSE(isOpenToReaders(copy));
  copy.readUnLock();
  {
    const VarnReadSection reading(copy);
    EXPECT_TRUE(isOpenToReaders(copy));
    EXPECT_FALSE(isFree(copy));
  }
  {
    const VarnWriteSection writing(copy);
    EXPECT_FALSE(isOpenToReaders(copy));
  }
  EXPECT_TRUE(isFree(copy));
  EXPECT_EQ(Lines(), log.lines());
}

TEST(VarnReadWriteLock, FailuresAreLoggedAndTheLockStaysUsable) {
  FileLog log(1);
  VarnReadWriteLock lock;
  lock.readUnLock();
  lock.writeUnLock();
  EXPECT_TRUE(isFree(lock));
  lock.writeLock();
  lock.readLock();
  lock.writeLock();
  lock.writeUnLock();
  EXPECT_TRUE(isFree(lock));
  log.log().setLogLevel(0);
  lock.readUnLock();
  const Lines expected = {
      "VarnReadWriteLock::readUnLock: Releasing readlock exited with the following error3",
      "VarnReadWriteLock::writeUnLock: Releasing Writelock exited with the following error3",
      "VarnReadWriteLock::readLock: Acquiring Readlock exited with the following error 3",
      "VarnReadWriteLock::writeLock: Acquiring Writelock exited with the following error3"};
  EXPECT_EQ(expected, log.texts());
}

TEST(VarnReadWriteLock, AssignmentLeavesTheSourceAndAllOtherCopiesUsable) {
  VarnReadWriteLock source;
  VarnReadWriteLock sourceCopy(source);
  static auto& assigned = *new std::vector<VarnReadWriteLock*>;  // must not be destroyed
  assigned.push_back(new VarnReadWriteLock);
  VarnReadWriteLock targetCopy(*assigned.back());
  *assigned.back() = source;
  sourceCopy.writeLock();
  targetCopy.writeLock();
  EXPECT_FALSE(isOpenToReaders(source));
  sourceCopy.writeUnLock();
  targetCopy.writeUnLock();
  EXPECT_TRUE(isFree(source));
  EXPECT_TRUE(isFree(targetCopy));
}

TYPED_TEST(VarnLockFactoryOf, KeepsTheLockOfANameAndListsNamesInOrder) {
  VarnLockFactory<std::string, TypeParam> factory;
  for (const char* const name : {"b", "a", "\xC3\xA4", "B"})
    factory.createLock(name);
  TypeParam& lock = factory.get("a");
  ASSERT_TRUE(take(lock));
  factory.createLock("a");
  EXPECT_EQ(&lock, &factory.get("a"));
  EXPECT_FALSE(isFree(lock));
  EXPECT_TRUE(isFree(factory.get("b")));
  giveUp(lock);
  EXPECT_EQ((Lines{"B", "a", "b", "\xC3\xA4"}), factory.getRegisteredLockNames());
}

TYPED_TEST(VarnLockFactoryOf, CopiesShareTheLocksThatWereUsed) {
  VarnLockFactory<std::string, TypeParam> source;
  source.createLock("used");
  source.createLock("unused");
  EXPECT_TRUE(isFree(source.get("used")));
  VarnLockFactory<std::string, TypeParam> copy(source);
  VarnLockFactory<std::string, TypeParam> assigned;
  assigned.createLock("gone");
  assigned = source;
  EXPECT_EQ((Lines{"unused", "used"}), assigned.getRegisteredLockNames());
  ASSERT_TRUE(take(source.get("used")));
  ASSERT_TRUE(take(source.get("unused")));
  for (auto* const other : {&copy, &assigned}) {
    EXPECT_FALSE(isFree(other->get("used")));
    EXPECT_EQ((!std::is_same_v<TypeParam, VarnReadWriteLock>), isFree(other->get("unused")));
  }
  giveUp(source.get("used"));
  giveUp(source.get("unused"));
}

TEST(VarnLockFactory, ReportsAnUnknownName) {
  VarnLockFactory<std::string, VarnMutexObject> factory;
  VarnMutexObject other;
  VarnMutexObject* lock = &other;
  EXPECT_FALSE(factory.exists("missing"));
  EXPECT_FALSE(factory.getImpl("missing", lock));
  EXPECT_EQ(&other, lock);
  EXPECT_EQ("VarnNoSuchElementException - missing", resultOf([&] { factory.get("missing"); }));
}

TEST(VarnLockFactory, ThreadsThatRaceForANameGetOneLock) {
  VarnLockFactory<int, VarnMutexObject> factory;
  int counter = 0;
  onThreads(2, [&](int) {
    for (int i = 0; i < 400; ++i) {
      factory.createLock(i);
      factory.createLock(-1);
      VarnMutexObject* lock = nullptr;
      ASSERT_TRUE(factory.getImpl(-1, lock));
      const VarnCriticalSection guard(*lock, true);
      ++counter;
    }
  });
  EXPECT_EQ(800, counter);
}
