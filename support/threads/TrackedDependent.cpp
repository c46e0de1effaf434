// The waiter waits for calls under way before it goes; a walk begins a call while it holds the
// lock of the list, so that no call begins once the dependent has been removed. The tag in the
// entry's address keeps lists of plain dependents as cheap as they were: a walk looks for tags
// only while there is a tracked dependent anywhere in the process.
//
// The list of all tracked dependents is for forks alone: in the child the stacks of other threads
// are gone, and with them whatever they had put into lists.
#include "threads/TrackedDependent.h"

#include <cassert>
#include <mutex>

#include "runtime/LinkedNodes.h"

namespace VarnSupport {

namespace {

constinit std::mutex listMutex;

}  // namespace

constinit std::atomic<int> TrackedDependent::m_nCount{0};
constinit TrackedDependent* TrackedDependent::m_pFirst = nullptr;

TrackedDependent::TrackedDependent() : m_hOwner(pthread_self()) {
  static_assert(alignof(TrackedDependent) > kTracked && alignof(VarnDependent) > kTracked,
                "the lowest bit of an address is free");
  m_nCount.fetch_add(1);
}

TrackedDependent::~TrackedDependent() {
  assert(m_nCalls == 0);
  m_nCount.fetch_sub(1);
}

void TrackedDependent::enlist() {
  const std::lock_guard guard(listMutex);
  assert(m_pNext == nullptr);
  m_pNext = m_pFirst;
  m_pFirst = this;
}

void TrackedDependent::addTo(VarnCollaborator& collaborator) {
  collaborator.addEntry(entryOf(*this));
}

void TrackedDependent::strikeOff() {
  const std::lock_guard guard(listMutex);
  takeOut(m_pFirst, *this, &TrackedDependent::m_pNext);
}

void TrackedDependent::awaitCalls() {
  while (const int calls = m_nCalls.load(std::memory_order_acquire))
    m_nCalls.wait(calls, std::memory_order_acquire);
}

VarnDependent* TrackedDependent::entryOf(TrackedDependent& dependent) {
  return reinterpret_cast<VarnDependent*>(bitsOf(&dependent) | kTracked);
}

TrackedDependent* TrackedDependent::findIn(VarnDependent* entry) {
  if ((bitsOf(entry) & kTracked) == 0)
    return nullptr;
  auto* const dependent = reinterpret_cast<VarnDependent*>(bitsOf(entry) - kTracked);
  return static_cast<TrackedDependent*>(dependent);
}

void TrackedDependent::Call::begin(TrackedDependent& dependent) {
  assert(m_pDependent == nullptr);
  m_pDependent = &dependent;
  m_pDependent->m_nCalls.fetch_add(1, std::memory_order_relaxed);
}

// After the decrement the dependent may be gone: notify_all() takes its address and nothing else.
TrackedDependent::Call::~Call() {
  if (m_pDependent == nullptr)
    return;
  std::atomic<int>& calls = m_pDependent->m_nCalls;
  if (calls.fetch_sub(1, std::memory_order_release) == 1)
    calls.notify_all();
}

void TrackedDependent::prepareFork() { listMutex.lock(); }

void TrackedDependent::parentAfterFork() { listMutex.unlock(); }

// Calls that vanished threads had begun never return, and nobody waits for them.
void TrackedDependent::childAfterFork() {
  TrackedDependent** link = &m_pFirst;
  while (*link != nullptr) {
    TrackedDependent& dependent = **link;
    if (pthread_equal(dependent.m_hOwner, pthread_self()) != 0) {
      link = &dependent.m_pNext;
      continue;
    }
    *link = dependent.m_pNext;
    dependent.removeEverywhere();
  }
  listMutex.unlock();
}

}  // namespace VarnSupport
