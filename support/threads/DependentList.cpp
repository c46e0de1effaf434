// A long list stays one until it is empty.
#include "threads/DependentList.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "threads/TrackedDependent.h"

namespace VarnSupport {

namespace {

// An entry is sought in its block, and moves those behind it; walks go over blocks.
constexpr std::size_t kBlock = 256;

}  // namespace

LongDependentList::LongDependentList(const std::vector<tEntry>& entries) {
  for (const tEntry entry : entries)
    add(entry);
}

void LongDependentList::add(tEntry entry) {
  std::unique_ptr<Block> made;
  if (m_vBlocks.empty() || m_vBlocks.back()->size() == kBlock) {
    made = std::make_unique<Block>();
    made->reserve(kBlock);
    if (m_vBlocks.size() == m_vBlocks.capacity())
      m_vBlocks.reserve(2 * m_vBlocks.size() + 1);
  }
  Block* const last = made != nullptr ? made.get() : m_vBlocks.back().get();
  m_mapBlocks.emplace(TrackedDependent::dependentOf(entry), last);
  if (made != nullptr)
    m_vBlocks.push_back(std::move(made));
  last->push_back(entry);
  ++m_nSize;
}

// The first visit of a block takes all entries out of it, further ones find none. Who leaves came
// last, as a rule, and stands there once.
void LongDependentList::removeAll(const VarnDependent& dependent) {
  const auto isOwn = [&](tEntry entry) { return TrackedDependent::isEntryOf(entry, dependent); };
  const auto [begin, end] = m_mapBlocks.equal_range(&dependent);
  const auto entries = static_cast<std::size_t>(std::distance(begin, end));
  bool isAnyEmpty = false;
  for (auto found = begin; found != end; ++found) {
    Block& block = *found->second;
    const auto last = std::find_if(block.rbegin(), block.rend(), isOwn);
    if (last == block.rend())
      continue;
    const auto behind = block.erase(std::next(last).base());
    if (entries > 1)
      block.erase(std::remove_if(block.begin(), behind, isOwn), behind);
    isAnyEmpty = isAnyEmpty || block.empty();
  }
  m_nSize -= entries;
  m_nFoundBlock = m_nFoundBegin = 0;
  for (auto found = begin; isAnyEmpty && found != end; ++found)
    dropIfEmpty(found->second);
  m_mapBlocks.erase(begin, end);
}

void LongDependentList::removeAt(std::size_t position) {
  assert(position < m_nSize);
  Block* const block = m_vBlocks[blockOf(position)].get();
  const auto entry = block->begin() + static_cast<std::ptrdiff_t>(position);
  const auto [begin, end] = m_mapBlocks.equal_range(TrackedDependent::dependentOf(*entry));
  const auto found = std::find_if(begin, end, [=](const auto& in) { return in.second == block; });
  assert(found != end);
  m_mapBlocks.erase(found);
  block->erase(entry);
  --m_nSize;
  m_nFoundBlock = m_nFoundBegin = 0;
  dropIfEmpty(block);
}

std::size_t LongDependentList::copy(std::size_t position, tEntry* to, std::size_t most) {
  std::size_t copied = 0;
  for (std::size_t block = blockOf(position); copied < most && block < m_vBlocks.size(); ++block) {
    const Block& entries = *m_vBlocks[block];
    const std::size_t count = std::min(most - copied, entries.size() - position);
    std::copy_n(entries.begin() + static_cast<std::ptrdiff_t>(position), count, to + copied);
    copied += count;
    position = 0;
  }
  return copied;
}

std::size_t LongDependentList::blockOf(std::size_t& position) {
  assert(position <= m_nSize);
  if (position < m_nFoundBegin)
    m_nFoundBlock = m_nFoundBegin = 0;
  position -= m_nFoundBegin;
  while (m_nFoundBlock < m_vBlocks.size() && position >= m_vBlocks[m_nFoundBlock]->size()) {
    if (m_nFoundBlock + 1 == m_vBlocks.size())
      return m_vBlocks.size();  // what is added next may stand in the last block
    const std::size_t size = m_vBlocks[m_nFoundBlock++]->size();
    position -= size;
    m_nFoundBegin += size;
  }
  return m_nFoundBlock;
}

// A block that was dropped before is not looked into.
void LongDependentList::dropIfEmpty(const Block* block) {
  const auto found = std::find_if(m_vBlocks.begin(), m_vBlocks.end(),
                                  [=](const auto& other) { return other.get() == block; });
  if (found != m_vBlocks.end() && (*found)->empty())
    m_vBlocks.erase(found);
}

// What lies between two entries of the dependent moves as a whole.
void DependentList::removeAll(const VarnDependent& dependent) {
  if (isLong()) {
    longList()->removeAll(dependent);
    return dropIfEmpty();
  }
  std::erase_if(m_vEntries,
                [&](tEntry entry) { return TrackedDependent::isEntryOf(entry, dependent); });
}

void DependentList::removeAt(std::size_t position) {
  if (isLong()) {
    longList()->removeAt(position);
    return dropIfEmpty();
  }
  assert(position < m_vEntries.size());
  m_vEntries.erase(m_vEntries.begin() + static_cast<std::ptrdiff_t>(position));
}

void DependentList::addToLong(tEntry entry) {
  auto made = std::make_unique<LongDependentList>(m_vEntries);
  made->add(entry);
  const auto address = reinterpret_cast<std::uintptr_t>(made.release());
  m_vEntries.assign(1, reinterpret_cast<tEntry>(address | kLong));
}

void DependentList::dropIfEmpty() {
  if (longList()->size() == 0)
    clear();
}

void DependentList::clear() {
  if (isLong())
    delete longList();
  m_vEntries.clear();
}

}  // namespace VarnSupport
