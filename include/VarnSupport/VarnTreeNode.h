// Keyed, reference-counted tree nodes.
//
// A node has a text as key and an ordered list of children, each of which it holds by one
// reference; a child may hang under several nodes. Children are added in key order, inserted at a
// position, or added and found by a path of keys, with nodes made on the way. Trees may be deep:
// nothing here recurses. They must not contain a node below itself: such nodes are never freed, and
// print() does not end.
//
// Trees take no locks. Several threads may look things up in one tree while no thread changes it.
#ifndef VARNSUPPORT_VARNTREENODE_H
#define VARNSUPPORT_VARNTREENODE_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "VarnSupport/VarnCollaborator.h"
#include "VarnSupport/VarnExport.h"
#include "VarnSupport/VarnObjectBase.h"

namespace VarnSupport {

class VSUPT_EXPORT VarnTreeNode : public VarnObjectBase, public VarnCollaborator {
 public:
  VarnTreeNode();
  explicit VarnTreeNode(const std::string& key);
  // Copies share the children. Only key and children are copied and assigned: count, dependents and
  // parent stay those of the target.
  VarnTreeNode(const VarnTreeNode& source);
  VarnTreeNode& operator=(const VarnTreeNode& source);
  VarnTreeNode& operator=(const std::string& key);
  ~VarnTreeNode() override;

  const std::string& getKey() const { return m_sKey; }
  // Does not move a node that is a child to another position.
  void setKey(const std::string& key);

  // Puts `node` before the first child with a greater key, compared byte by byte, and returns it.
  // The node's parent is not set. A null node is not added, here and below.
  VarnSmartPointer<VarnTreeNode> add(VarnSmartPointer<VarnTreeNode> node);
  // Puts `node` at a position whatever its key, makes this its parent, and returns it. Throws
  // VarnException when `index` is below 0 or beyond the last child's successor.
  VarnSmartPointer<VarnTreeNode> insert(int index, VarnSmartPointer<VarnTreeNode> node);
  // The child at a position. Requires: there is one.
  VarnSmartPointer<VarnTreeNode> operator[](int index) const;
  // The first child with exactly this key, or null.
  VarnSmartPointer<VarnTreeNode> getNode(const std::string& key) const;
  // Takes out the first child with exactly this key, if there is one.
  void erase(const std::string& key);
  // Takes out the child at a position. Throws VarnException when there is none.
  void erase(int index);

  // Adds `node` at the end of a path of keys, which begins below this node; blanks around a key do
  // not count. Nodes that are missing on the way are made. The node gets the last key; it takes the
  // place, and the children, of a plain node with that key. A node of another class (one whose
  // run-time type name does not contain "VarnTreeNode") keeps its place, and is returned instead of
  // `node`. An empty path adds nothing. The path is used up.
  VarnSmartPointer<VarnTreeNode> add(VarnSmartPointer<VarnTreeNode> node,
                                     std::vector<std::string>& path);
  // The path is the node's own key, split as VarnTokenizer() does.
  VarnSmartPointer<VarnTreeNode> add(VarnSmartPointer<VarnTreeNode> node, const char* delimiters);
  // The node at the end of a path, or null. Keys are taken off the path up to the first that is not
  // found.
  VarnSmartPointer<VarnTreeNode> getNode(std::vector<std::string>& path) const;
  VarnSmartPointer<VarnTreeNode> getNode(const std::string& path, const char* delimiters) const;

  // Logs this node and all below it, a line each, through printGuts(), as long as the log's global
  // level is exactly 9. Requires: printGuts() leaves the tree as it is.
  void print(int indent);
  // Logs this node at level 9, behind four blanks for each step of `indent`.
  virtual void printGuts(int indent);

 private:
  class VSUPT_LOCAL Order;

  VSUPT_LOCAL void gainParent(const VarnTreeNode& parent);
  VSUPT_LOCAL void loseParent();
  VSUPT_LOCAL void exchangeChildren(VarnTreeNode& other);
  VSUPT_LOCAL void releaseChildren();
  void keyChanged();
  bool isSorted() const;
  VSUPT_LOCAL bool findOrder(std::uint64_t now) const;
  VSUPT_LOCAL void deleteOrder();
  VSUPT_LOCAL VarnTreeNode* findNode(std::string_view key, std::size_t* place = nullptr) const;
  VSUPT_LOCAL VarnTreeNode* findOutOfOrder(std::string_view key) const;
  std::size_t find(std::string_view key) const;
  std::size_t findPlaceFor(const std::string& key) const;
  void place(std::size_t position, VarnTreeNode* node);
  void remove(std::size_t position);
  template <typename Path>
  VSUPT_LOCAL VarnTreeNode* addPath(VarnTreeNode* node, Path path);
  VarnTreeNode* replace(VarnTreeNode* existing, VarnTreeNode* node);
  template <typename Path>
  VarnTreeNode* findPath(Path& path) const;

  std::vector<VarnTreeNode*> m_vChildren;  // one reference each
  std::string m_sKey;
  // The only parent, while that is known. Not owned, and never followed: it may be gone.
  std::atomic<const VarnTreeNode*> m_pParent{nullptr};
  // What isSorted() found out: see Order.
  mutable std::atomic<std::uint64_t> m_nOrder{0};
  // Entries in lists of children. The largest value stays.
  std::atomic<std::uint8_t> m_nParents{0};
};

extern template class VarnSmartPointer<VarnTreeNode>;

}  // namespace VarnSupport

#endif
