// What happens all the time takes no memory from the heap once it has happened before.
#include <cstdlib>
#include <new>

#include "TestTools.h"

namespace {

constinit thread_local long t_nAllocations = 0;

}  // namespace

// Replaces the operators of the whole process, the library's calls included. Compilers that look
// into both halves of a pair take them for a mismatch.
[[gnu::noinline]] void* operator new(std::size_t size) {
  ++t_nAllocations;
  if (void* const memory = std::malloc(size))
    return memory;
  throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }

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

TEST(Allocations, AreCounted) {
  EXPECT_EQ(100, allocationsOf([] { delete new VarnObjectBase; }));
}

TEST(Allocations, HotPathsMakeNone) {
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

}  // namespace
