#include "text/Renames.h"

#include <cassert>
#include <limits>

#include "VarnSupport/VarnTreeNode.h"

namespace VarnSupport {

namespace {

// Returns how many there were. The largest value stays, as nobody knows how many it stands for.
std::uint8_t addParents(std::atomic<std::uint8_t>& parents, int added) {
  constexpr std::uint8_t many = std::numeric_limits<std::uint8_t>::max();
  std::uint8_t before = parents.load(std::memory_order_relaxed);
  while (before != many &&
         !parents.compare_exchange_weak(before, static_cast<std::uint8_t>(before + added),
                                        std::memory_order_relaxed)) {
  }
  return before;
}

}  // namespace

constinit std::atomic<std::uint64_t> Renames::m_aCounts[];
constinit Renames::Place Renames::m_aPlaces[];
constinit std::atomic<std::uint64_t> Renames::m_nCountOfAll{1};

void Renames::tell(VarnTreeNode* child, const tParent& onlyParent) {
  if (const VarnTreeNode* const parent = onlyParent.load(std::memory_order_relaxed)) {
    const std::size_t place = placeOf(parent);
    const BriefMutex::Hold hold(m_aPlaces[place].mutex);
    if (onlyParent.load(std::memory_order_relaxed) == parent) {
      const std::uint64_t before = m_aCounts[place].fetch_add(1, std::memory_order_relaxed);
      m_aPlaces[place].notes[before % kNoted] = {parent, child};
      return;
    }
  }
  m_nCountOfAll.fetch_add(1, std::memory_order_relaxed);
}

Renames::Mark Renames::mark(const VarnTreeNode* parent) {
  const std::size_t place = placeOf(parent);
  const BriefMutex::Hold hold(m_aPlaces[place].mutex);
  return {m_aCounts[place].load(std::memory_order_relaxed),
          m_nCountOfAll.load(std::memory_order_relaxed)};
}

bool Renames::find(const VarnTreeNode* parent, Mark& mark, List& renamed) {
  const std::size_t place = placeOf(parent);
  const BriefMutex::Hold hold(m_aPlaces[place].mutex);
  const Mark last = mark;
  mark = {m_aCounts[place].load(std::memory_order_relaxed),
          m_nCountOfAll.load(std::memory_order_relaxed)};
  assert(last.ofPlace <= mark.ofPlace && last.ofAll <= mark.ofAll);
  if (mark.ofAll != last.ofAll || mark.ofPlace - last.ofPlace > kNoted)
    return false;
  for (std::uint64_t number = last.ofPlace; number < mark.ofPlace; ++number) {
    const Note& note = m_aPlaces[place].notes[number % kNoted];
    if (note.parent == parent)
      renamed.nodes[renamed.size++] = note.child;
  }
  return true;
}

// Threads may change trees that have a child in common. A parent that is noted, and is the only
// one, is that for certain: its own entry was the first when it was noted, and it withdraws the
// note before the entry is gone.
void VarnTreeNode::gainParent(const VarnTreeNode& parent) {
  const bool isFirst = addParents(m_nParents, 1) == 0;
  m_pParent.store(isFirst ? &parent : nullptr, std::memory_order_relaxed);
}

void VarnTreeNode::loseParent() {
  m_pParent.store(nullptr, std::memory_order_relaxed);
  addParents(m_nParents, -1);
}

// Nodes that are no children cannot break an order.
void VarnTreeNode::keyChanged() {
  if (m_nParents.load(std::memory_order_relaxed) > 0)
    Renames::tell(this, m_pParent);
}

}  // namespace VarnSupport
