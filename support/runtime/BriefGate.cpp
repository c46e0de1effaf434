// How a thread enters a section is in the header, as it is a store and a load. Here is what is
// rare: a thread's first section, the closing of the gate, and those who come to a closed gate. A
// thread that finds the gate closed takes back its mark before it waits, as the closer waits for
// the marks.
//
// Counts have a mark of their own and no waiting room but the mutex of the global section. Who
// takes the section by hand has the mutex first, then forbids counts, and waits for the marks last.
// That waits for a few instructions of each thread: whoever finds counts forbidden takes its mark
// back before it waits for the mutex. Counts stay forbidden when the section is given back, in
// whatever way that is, and so the next holder by hand finds nothing to wait for. They are allowed
// again by one of those that count under the section, after a number of counts that makes up for
// the price of forbidding them.
//
// A signal handler may count in the middle of a count, and then stands in for the interrupted one,
// which may have looked already: it takes back both marks, puts the outer one back while it has the
// mutex, and has the next holder by hand wait again, though counts are forbidden. A handler that
// takes the section by hand, or that interrupts a count under the section, may find the mutex with
// its own thread, and wait for ever: locks are not for handlers.
#include "runtime/BriefGate.h"

#include <linux/membarrier.h>
#include <pthread.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cassert>
#include <cerrno>
#include <cstddef>
#include <ctime>
#include <memory>
#include <mutex>
#include <utility>

#include "runtime/Cancellation.h"
#include "runtime/NeverDestroyed.h"

