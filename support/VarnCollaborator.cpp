#include "VarnSupport/VarnCollaborator.h"

#include <algorithm>

#include "BriefHold.h"
#include "Cancellation.h"
#include "TrackedDependent.h"

namespace VarnSupport {

namespace {

// A notify walk under way on this thread. A callback may destroy the collaborator that is walked.
class Walk {
 public:
  explicit Walk(const VarnCollaborator& collaborator)
      : m_pCollaborator(&collaborator), m_pOuter(t_pInnermost) {
    t_pInnermost = this;
  }
  Walk(const Walk&) = delete;
  Walk& operator=(const Walk&) = delete;
  ~Walk() { t_pInnermost = m_pOuter; }

  bool isOrphaned() const { return m_pCollaborator == nullptr; }

  static void orphanAll(const VarnCollaborator& collaborator) {
    for (Walk* walk = t_pInnermost; walk != nullptr; walk = walk->m_pOuter) {
      if (walk->m_pCollaborator == &collaborator)
        walk->m_pCollaborator = nullptr;
    }
  }

 private:
  static constinit thread_local Walk* t_pInnermost;

  const VarnCollaborator* m_pCollaborator;
  Walk* m_pOuter;
};

constinit thread_local Walk* Walk::t_pInnermost = nullptr;

// While no tracked dependent exists, walks need not look for one.
constinit std::atomic<int> trackedDependents{0};

}  // namespace

VarnNotification& VarnNotification::operator=(int id) {
  m_nId = id;
  return *this;
}

VarnNotification::~VarnNotification() = default;

VarnEventNotification::VarnEventNotification() : VarnNotification(1) {}

VarnEventNotification::~VarnEventNotification() = default;

PropertyChanged::PropertyChanged(const std::string& name) : VarnNotification(2), m_sName(name) {}

PropertyChanged::~PropertyChanged() = default;

VarnDependent::~VarnDependent() = default;

void VarnDependent::handleNotification(VarnCollaborator&, const VarnNotification&) {}

VarnCollaborator::VarnCollaborator() = default;

VarnCollaborator::VarnCollaborator(const VarnCollaborator&) {}

VarnCollaborator& VarnCollaborator::operator=(const VarnCollaborator&) { return *this; }

VarnCollaborator::~VarnCollaborator() { Walk::orphanAll(*this); }

void VarnCollaborator::addDependent(VarnDependent& dependent) {
  const CancellationGuard closed;
  const BriefHold hold(m_oLock);
  m_vDependents.push_back(&dependent);
  m_nChanges.fetch_add(1, std::memory_order_release);
}

// Destructors and ending threads come here and below: what nobody was ever added to needs no lock.
void VarnCollaborator::removeDependent(VarnDependent& dependent) {
  if (BriefHold::isUnused(m_oLock))
    return;
  const CancellationGuard closed;
  const BriefHold hold(m_oLock);
  m_vDependents.erase(std::remove(m_vDependents.begin(), m_vDependents.end(), &dependent),
                      m_vDependents.end());
  m_nChanges.fetch_add(1, std::memory_order_release);
}

void VarnCollaborator::notify(const VarnNotification& notification) {
  const CancellationGuard closed;
  deliver(notification);
}

// Returns false when a callback destroyed the collaborator. Entries are read several at a time; as
// long as the list has not changed they are what a look at it would find. The entry of a tracked
// dependent is taken out as it is called: its owner wakes up at any moment, and by removing it from
// under the walk would make that skip an entry.
bool VarnCollaborator::deliver(const VarnNotification& notification) {
  if (BriefHold::isUnused(m_oLock))
    return true;
  constexpr std::size_t kBatch = 16;
  VarnDependent* batch[kBatch];
  std::size_t begin = 0;  // the batch is [begin, end) of the list
  std::size_t end = 0;
  std::size_t size = 0;
  std::uint64_t changes = 0;
  const Walk walk(*this);
  for (std::size_t i = 0, next = 0;; i = next) {
    TrackedDependent::Call call;
    next = i + 1;
    const bool isKnown = i > 0 && changes == m_nChanges.load(std::memory_order_acquire);
    if (!isKnown || (i >= end && i < size)) {
      const BriefHold hold(m_oLock);
      changes = m_nChanges.load(std::memory_order_relaxed);
      size = m_vDependents.size();
      begin = std::min(i, size);
      // A tracked dependent may go at any time: its call begins under the lock.
      end = begin + std::min(trackedDependents.load(std::memory_order_relaxed) == 0 ? kBatch : 1,
                             size - begin);
      const auto first = m_vDependents.begin() + static_cast<std::ptrdiff_t>(begin);
      std::copy(first, first + static_cast<std::ptrdiff_t>(end - begin), batch);
      if (i < end && call.begin(*batch[0])) {
        m_vDependents.erase(first);
        m_nChanges.fetch_add(1, std::memory_order_release);
        next = i;
      }
    }
    if (i >= size)
      return true;
    batch[i - begin]->handleNotification(*this, notification);
    if (walk.isOrphaned())
      return false;
  }
}

TrackedDependent::TrackedDependent() { trackedDependents.fetch_add(1); }

TrackedDependent::~TrackedDependent() { trackedDependents.fetch_sub(1); }

void TrackedDependent::awaitCalls() {
  while (const int calls = m_nCalls.load(std::memory_order_acquire))
    m_nCalls.wait(calls, std::memory_order_acquire);
}

bool TrackedDependent::Call::begin(VarnDependent& dependent) {
  if (trackedDependents.load(std::memory_order_relaxed) == 0)
    return false;
  m_pTracked = dynamic_cast<TrackedDependent*>(&dependent);
  if (m_pTracked == nullptr)
    return false;
  m_pTracked->m_nCalls.fetch_add(1, std::memory_order_relaxed);
  return true;
}

// After the decrement the dependent may be gone: notify_all() takes its address and nothing else.
TrackedDependent::Call::~Call() {
  if (m_pTracked == nullptr)
    return;
  std::atomic<int>& calls = m_pTracked->m_nCalls;
  if (calls.fetch_sub(1, std::memory_order_release) == 1)
    calls.notify_all();
}

}  // namespace VarnSupport
