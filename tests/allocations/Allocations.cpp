// What happens all the time takes no memory from the heap once it has happened before, and few
// calls of the system.
#include <dlfcn.h>
#include <malloc.h>

#include <ctime>
#include <new>

#include "LibraryTools.h"

namespace {

constinit thread_local long t_nAllocations = 0;
constinit thread_local long t_nLookUps = 0;  // of a local time

}  // namespace

// Replaces the operators of the whole process, the library's calls included. Compilers that look
// into both halves of a pair take them for a mismatch.
[[gnu::noinline]] void* operator new(std::size_t size) {
  ++t_nAllocations;
  if (void* const memory = std::malloc(size))
    return memory;
  throw std::bad_alloc();
}
[[gnu::noinline]] void* operator new(std::size_t size, std::align_val_t alignment) {
  ++t_nAllocations;
  if (void* const memory = std::aligned_alloc(static_cast<std::size_t>(alignment), size))
    return memory;
  throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, std::align_val_t) noexcept {
  std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, std::size_t, std::align_val_t) noexcept {
  std::free(memory);
}

// Replaces the system's, for the library, too.
extern "C" std::tm* localtime_r(const std::time_t* time, std::tm* local) noexcept {
  using Function = std::tm* (*)(const std::time_t*, std::tm*);
  static const auto system = reinterpret_cast<Function>(dlsym(RTLD_NEXT, "localtime_r"));
  ++t_nLookUps;
  return system(time, local);
}

namespace {

using namespace VarnSupport;

// On this thread, by a hundred calls after a first few.
template <typename Operation>
long allocationsOf(Operation operation) {
  for (int i = 0; i < 3; ++i)
    operation();
  const long before = t_nAllocations;
  for (int i = 0; i < 100; ++i)
    operation();
  return t_nAllocations - before;
}

TEST(Allocations, HotPathsMakeNone) {
  ASSERT_EQ(100, allocationsOf([] { delete new VarnObjectBase; }));
  const FileLog log(5);
  const std::string component("Worker");
  EXPECT_EQ(0, allocationsOf([&] {
              VarnLogRecord(component, 5) << "started " << 42 << " jobs in " << 1.5 << " seconds";
            }));

  VarnCriticalSectionObject lock;
  EXPECT_EQ(0, allocationsOf([&] { const VarnCriticalSection hold(lock); }));

  const VarnSmartPointer<VarnObjectBase> object(new VarnObjectBase);
  EXPECT_EQ(0, allocationsOf([&] { const VarnSmartPointer<VarnObjectBase> copy(object); }));

  VarnEvent event;
  VarnDependent dependent;
  event.addDependent(dependent);
  EXPECT_EQ(0, allocationsOf([&] { event.set(); }));

  VarnRegularExpression<std::string> expression;
  expression.setPattern("run: [a-z ]+x*[0-9]*$");
  const std::string text("20240131 [123] run: started all the jobs that were there at 1042");
  EXPECT_EQ(0, allocationsOf([&] { EXPECT_EQ(15U, expression.find(text, 0)); }));
}

// Allocators may count, and signal handlers that interrupt them.
TEST(Allocations, TheFirstCountOfAThreadMakesNone) {
  const VarnSmartPointer<VarnObjectBase> object(new VarnObjectBase);
  std::thread([&] {
    const long before = t_nAllocations;
    { const VarnSmartPointer<VarnObjectBase> copy(object); }
    EXPECT_EQ(before, t_nAllocations);
  }).join();
}

TEST(Allocations, OfALargeRecordDoNotLast) {
  if (kInstrumented)
    return;
  FileLog log(5);
  const auto inUse = [] { return mallinfo2().uordblks + mallinfo2().hblkhd; };
  const auto before = inUse();
  log.log() << setloglevel(5) << std::string(9000000, 'x') << endrecord;
  VarnLogRecord(5) << std::string(9000000, 'x');
  EXPECT_LT(inUse(), before + 1000000);
}

// Of each stretch without a change of the zone the system is asked five times at most.
TEST(LookUps, AreFewForManyTimesAndNoneForTheSameTimes) {
  setenv("TZ", "Europe/Berlin", 1);
  Random random;
  VarnDateTime date;
  std::string error;
  const long before = t_nLookUps;
  for (int i = 1; i <= 2000; ++i) {
    date.setDateImpl(1, static_cast<unsigned>(1 + random() % 2),
                     static_cast<unsigned>(70 + random() % 60), error);
    date.getTime();
    ASSERT_GE(5 * i, t_nLookUps - before);
  }
  EXPECT_GE(1000, t_nLookUps - before);
  for (int i = 0; i < 50; ++i)
    date.getTime();
  const long afterwards = t_nLookUps;
  for (int i = 0; i < 50; ++i)
    date.getTime();
  EXPECT_EQ(afterwards, t_nLookUps);
}

}  // namespace