namespace VarnSupport {

namespace {

// Held while the gate is closed: who comes to it waits here.
constinit std::mutex closing;
constinit NeverDestroyed<std::recursive_mutex> crowding;

// Counts under the section between two times that they are forbidden, which takes microseconds.
constexpr int kSlowCounts = 1000;

constexpr timespec kMoment{0, 100'000};

void pause(const timespec& time) {
  const NoCancellation whole;
  nanosleep(&time, nullptr);
}

// Who is to leave may be of a lower priority, and needs the processor.
template <typename Mark>
void awaitNone(const std::atomic<Mark>& marks) {
  constexpr int kYields = 100;
  for (int i = 0; marks.load() != Mark{}; ++i) {
    if (i < kYields)
      sched_yield();
    else
      pause(kMoment);
  }
}

long membarrier(int command) { return syscall(SYS_membarrier, command, 0, 0); }

}  // namespace

constinit thread_local BriefGate::Visitor* BriefGate::t_pVisitor = nullptr;
constinit std::atomic<int> BriefGate::m_nState{OPEN};
constinit BriefGate::Visitor BriefGate::m_oCrowd;
constinit std::atomic<BriefGate::Visitor*> BriefGate::m_pVisitors{nullptr};
constinit pthread_key_t BriefGate::m_hKey = 0;
constinit std::atomic<const BriefGate::Visitor*> BriefGate::m_pCloser{nullptr};
constinit int BriefGate::m_nSlowCounts = 0;
constinit bool BriefGate::m_bMustAwaitAgain = false;

void BriefGate::chooseBarrier() {
  if (membarrier(MEMBARRIER_CMD_REGISTER_PRIVATE_EXPEDITED) != 0)
    m_nState.fetch_or(FENCED);
}

void BriefGate::prepare() {
  static bool isPrepared = false;
  if (std::exchange(isPrepared, true))
    return;
  chooseBarrier();
  pthread_key_create(&m_hKey, [](void* visitor) {
    t_pVisitor = nullptr;
    static_cast<Visitor*>(visitor)->isTaken.store(false, std::memory_order_release);
  });
}

// A process may forbid itself the call after it has begun. What threads have stored is seen soon
// then, too, in far less than the pause, and sections have the fence from here on.
void BriefGate::synchronize() {
  if (membarrier(MEMBARRIER_CMD_PRIVATE_EXPEDITED) == 0)
    return;
  constexpr timespec kStoresAreSeen{0, 1'000'000};
  m_nState.fetch_or(FENCED);
  pause(kStoresAreSeen);
}

// The mark of another thread is only looked at, as that thread is about to write it.
BriefGate::Visitor* BriefGate::takeHandedBack() {
  Visitor* visitor = m_pVisitors.load(std::memory_order_acquire);
  while (visitor != nullptr && (visitor->isTaken.load(std::memory_order_relaxed) ||
                                visitor->isTaken.exchange(true, std::memory_order_acq_rel)))
    visitor = visitor->next;
  return visitor;
}

// Straight from the system: whoever counts for the first time may be an allocator that counts, or a
// signal handler that has interrupted one. Null when there is no memory.
BriefGate::Visitor* BriefGate::makeVisitors() {
  constexpr std::size_t kVisitors = 64;
  const int error = errno;
  void* const memory = mmap(nullptr, kVisitors * sizeof(Visitor), PROT_READ | PROT_WRITE,
                            MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  errno = error;
  if (memory == MAP_FAILED)
    return nullptr;
  auto* const visitors = static_cast<Visitor*>(memory);
  std::uninitialized_default_construct_n(visitors, kVisitors);
  for (std::size_t i = 0; i + 1 < kVisitors; ++i)
    visitors[i].next = &visitors[i + 1];
  visitors->isTaken.store(true, std::memory_order_relaxed);
  Visitor*& next = visitors[kVisitors - 1].next;
  next = m_pVisitors.load(std::memory_order_relaxed);
  while (!m_pVisitors.compare_exchange_weak(next, visitors, std::memory_order_acq_rel)) {
  }
  return visitors;
}

[[gnu::cold]] BriefGate::Visitor* BriefGate::newVisitor() {
  Visitor* visitor = takeHandedBack();
  if (visitor == nullptr)
    visitor = makeVisitors();
  if (visitor == nullptr) {
    crowding.value.lock();
    return &m_oCrowd;
  }
  t_pVisitor = visitor;
  pthread_setspecific(m_hKey, visitor);
  return visitor;
}

void BriefGate::leaveCrowd() { crowding.value.unlock(); }

[[gnu::cold]] void BriefGate::enterSlowly(Visitor& visitor) {
  while (true) {
    visitor.depth.fetch_add(0);  // the fence
    if ((m_nState & CLOSED) == 0 || &visitor == m_pCloser)
      return;
    const int depth = visitor.depth.load(std::memory_order_relaxed);
    if (depth > 1)
      return;  // inside another section, which the gate waits for
    visitor.depth.store(0, std::memory_order_release);
    closing.lock();
    closing.unlock();
    visitor.depth.store(depth, std::memory_order_relaxed);
  }
}

// Visitors only ever wait inside for other visitors, and for the processor. One of the crowd that
// comes to a closed gate keeps the others of the crowd out meanwhile, whoever would close next too.
void BriefGate::close() {
  const Visitor* const closer = t_pVisitor != nullptr ? t_pVisitor : newVisitor();
  closing.lock();
  m_pCloser = closer;
  assert((m_nState & CLOSED) == 0 && m_pCloser.load()->depth == 0);
  if ((m_nState.fetch_or(CLOSED) & FENCED) == 0)
    synchronize();
  const auto awaitExit = [](const Visitor& visitor) {
    if (&visitor != m_pCloser)
      awaitNone(visitor.depth);
  };
  awaitExit(m_oCrowd);
  for (Visitor* visitor = m_pVisitors; visitor != nullptr; visitor = visitor->next)
    awaitExit(*visitor);
}

[[gnu::cold]] void BriefGate::awaitCounts() {
  const Visitor* const own = t_pVisitor;
  m_bMustAwaitAgain = isInCount();
  m_nSlowCounts = kSlowCounts;
  m_nState.fetch_or(COUNTS_HELD);
  synchronize();
  for (const Visitor* visitor = m_pVisitors; visitor != nullptr; visitor = visitor->next)
    if (visitor != own)
      awaitNone(visitor->isCounting);
}

void BriefGate::open() {
  assert((m_nState & CLOSED) != 0 && m_pCloser != nullptr);
  m_nState.fetch_and(~CLOSED);
  if (m_pCloser == &m_oCrowd)
    leaveCrowd();
  m_pCloser = nullptr;
  closing.unlock();
}

void BriefGate::forgetOthers() {
  assert((m_nState & CLOSED) != 0 && m_pCloser != nullptr);
  chooseBarrier();
  for (Visitor* visitor = m_pVisitors; visitor != nullptr; visitor = visitor->next) {
    if (visitor == m_pCloser)
      continue;
    visitor->depth = 0;  // its thread may have been on its way in
    visitor->isCounting = false;
    visitor->isTaken = false;
  }
  if (m_pCloser != &m_oCrowd) {
    m_oCrowd.depth = 0;
    std::construct_at(&crowding);
  }
}

}  // namespace VarnSupport
