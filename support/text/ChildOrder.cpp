// An update changes the strays only when a child of this very node has been renamed, which no
// look-up may run beside: others may still be reading them when a rename elsewhere has moved the
// count on. That is why a look at all the children leaves strays alone that are still right.
#include "text/ChildOrder.h"

#include <algorithm>
#include <cassert>
#include <new>
#include <utility>

#include "runtime/Cancellation.h"

namespace VarnSupport {

namespace {

// Children in front of a boundary: compared() gives this at most.
enum tBefore : int { LESS = -1, NOT_GREATER = 0 };

struct Boundary {
  std::size_t position;
  bool isOfKey;  // the child there has the key
};

// Requires: the children stand in order. Both that may be next are fetched beforehand: nodes are
// seldom in a cache.
template <int kBefore>
Boundary boundaryOf(const std::vector<VarnTreeNode*>& children, const SoughtKey& key) {
  constexpr std::size_t kFar = 16;
  Boundary boundary{0, false};
  for (std::size_t count = children.size(); count > 0;) {
    const std::size_t half = count / 2;
    const std::size_t behind = count - half - 1;
    VarnTreeNode* const* const first = children.data() + boundary.position;
    if (count > kFar) {
      __builtin_prefetch(&first[half / 2]->getKey());
      __builtin_prefetch(&first[half + 1 + behind / 2]->getKey());
    }
    const int order = key.compared(first[half]->getKey());
    if (order <= kBefore) {
      boundary.position += half + 1;
      count = behind;
    } else {
      boundary.isOfKey = order == 0;
      count = half;
    }
  }
  return boundary;
}

}  // namespace

bool VarnTreeNode::Order::Strays::has(const VarnTreeNode* node) const {
  const auto end = nodes.begin() + static_cast<std::ptrdiff_t>(count);
  return std::find(nodes.begin(), end, node) != end;
}

void VarnTreeNode::Order::Strays::add(VarnTreeNode* node) {
  if (isLost || has(node))
    return;
  if (count < kMostStrays) {
    nodes[count++] = node;
  } else {
    *this = {};
    isLost = true;
  }
}

void VarnTreeNode::Order::Strays::drop(const VarnTreeNode* node) {
  const auto end = nodes.begin() + static_cast<std::ptrdiff_t>(count);
  const auto found = std::find(nodes.begin(), end, node);
  if (found == end)
    return;
  *found = nodes[--count];
  nodes[count] = nullptr;
}

// The number of children in front of the boundary, behind which the first one is no stray. Strays
// are passed over, on whatever side they stand.
template <int kBefore>
std::size_t VarnTreeNode::Order::boundary(const tChildren& children, const Strays& strays,
                                          const SoughtKey& key) {
  std::size_t begin = 0;
  std::size_t end = children.size();
  while (begin < end) {
    const std::size_t middle = begin + (end - begin) / 2;
    std::size_t at = middle;
    while (at < end && strays.has(children[at]))
      ++at;
    if (at < end && key.compared(children[at]->m_sKey) <= kBefore)
      begin = at + 1;
    else
      end = middle;
  }
  while (begin < children.size() && strays.has(children[begin]))
    ++begin;
  return begin;
}

// Whether a stray could stand where it does if it were none. Gives up among many that are alike.
bool VarnTreeNode::Order::isInPlace(const tChildren& children, const Strays& strays,
                                    const VarnTreeNode* child) {
  constexpr std::size_t kMostSteps = 16;
  const std::string& key = child->m_sKey;
  const std::size_t place = boundary<LESS>(children, strays, SoughtKey(key));
  for (std::size_t at = place; at > 0 && place - at < kMostSteps; --at) {
    if (children[at - 1] == child)
      return true;
    if (!strays.has(children[at - 1]))
      break;
  }
  for (std::size_t at = place; at < children.size() && at - place < kMostSteps; ++at) {
    if (children[at] == child)
      return true;
    if (!strays.has(children[at]) && children[at]->m_sKey != key)
      break;
  }
  return false;
}

// Whether all children but the strays stand in order.
bool VarnTreeNode::Order::isRight(const tChildren& children, const Strays& strays) {
  const VarnTreeNode* last = nullptr;
  for (const VarnTreeNode* const child : children) {
    if (strays.has(child))
      continue;
    if (last != nullptr && child->m_sKey < last->m_sKey)
      return false;
    last = child;
  }
  return true;
}

// Where a child is less than the last one, that one is the stray if without it the order goes on.
VarnTreeNode::Order::Strays VarnTreeNode::Order::lookThrough(const tChildren& children) {
  Strays strays;
  VarnTreeNode* last = nullptr;
  const VarnTreeNode* beforeLast = nullptr;
  for (VarnTreeNode* const child : children) {
    if (last == nullptr || last->m_sKey <= child->m_sKey)
      beforeLast = std::exchange(last, child);
    else if (beforeLast == nullptr || beforeLast->m_sKey <= child->m_sKey)
      strays.add(std::exchange(last, child));
    else
      strays.add(child);
    if (strays.isLost)
      break;
  }
  return strays;
}

void VarnTreeNode::Order::update(const VarnTreeNode& parent) {
  if (m_nCount.load(std::memory_order_acquire) == Renames::count(&parent))
    return;
  const QuietCancellationGuard closed;
  std::uint64_t count = 0;
  Renames::Mark mark;
  Strays strays;
  {
    const BriefMutex::Hold hold(m_oMutex);
    count = m_nCount.load(std::memory_order_relaxed);
    mark = m_oMark;
    strays = m_oStrays;
  }
  const tChildren& children = parent.m_vChildren;
  Renames::List renamed;
  const bool isKnown = Renames::find(&parent, mark, renamed) && count != 0;
  if (isKnown && (renamed.size == 0 || !strays.isLost)) {
    for (std::size_t i = 0; i < renamed.size; ++i)
      strays.add(renamed.nodes[i]);
    for (std::size_t i = 0; i < renamed.size && !strays.isLost; ++i) {
      if (isInPlace(children, strays, renamed.nodes[i]))
        strays.drop(renamed.nodes[i]);
    }
    if (strays.isLost)
      strays = lookThrough(children);
  } else {
    noteOnlyParent(parent);
    if (strays.isLost || !isRight(children, strays))
      strays = lookThrough(children);
  }
  const BriefMutex::Hold hold(m_oMutex);
  if (m_nCount.load(std::memory_order_relaxed) != count)
    return;
  if (strays != m_oStrays)
    m_oStrays = strays;
  const ChildIndex* const index = m_pIndex.load(std::memory_order_relaxed);
  if (isKnown ? renamed.size > 0 : index != nullptr && !index->isRightFor(children))
    dropIndex();
  m_oMark = mark;
  m_nCount.store(mark.count(), std::memory_order_release);
}

std::optional<VarnTreeNode*> VarnTreeNode::Order::findByIndex(const VarnTreeNode& parent,
                                                              std::string_view key) {
  const ChildIndex* index = m_pIndex.load(std::memory_order_acquire);
  if (index == nullptr) {
    if (m_nLooks.fetch_add(1, std::memory_order_relaxed) < kLooksForIndex)
      return std::nullopt;
    makeIndex(parent.m_vChildren);
    index = m_pIndex.load(std::memory_order_acquire);
  }
  return index != nullptr ? index->find(key) : std::nullopt;
}

// Without memory there is none.
void VarnTreeNode::Order::makeIndex(const tChildren& children) {
  const QuietCancellationGuard closed;
  const BriefMutex::Hold hold(m_oMutex);
  if (m_pIndex.load(std::memory_order_relaxed) != nullptr)
    return;
  m_nLooks.store(0, std::memory_order_relaxed);
  try {
    m_pIndex.store(new ChildIndex(children), std::memory_order_release);
  } catch (const std::bad_alloc&) {
  }
}

void VarnTreeNode::Order::dropIndex() {
  delete m_pIndex.exchange(nullptr, std::memory_order_relaxed);
  m_nLooks.store(0, std::memory_order_relaxed);
}

VarnTreeNode* VarnTreeNode::Order::find(const tChildren& children, std::string_view key) const {
  assert(!m_oStrays.isLost);
  const std::size_t place = boundary<LESS>(children, m_oStrays, SoughtKey(key));
  const bool isThere = place < children.size() && children[place]->m_sKey == key;
  VarnTreeNode* found = isThere ? children[place] : nullptr;
  for (std::size_t i = 0; i < m_oStrays.count; ++i) {
    VarnTreeNode* const stray = m_oStrays.nodes[i];
    if (stray->m_sKey != key)
      continue;
    const auto isEither = [=](const VarnTreeNode* child) {
      return child == found || child == stray;
    };
    found = found == nullptr ? stray : *std::find_if(children.begin(), children.end(), isEither);
  }
  return found;
}

std::size_t VarnTreeNode::Order::placeFor(const tChildren& children, std::string_view key) const {
  assert(!m_oStrays.isLost);
  auto place = children.begin() + static_cast<std::ptrdiff_t>(
                                      boundary<NOT_GREATER>(children, m_oStrays, SoughtKey(key)));
  for (std::size_t i = 0; i < m_oStrays.count; ++i) {
    if (m_oStrays.nodes[i]->m_sKey > key)
      place = std::find(children.begin(), place, m_oStrays.nodes[i]);
  }
  return static_cast<std::size_t>(place - children.begin());
}

void VarnTreeNode::Order::noteOnlyParent(const VarnTreeNode& parent) {
  for (VarnTreeNode* const child : parent.m_vChildren) {
    if (child->m_pParent.load(std::memory_order_relaxed) != nullptr)
      return;
    if (child->m_nParents.load(std::memory_order_relaxed) == 1)
      child->m_pParent.store(&parent, std::memory_order_relaxed);
  }
}

// A child that does not fit between its neighbours is a stray. Among renamed ones that are not
// looked at yet, nothing can be said.
void VarnTreeNode::Order::noteAdded(const VarnTreeNode& parent, std::size_t position) {
  const tChildren& children = parent.m_vChildren;
  assert(position < children.size());
  VarnTreeNode* const child = children[position];
  if (m_nCount.load(std::memory_order_relaxed) != Renames::count(&parent)) {
    m_nCount.store(0, std::memory_order_relaxed);
    dropIndex();
    return;
  }
  if (ChildIndex* const index = m_pIndex.load(std::memory_order_relaxed)) {
    try {
      index->add(child);
    } catch (const std::bad_alloc&) {
      dropIndex();
    }
  }
  const auto isStray = [this](const VarnTreeNode* node) { return m_oStrays.has(node); };
  std::size_t before = position;
  while (before > 0 && isStray(children[before - 1]))
    --before;
  std::size_t behind = position + 1;
  while (behind < children.size() && isStray(children[behind]))
    ++behind;
  const bool fits = (before == 0 || children[before - 1]->m_sKey <= child->m_sKey) &&
                    (behind == children.size() || child->m_sKey <= children[behind]->m_sKey);
  const bool wasLost = m_oStrays.isLost;
  if (!fits)
    m_oStrays.add(child);
  // What is lost this way may be known after a look at all children, which then must come first.
  if (m_oStrays.isLost && !wasLost)
    m_nCount.store(0, std::memory_order_relaxed);
}

// What the child has told before it went is not noted for it any more, so that all is looked at
// again if there was something. So it is for another entry of a stray, and if so many have gone
// that those left may be in order.
void VarnTreeNode::Order::noteRemoved(const VarnTreeNode& parent, const VarnTreeNode* child) {
  const bool hasNews = Renames::mark(&parent).count() != m_nCount.load(std::memory_order_relaxed);
  const bool isElsewhere = child->m_nParents.load(std::memory_order_relaxed) > 0;
  const bool isFewer = m_oStrays.isLost && ++m_nRemoved > parent.m_vChildren.size();
  if (hasNews || isFewer || (isElsewhere && m_oStrays.has(child))) {
    m_nCount.store(0, std::memory_order_relaxed);
    m_nRemoved = 0;
  }
  m_oStrays.drop(child);
  ChildIndex* const index = m_pIndex.load(std::memory_order_relaxed);
  if (index != nullptr && (hasNews || !m_oStrays.isLost))
    dropIndex();
  else if (index != nullptr)
    index->remove(child);
}

// Without memory for more the children are searched one by one.
[[gnu::noinline]] bool VarnTreeNode::findOrder(std::uint64_t now) const {
  std::uint64_t known = m_nOrder.load(std::memory_order_acquire);
  if (Order* const order = Order::in(known)) {
    order->update(*this);
    return order->isSorted();
  }
  const bool isWide = m_vChildren.size() >= Order::kFewest;
  if (!isWide && known == Order::known(now, Order::UNSORTED))
    return false;
  if (!isWide || known == 0) {
    Order::noteOnlyParent(*this);
    const bool sorted = std::is_sorted(
        m_vChildren.begin(), m_vChildren.end(),
        [](const auto* left, const auto* right) { return left->m_sKey < right->m_sKey; });
    if (sorted || !isWide) {
      const std::uint64_t found = Order::known(now, sorted ? Order::SORTED : Order::UNSORTED);
      m_nOrder.compare_exchange_strong(known, found, std::memory_order_relaxed);
      return sorted;
    }
  }
  Order* const made = new (std::nothrow) Order;
  if (made == nullptr)
    return false;
  made->update(*this);
  const bool sorted = made->isSorted();
  if (!m_nOrder.compare_exchange_strong(known, made->asKnown(), std::memory_order_release))
    delete made;
  return sorted;
}

[[gnu::noinline]] void VarnTreeNode::deleteOrder() {
  delete Order::in(m_nOrder.load(std::memory_order_relaxed));
  m_nOrder.store(0, std::memory_order_relaxed);
}

bool VarnTreeNode::isSorted() const {
  const std::uint64_t now = Renames::count(this);
  const std::uint64_t order = m_nOrder.load(std::memory_order_relaxed);
  return order == Order::known(now, Order::SORTED) || findOrder(now);
}

// The first child with this key, or null. Then `place` becomes the position for one that is added.
VarnTreeNode* VarnTreeNode::findNode(std::string_view key, std::size_t* place) const {
  if (!isSorted()) {
    VarnTreeNode* const found = findOutOfOrder(key);
    if (place != nullptr && found == nullptr)
      *place = findPlaceFor(std::string(key));
    return found;
  }
  const Boundary boundary = boundaryOf<LESS>(m_vChildren, SoughtKey(key));
  if (place != nullptr)
    *place = boundary.position;
  return boundary.isOfKey ? m_vChildren[boundary.position] : nullptr;
}

[[gnu::noinline]] VarnTreeNode* VarnTreeNode::findOutOfOrder(std::string_view key) const {
  Order* const order = Order::in(m_nOrder.load(std::memory_order_acquire));
  if (order != nullptr && !order->isLost())
    return order->find(m_vChildren, key);
  if (const auto child = order != nullptr ? order->findByIndex(*this, key) : std::nullopt)
    return *child;
  const auto found = std::find_if(m_vChildren.begin(), m_vChildren.end(),
                                  [&](const auto* child) { return child->m_sKey == key; });
  return found != m_vChildren.end() ? *found : nullptr;
}

// The position of the first child with this key, or the number of children.
std::size_t VarnTreeNode::find(std::string_view key) const {
  if (isSorted()) {
    const Boundary boundary = boundaryOf<LESS>(m_vChildren, SoughtKey(key));
    return boundary.isOfKey ? boundary.position : m_vChildren.size();
  }
  const auto found = std::find(m_vChildren.begin(), m_vChildren.end(), findOutOfOrder(key));
  return static_cast<std::size_t>(found - m_vChildren.begin());
}

// The position of the first child with a greater key, or the number of children.
std::size_t VarnTreeNode::findPlaceFor(const std::string& key) const {
  if (isSorted())
    return boundaryOf<NOT_GREATER>(m_vChildren, SoughtKey(key)).position;
  const Order* const order = Order::in(m_nOrder.load(std::memory_order_acquire));
  if (order != nullptr && !order->isLost())
    return order->placeFor(m_vChildren, key);
  const auto place = std::find_if(m_vChildren.begin(), m_vChildren.end(),
                                  [&](const auto* child) { return key < child->m_sKey; });
  return static_cast<std::size_t>(place - m_vChildren.begin());
}

}  // namespace VarnSupport
