// A walk goes over the live list by position: whoever is added during it is called too, and
// callers rely on that. It holds the lock for no longer than it takes to copy a batch of entries
// (Cursor), never during a call, so that a callback may add, remove and notify as it likes, from
// any thread. The number of changes tells the walk that its batch is out of date.
//
// A callback may destroy the collaborator itself. The walks of a thread form a list (Walk), in
// which the destructor marks those that must not touch it any more.
//
// Waiters put dependents on their stacks into lists. Their entries are tagged: a call of theirs is
// counted, since the waiter goes as soon as it has been told (TrackedDependent.h).
#include "VarnSupport/VarnCollaborator.h"

#include <algorithm>
#include <array>
#include <cassert>

#include "locks/BriefHold.h"
#include "runtime/Cancellation.h"
#include "runtime/ThreadScope.h"
#include "threads/DependentList.h"
#include "threads/KeptDependent.h"
#include "threads/TrackedDependent.h"

namespace VarnSupport {

namespace {

// A notify walk under way on this thread. A callback may destroy the collaborator that is walked.
class Walk : public ThreadScopeOf<Walk> {
 public:
  explicit Walk(const VarnCollaborator& collaborator) : m_pCollaborator(&collaborator) {}

  bool isOrphaned() const { return m_pCollaborator == nullptr; }

  static void orphanAll(const VarnCollaborator& collaborator) {
    for (Walk* walk = innermost(); walk != nullptr; walk = walk->outer()) {
      if (walk->m_pCollaborator == &collaborator)
        walk->m_pCollaborator = nullptr;
    }
  }

 private:
  const VarnCollaborator* m_pCollaborator;
};

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

VarnCollaborator::~VarnCollaborator() {
  Walk::orphanAll(*this);
  DependentList list(m_vDependents);
  if (KeptDependent* const kept = list.first(KeptDependent::findIn))
    kept->leaveSource();
  list.clear();
}

void VarnCollaborator::addDependent(VarnDependent& dependent) { addEntry(&dependent); }

void VarnCollaborator::addEntry(VarnDependent* entry) {
  const CancellationGuard closed;
  const WholeHold hold(m_oLock);
  DependentList(m_vDependents).add(entry);
  m_nChanges.fetch_add(1, std::memory_order_release);
}

// Destructors and ending threads come here and below: what nobody was ever added to needs no lock.
void VarnCollaborator::removeDependent(VarnDependent& dependent) {
  if (neverHadDependents(*this))
    return;
  const QuietCancellationGuard closed;
  const WholeHold hold(m_oLock);
  DependentList(m_vDependents).removeAll(dependent);
  m_nChanges.fetch_add(1, std::memory_order_release);
}

KeptDependent& VarnCollaborator::keep(KeptDependent& made) {
  const WholeHold hold(m_oLock);
  DependentList list(m_vDependents);
  if (KeptDependent* const found = list.first(KeptDependent::findIn))
    return *found;
  list.add(KeptDependent::entryOf(made));
  m_nChanges.fetch_add(1, std::memory_order_release);
  return made;
}

void VarnCollaborator::notify(const VarnNotification& notification) {
  const CancellationGuard closed;
  deliver(*this, notification);
}

// The entries of the live list, by position. Reads several at a time: as long as the list has not
// changed, they are what a look at it would find.
class VSUPT_LOCAL VarnCollaborator::Cursor {
 public:
  static bool tellAll(VarnCollaborator& collaborator, const VarnNotification& notification);

  explicit Cursor(VarnCollaborator& collaborator) : m_oCollaborator(collaborator) {}
  Cursor(const Cursor&) = delete;
  Cursor& operator=(const Cursor&) = delete;

  // The dependent at the next position, null behind the last. `call` counts the call of a tracked
  // one, whose entry is taken out: its owner wakes up at any moment, and by removing the entry from
  // under the walk would make that skip another.
  VarnDependent* next(TrackedDependent::Call& call) {
    const bool isStale = m_nChanges != m_oCollaborator.m_nChanges.load(std::memory_order_acquire);
    if (isStale || (m_nPosition == m_nEnd && m_nEnd < m_nSize)) {
      if (TrackedDependent* const tracked = read(call))
        return tracked;
    }
    return m_nPosition < m_nEnd ? m_aBatch[m_nPosition++ - m_nBegin] : nullptr;
  }

 private:
  // Reads a batch from the present position on, up to the next tracked dependent. When that comes
  // first, takes it out of the list, begins its call and returns it.
  TrackedDependent* read(TrackedDependent::Call& call);

  static constexpr std::size_t kBatch = 32;

  VarnCollaborator& m_oCollaborator;
  std::size_t m_nPosition = 0;                   // of the entry that is next
  std::uint64_t m_nChanges = ~std::uint64_t{0};  // of the list when it was read
  std::size_t m_nSize = 0;                       // of the list then
  std::size_t m_nBegin = 0;                      // the batch is [begin, end) of the list
  std::size_t m_nEnd = 0;
  std::array<VarnDependent*, kBatch> m_aBatch;
};

TrackedDependent* VarnCollaborator::Cursor::read(TrackedDependent::Call& call) {
  assert(m_nBegin <= m_nPosition && m_nPosition <= m_nEnd && m_nEnd <= m_nSize);
  const WholeHold hold(m_oCollaborator.m_oLock);
  DependentList list(m_oCollaborator.m_vDependents);
  m_nPosition = m_nBegin = std::min(m_nPosition, list.size());
  const std::size_t count = list.copy(m_nBegin, m_aBatch.data(), kBatch);
  const auto end = m_aBatch.begin() + static_cast<std::ptrdiff_t>(count);
  const auto last = TrackedDependent::exist()
                        ? std::find_if(m_aBatch.begin(), end, TrackedDependent::findIn)
                        : end;
  m_nEnd = m_nBegin + static_cast<std::size_t>(last - m_aBatch.begin());
  TrackedDependent* tracked = nullptr;
  if (last == m_aBatch.begin() && last != end) {
    tracked = TrackedDependent::findIn(m_aBatch[0]);
    call.begin(*tracked);
    list.removeAt(m_nBegin);
    m_oCollaborator.m_nChanges.fetch_add(1, std::memory_order_release);
  }
  std::transform(m_aBatch.begin(), last, m_aBatch.begin(), KeptDependent::dependentOf);
  m_nSize = list.size();
  m_nChanges = m_oCollaborator.m_nChanges.load(std::memory_order_relaxed);
  return tracked;
}

// Returns false when a callback destroyed the collaborator.
[[gnu::noinline]] bool VarnCollaborator::Cursor::tellAll(VarnCollaborator& collaborator,
                                                         const VarnNotification& notification) {
  const Walk walk(collaborator);
  Cursor cursor(collaborator);
  while (true) {
    TrackedDependent::Call call;
    VarnDependent* const dependent = cursor.next(call);
    if (dependent == nullptr)
      return true;
    dependent->handleNotification(collaborator, notification);
    if (walk.isOrphaned())
      return false;
  }
}

// What never had a dependent needs no frame for a walk.
bool deliver(VarnCollaborator& collaborator, const VarnNotification& notification) {
  return neverHadDependents(collaborator) ||
         VarnCollaborator::Cursor::tellAll(collaborator, notification);
}

}  // namespace VarnSupport
