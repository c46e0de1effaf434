// Lists whose nodes are linked where they lie, one after the other.
#ifndef SUPPORT_RUNTIME_LINKEDNODES_H
#define SUPPORT_RUNTIME_LINKEDNODES_H

namespace VarnSupport {

// Takes `node` out of the list, if it is there; `next` is the member that links its nodes.
template <typename Node>
void takeOut(Node*& first, const Node& node, Node* Node::*next) {
  Node** link = &first;
  while (*link != nullptr && *link != &node)
    link = &((*link)->*next);
  if (*link != nullptr)
    *link = node.*next;
}

}  // namespace VarnSupport

#endif
