#include "text/ChildIndex.h"

#include <algorithm>
#include <bit>
#include <cassert>
#include <functional>

#include "runtime/HashedPlace.h"

namespace VarnSupport {

namespace {

std::uintptr_t addressOf(const VarnTreeNode* child) {
  return reinterpret_cast<std::uintptr_t>(child);
}

}  // namespace

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
  m_nUsed += entry.hash == kFree ? 1 : 0;
  entry.hash = hash;
  ++entry.count;
  entry.addresses ^= addressOf(child);
  m_nSum += checkOf(hash, child);
}

void ChildIndex::remove(const VarnTreeNode* child) {
  const std::uint64_t hash = hashOf(child->getKey());
  Entry& entry = m_vEntries[placeOf(hash)];
  assert(entry.count > 0);
  if (--entry.count == 0)
    entry.hash = kRemoved;
  entry.addresses ^= addressOf(child);
  m_nSum -= checkOf(hash, child);
}

std::optional<VarnTreeNode*> ChildIndex::find(std::string_view key) const {
  const Entry& entry = m_vEntries[placeOf(hashOf(key))];
  if (entry.count > 1)
    return std::nullopt;
  return entry.count == 1 && entry.child()->getKey() == key ? entry.child() : nullptr;
}

bool ChildIndex::isRightFor(const tChildren& children) const {
  std::uint64_t sum = 0;
  for (const VarnTreeNode* const child : children)
    sum += checkOf(hashOf(child->getKey()), child);
  return sum == m_nSum;
}

std::uint64_t ChildIndex::hashOf(std::string_view key) {
  const std::uint64_t hash = std::hash<std::string_view>()(key);
  return hash > kRemoved ? hash : hash + 2;
}

// Two sets of children with their keys have the same sum by a chance of 1 in 2^64.
std::uint64_t ChildIndex::checkOf(std::uint64_t hash, const VarnTreeNode* child) {
  const std::uint64_t mixed = (hash ^ addressOf(child)) * kGoldenRatio;
  return mixed ^ mixed >> 32;
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
