// Children are searched by halves while they are in key order. insert() can break the order, and so
// can a change of a child's key, which its parents do not hear of: see Renames. A node with many
// children then searches by halves those that are still in order (Order), one with few searches one
// by one.
//
// The children are counted by hand. A smart pointer cannot be moved: shifting a list of them would
// change every count under the global critical section.
#include "VarnSupport/VarnTreeNode.h"

#include <cassert>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <optional>
#include <typeinfo>
#include <utility>

#include "VarnSupport/VarnException.h"
#include "VarnSupport/VarnLogging.h"
#include "VarnSupport/VarnStringUtilities.h"
#include "runtime/Cancellation.h"
#include "runtime/ThreadScope.h"
#include "text/ChildOrder.h"
#include "text/Renames.h"
#include "text/TreePath.h"

namespace VarnSupport {

namespace {

// The outermost of the nodes that die on this thread clears up what all of them leave behind.
struct ClearingUp : ThreadScopeOf<ClearingUp> {
  explicit ClearingUp(std::vector<VarnTreeNode*>& nodes) : orphans(nodes) {}

  std::vector<VarnTreeNode*>& orphans;
};

// Gives up one reference to each node. Nodes that die of it do not recurse, however deep they go.
void releaseAll(std::vector<VarnTreeNode*> nodes) {
  if (nodes.empty())
    return;
  if (const ClearingUp* const outer = ClearingUp::innermost()) {
    try {
      outer->orphans.insert(outer->orphans.end(), nodes.begin(), nodes.end());
      return;
    } catch (const std::bad_alloc&) {
      // Without memory for the list they are released from here.
    }
  }
  const ClearingUp clearing(nodes);
  while (!nodes.empty()) {
    VarnTreeNode* const node = nodes.back();
    nodes.pop_back();
    node->release();
  }
}

// Any class with this in its run-time type name counts, wherever it stands; callers rely on it.
bool isPlain(const VarnTreeNode& node) {
  return std::strstr(typeid(node).name(), "VarnTreeNode") != nullptr;
}

// A level above 9 turns printing off; callers rely on it.
bool printingIsOn() {
  constexpr int tracing = 9;
  const VarnLogging* const log = VarnLogging::getInstance();
  return log != nullptr && log->getLogLevel() == tracing;
}

}  // namespace

template class VarnSmartPointer<VarnTreeNode>;

VarnTreeNode::VarnTreeNode() = default;

VarnTreeNode::VarnTreeNode(const std::string& key) {
  const CancellationGuard closed;
  m_sKey = key;
}

VarnTreeNode::VarnTreeNode(const VarnTreeNode& source)
    : VarnObjectBase(source), VarnCollaborator(source) {
  const CancellationGuard closed;
  m_sKey = source.m_sKey;
  m_vChildren = source.m_vChildren;
  for (VarnTreeNode* const child : m_vChildren) {
    child->addRef();
    child->gainParent(*this);
  }
}

// By a copy, so that the children of before are released last: one of them may hold the source.
VarnTreeNode& VarnTreeNode::operator=(const VarnTreeNode& source) {
  if (this == &source)
    return *this;
  const CancellationGuard closed;
  VarnTreeNode copy(source);
  exchangeChildren(copy);
  m_sKey.swap(copy.m_sKey);
  keyChanged();
  return *this;
}

VarnTreeNode& VarnTreeNode::operator=(const std::string& key) {
  setKey(key);
  return *this;
}

// A tree that goes by its root goes without recursion: see releaseAll().
VarnTreeNode::~VarnTreeNode() {
  const QuietCancellationGuard closed;
  releaseChildren();
}

void VarnTreeNode::releaseChildren() {
  for (VarnTreeNode* const child : m_vChildren)
    child->loseParent();
  if (m_nOrder.load(std::memory_order_relaxed) != 0)
    deleteOrder();
  releaseAll(std::exchange(m_vChildren, {}));
}

void VarnTreeNode::exchangeChildren(VarnTreeNode& other) {
  m_vChildren.swap(other.m_vChildren);
  for (const auto& [parent, former] : {std::pair(this, &other), std::pair(&other, this)}) {
    for (VarnTreeNode* const child : parent->m_vChildren) {
      const VarnTreeNode* noted = former;
      child->m_pParent.compare_exchange_strong(noted, parent, std::memory_order_relaxed);
    }
    parent->deleteOrder();
  }
}

void VarnTreeNode::setKey(const std::string& key) {
  const CancellationGuard closed;
  m_sKey = key;
  keyChanged();
}

// Nodes that are no children cannot break an order. Threads that made the node a child of several
// parents at once may have noted one of them.
void VarnTreeNode::keyChanged() {
  static constinit const Renames::tParent unknown{nullptr};
  const std::uint8_t parents = m_nParents.load(std::memory_order_relaxed);
  if (parents > 0)
    Renames::tell(this, parents == 1 ? m_pParent : unknown);
}

// Takes a reference to `node` for the child that it becomes. A node that does not fit between its
// neighbours breaks the order.
void VarnTreeNode::place(std::size_t position, VarnTreeNode* node) {
  assert(position <= m_vChildren.size() && node != nullptr);
  m_vChildren.insert(m_vChildren.begin() + static_cast<std::ptrdiff_t>(position), node);
  node->addRef();
  node->gainParent(*this);
  const std::uint64_t known = m_nOrder.load(std::memory_order_relaxed);
  if (Order* const order = Order::in(known)) {
    order->noteAdded(*this, position);
    return;
  }
  const bool fits =
      (position == 0 || m_vChildren[position - 1]->m_sKey <= node->m_sKey) &&
      (position + 1 == m_vChildren.size() || node->m_sKey <= m_vChildren[position + 1]->m_sKey);
  if (!fits && known != 0)
    m_nOrder.store(known | Order::UNSORTED, std::memory_order_relaxed);
}

// The child leaves the list before it is released: the destructor of the child may use this node.
// It may have been the only one that was out of order.
void VarnTreeNode::remove(std::size_t position) {
  assert(position < m_vChildren.size());
  const auto entry = m_vChildren.begin() + static_cast<std::ptrdiff_t>(position);
  VarnTreeNode* const node = *entry;
  m_vChildren.erase(entry);
  node->loseParent();
  const std::uint64_t known = m_nOrder.load(std::memory_order_relaxed);
  if (Order* const order = Order::in(known))
    order->noteRemoved(*this, node);
  else if (Order::isKnown(known, Order::UNSORTED))
    m_nOrder.store(0, std::memory_order_relaxed);
  node->release();
}

VarnSmartPointer<VarnTreeNode> VarnTreeNode::add(VarnSmartPointer<VarnTreeNode> node) {
  const CancellationGuard closed;
  if (node != nullptr)
    place(findPlaceFor(node->m_sKey), node);
  return node;
}

VarnSmartPointer<VarnTreeNode> VarnTreeNode::insert(int index,
                                                    VarnSmartPointer<VarnTreeNode> node) {
  const CancellationGuard closed;
  if (index < 0 || static_cast<std::size_t>(index) > m_vChildren.size())
    throw VarnException("VarnTreeNode::insert: index out of range", 0);
  if (node != nullptr)
    place(static_cast<std::size_t>(index), node);
  return node;
}

VarnSmartPointer<VarnTreeNode> VarnTreeNode::operator[](int index) const {
  const auto position = static_cast<std::size_t>(index);
  assert(position < m_vChildren.size());
  return m_vChildren[position];
}

VarnSmartPointer<VarnTreeNode> VarnTreeNode::getNode(const std::string& key) const {
  return findNode(key);
}

void VarnTreeNode::erase(const std::string& key) {
  const CancellationGuard closed;
  const std::size_t position = find(key);
  if (position < m_vChildren.size())
    remove(position);
}

void VarnTreeNode::erase(int index) {
  const CancellationGuard closed;
  if (index < 0 || static_cast<std::size_t>(index) >= m_vChildren.size())
    throw VarnException("VarnTreeNode::erase: index out of range", 0);
  remove(static_cast<std::size_t>(index));
}

VarnSmartPointer<VarnTreeNode> VarnTreeNode::add(VarnSmartPointer<VarnTreeNode> node,
                                                 std::vector<std::string>& path) {
  const CancellationGuard closed;
  if (node != nullptr)
    node = addPath(node, ListPath(path));
  path.clear();
  return node;
}

VarnSmartPointer<VarnTreeNode> VarnTreeNode::add(VarnSmartPointer<VarnTreeNode> node,
                                                 const char* delimiters) {
  const CancellationGuard closed;
  if (node != nullptr)
    node = addPath(node, TextPath(node->m_sKey, delimiters));
  return node;
}

// Returns the node that stands at the end of the path. The path may lie in the node's own key.
template <typename Path>
VarnTreeNode* VarnTreeNode::addPath(VarnTreeNode* node, Path path) {
  std::optional<std::string_view> key = path.next();
  if (!key)
    return node;
  VarnTreeNode* parent = this;
  std::size_t position = 0;
  while (const std::optional<std::string_view> following = path.next()) {
    if (VarnTreeNode* const child = parent->findNode(*key, &position)) {
      parent = child;
    } else {
      auto made = std::make_unique<VarnTreeNode>(std::string(*key));
      parent->place(position, made.get());
      parent = made.release();
    }
    key = following;
  }
  VarnTreeNode* const existing = parent->findNode(*key, &position);
  if (existing == nullptr) {
    node->setKey(std::string(*key));
    // A node that is a child already may have moved the place for its new key.
    if (node->m_nParents.load(std::memory_order_relaxed) > 0)
      position = parent->findPlaceFor(node->m_sKey);
    parent->place(position, node);
    return node;
  }
  return isPlain(*existing) && existing != node ? parent->replace(existing, node) : existing;
}

// Puts `node` in the place of a child with the same key, whose children it gets instead of its own.
VarnTreeNode* VarnTreeNode::replace(VarnTreeNode* existing, VarnTreeNode* node) {
  assert(existing != node && m_vChildren[find(existing->m_sKey)] == existing);
  // The old node goes last, as its destructor may use the tree.
  const VarnSmartPointer<VarnTreeNode> kept(existing);
  const std::string key(existing->m_sKey);
  node->setKey(key);
  node->exchangeChildren(*existing);
  remove(find(key));
  place(findPlaceFor(key), node);
  existing->releaseChildren();
  return node;
}

VarnSmartPointer<VarnTreeNode> VarnTreeNode::getNode(std::vector<std::string>& path) const {
  const CancellationGuard closed;
  ListPath keys(path);
  const VarnSmartPointer<VarnTreeNode> found(findPath(keys));
  path.erase(path.begin(), path.begin() + static_cast<std::ptrdiff_t>(keys.used()));
  return found;
}

VarnSmartPointer<VarnTreeNode> VarnTreeNode::getNode(const std::string& path,
                                                     const char* delimiters) const {
  const CancellationGuard closed;
  TextPath keys(path, delimiters);
  return findPath(keys);
}

// Null for an empty path. Reads on up to the first key that is not found.
template <typename Path>
VarnTreeNode* VarnTreeNode::findPath(Path& path) const {
  const VarnTreeNode* parent = this;
  VarnTreeNode* found = nullptr;
  while (const std::optional<std::string_view> key = path.next()) {
    found = parent->findNode(*key);
    if (found == nullptr)
      return nullptr;
    parent = found;
  }
  return found;
}

// The level is asked again for each node, which is printed with all below it or not at all.
void VarnTreeNode::print(int indent) {
  struct Printed {
    const VarnTreeNode* node;
    std::size_t children;
  };
  const CancellationGuard closed;
  std::vector<Printed> path;
  VarnTreeNode* node = this;
  while (node != nullptr) {
    if (printingIsOn()) {
      node->printGuts(static_cast<int>(indent + std::ssize(path)));
      path.push_back({node, 0});
    }
    node = nullptr;
    while (node == nullptr && !path.empty()) {
      Printed& last = path.back();
      if (last.children < last.node->m_vChildren.size())
        node = last.node->m_vChildren[last.children++];
      else
        path.pop_back();
    }
  }
}

void VarnTreeNode::printGuts(int indent) {
  VarnLogRecord record(9);
  for (int i = 0; i < indent && record; ++i)
    record << "    ";
  record << "VarnTreeNode::print: Key = " << m_sKey;
}

}  // namespace VarnSupport
