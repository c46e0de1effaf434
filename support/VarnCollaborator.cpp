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
}

// Destructors and ending threads come here and below: what nobody was ever added to needs no lock.
void VarnCollaborator::removeDependent(VarnDependent& dependent) {
  if (BriefHold::isUnused(m_oLock))
    return;
  const CancellationGuard closed;
  const BriefHold hold(m_oLock);
  m_vDependents.erase(std::remove(m_vDependents.begin(), m_vDependents.end(), &dependent),
                      m_vDependents.end());
}

void VarnCollaborator::notify(const VarnNotification& notification) {
  const CancellationGuard closed;
  deliver(notification);
}

// Returns false when a callback destroyed the collaborator.
bool VarnCollaborator::deliver(const VarnNotification& notification) {
  if (BriefHold::isUnused(m_oLock))
    return true;
  const Walk walk(*this);
  for (std::size_t i = 0;; ++i) {
    VarnDependent* dependent = nullptr;
    TrackedDependent::Call call;
    {
      const BriefHold hold(m_oLock);
      if (i >= m_vDependents.size())
        return true;
      dependent = m_vDependents[i];
      call.begin(*dependent);
    }
    dependent->handleNotification(*this, notification);
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

void TrackedDependent::Call::begin(VarnDependent& dependent) {
  if (trackedDependents.load(std::memory_order_relaxed) == 0)
    return;
  m_pTracked = dynamic_cast<TrackedDependent*>(&dependent);
  if (m_pTracked != nullptr)
    m_pTracked->m_nCalls.fetch_add(1, std::memory_order_relaxed);
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
