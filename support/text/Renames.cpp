#include "text/Renames.h"

#include <cassert>

namespace VarnSupport {

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

}  // namespace VarnSupport
