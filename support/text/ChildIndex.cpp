#include "text/ChildIndex.h"

#include <algorithm>
#include <bit>
#include <cassert>
#include <functional>

namespace VarnSupport {

ChildIndex::ChildIndex(const tChildren& children) {
  m_vEntries.resize(std::bit_ceil(std::max<std::size_t>(64, 4 * children.size())));
  for (VarnTreeNode* const child : children)
    add(child);
}

void ChildIndex::add(VarnTreeNode* child) {
  if (2 * (m_nUsed + 1) > m_vEntries.size())
    resize();
  const std::uint64_t hash = hashOf(child->getKey());
  Entry& entry = m_vEntries[placeOf(hash)];
  if (entry.hash == kFree) {
    entry = {hash, child};
    ++m_nUsed;
    ++m_nNamed;
  } else if (entry.child != nullptr) {
    entry.child = nullptr;
    --m_nNamed;
  }
}

void ChildIndex::remove(const VarnTreeNode* child) {
  Entry& entry = m_vEntries[placeOf(hashOf(child->getKey()))];
  assert(entry.hash != kFree);
  if (entry.child != child)
    return;
  entry = {kRemoved, nullptr};
  --m_nNamed;
}

std::optional<VarnTreeNode*> ChildIndex::find(std::string_view key) const {
  const Entry& entry = m_vEntries[placeOf(hashOf(key))];
  if (entry.hash == kFree)
    return nullptr;
  if (entry.child == nullptr)
    return std::nullopt;
  return entry.child->getKey() == key ? entry.child : nullptr;
}

bool ChildIndex::isRightFor(const tChildren& children) const {
  std::size_t named = 0;
  for (const VarnTreeNode* const child : children) {
    const Entry& entry = m_vEntries[placeOf(hashOf(child->getKey()))];
    if (entry.hash == kFree || (entry.child != nullptr && entry.child != child))
      return false;
    named += entry.child != nullptr ? 1 : 0;
  }
  return named == m_nNamed;
}

std::uint64_t ChildIndex::hashOf(std::string_view key) {
  const std::uint64_t hash = std::hash<std::string_view>()(key);
  return hash > kRemoved ? hash : hash + 2;
}

std::size_t ChildIndex::placeOf(std::uint64_t hash) const {
  const std::size_t last = m_vEntries.size() - 1;
  std::size_t place = hash & last;
  while (m_vEntries[place].hash != hash && m_vEntries[place].hash != kFree)
    place = (place + 1) & last;
  return place;
}

// Makes room for twice what is left without the entries of removed children.
void ChildIndex::resize() {
  const auto isLive = [](const Entry& entry) { return entry.hash > kRemoved; };
  const auto live =
      static_cast<std::size_t>(std::count_if(m_vEntries.begin(), m_vEntries.end(), isLive));
  std::vector<Entry> old(std::bit_ceil(4 * (live + 1)));
  old.swap(m_vEntries);
  for (const Entry& entry : old) {
    if (isLive(entry))
      m_vEntries[placeOf(entry.hash)] = entry;
  }
  m_nUsed = live;
}

}  // namespace VarnSupport
