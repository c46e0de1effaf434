// How a thread enters a section is in the header, as it is a store and a load. Here is what is
// rare: a thread's first section, the closing of the gate, and those who come to a closed gate. A
// thread that finds the gate closed takes back its mark before it waits, as the closer waits for
// the marks.
#include "runtime/BriefGate.h"

#include <linux/membarrier.h>
#include <pthread.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cassert>
#include <memory>
#include <mutex>
#include <new>
#include <utility>

#include "runtime/NeverDestroyed.h"

namespace VarnSupport {

namespace {

// Held while the gate is closed: who comes to it waits here.
constinit std::mutex closing;
constinit NeverDestroyed<std::recursive_mutex> crowding;

long membarrier(int command) { return syscall(SYS_membarrier, command, 0, 0); }

}  // namespace

constinit thread_local BriefGate::Visitor* BriefGate::t_pVisitor = nullptr;
constinit std::atomic<int> BriefGate::m_nState{OPEN};
constinit BriefGate::Visitor BriefGate::m_oCrowd;
constinit std::atomic<BriefGate::Visitor*> BriefGate::m_pVisitors{nullptr};
constinit pthread_key_t BriefGate::m_hKey = 0;
constinit std::atomic<const BriefGate::Visitor*> BriefGate::m_pCloser{nullptr};

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

void BriefGate::synchronize() { membarrier(MEMBARRIER_CMD_PRIVATE_EXPEDITED); }

[[gnu::cold]] BriefGate::Visitor* BriefGate::newVisitor() {
  Visitor* visitor = m_pVisitors.load(std::memory_order_acquire);
  while (visitor != nullptr && visitor->isTaken.exchange(true, std::memory_order_acq_rel))
    visitor = visitor->next;
  if (visitor == nullptr) {
    visitor = new (std::nothrow) Visitor;
    if (visitor == nullptr) {
      crowding.value.lock();
      return &m_oCrowd;
    }
    visitor->isTaken.store(true, std::memory_order_relaxed);
    visitor->next = m_pVisitors.load(std::memory_order_relaxed);
    while (!m_pVisitors.compare_exchange_weak(visitor->next, visitor, std::memory_order_acq_rel)) {
    }
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

// Visitors only ever wait inside for other visitors, and for the processor.
void BriefGate::close() {
  closing.lock();
  m_pCloser = t_pVisitor != nullptr ? t_pVisitor : newVisitor();
  assert((m_nState & CLOSED) == 0 && m_pCloser.load()->depth == 0);
  m_nState.fetch_or(CLOSED);
  if ((m_nState & FENCED) == 0)
    membarrier(MEMBARRIER_CMD_PRIVATE_EXPEDITED);
  const auto awaitExit = [](const Visitor& visitor) {
    while (&visitor != m_pCloser && visitor.depth > 0)
      sched_yield();
  };
  awaitExit(m_oCrowd);
  for (Visitor* visitor = m_pVisitors; visitor != nullptr; visitor = visitor->next)
    awaitExit(*visitor);
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
    visitor->isTaken = false;
  }
  if (m_pCloser != &m_oCrowd)
    std::construct_at(&crowding);
}

}  // namespace VarnSupport
