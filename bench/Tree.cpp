// Nodes of a tree of three levels added and found by their paths; and wide nodes: children found,
// renamed, and moved to another parent.
#include <algorithm>
#include <deque>
#include <map>
#include <memory>
#include <vector>

#include "Data.h"
#include "Workload.h"

#ifdef PEER_BOOST
#include <boost/property_tree/ptree.hpp>
#endif

namespace {

using Bench::Workload;

constexpr int kCounts[] = {100, 1000, 10000};

// The paths of `count` leaves in no order: each level as wide as the others, or the first or the
// last one wide.
std::vector<std::string> pathsOf(int count) {
  int width = 1;
  while (width * width * width < count)
    ++width;
  const int widths[][2] = {{width, width}, {width * width / 2, 2}, {2, 2}};
  const auto& [first, second] = Bench::ofShape(widths);
  std::vector<std::string> paths;
  for (int i = 0; i < count; ++i)
    paths.push_back("key" + std::to_string(i % first) + ".key" +
                    std::to_string(i / first % second) + ".key" +
                    std::to_string(i / first / second));
  Bench::Draw("paths").shuffle(paths);
  return paths;
}

// Each side adds and finds a node by its path. With wide nodes it adds children of a first and of a
// second parent, finds them there, renames them, and moves them from one parent to the other.

class Ours {
 public:
  void add(const std::string& path) { m_pRoot->add(new Node(path), "."); }
  bool find(const std::string& path) const { return m_pRoot->getNode(path, ".") != nullptr; }

  void addChild(int parent, const std::string& key) { m_aParents[parent]->add(new Node(key)); }
  bool hasChild(int parent, const std::string& key) const {
    return m_aParents[parent]->getNode(key) != nullptr;
  }
  void rename(int parent, const std::string& from, const std::string& to) {
    m_aParents[parent]->getNode(from)->setKey(to);
  }
  void move(int from, const std::string& key) {
    const Pointer node = m_aParents[from]->getNode(key);
    m_aParents[from]->erase(key);
    m_aParents[1 - from]->add(node);
  }

 private:
  using Node = VarnSupport::VarnTreeNode;
  using Pointer = VarnSupport::VarnSmartPointer<Node>;

  Pointer m_pRoot{new Node};
  Pointer m_aParents[2] = {new Node("first"), new Node("second")};
};

template <typename Step>
void forEachKey(const std::string& path, Step step) {
  for (std::size_t begin = 0, end = 0; end != std::string::npos; begin = end + 1) {
    end = path.find('.', begin);
    step(path.substr(begin, end - begin));
  }
}

class MapOfMaps {
 public:
  void add(const std::string& path) {
    Node* node = &m_oRoot;
    forEachKey(path, [&node](const std::string& key) {
      std::unique_ptr<Node>& child = node->children[key];
      if (child == nullptr)
        child = std::make_unique<Node>();
      node = child.get();
    });
  }
  bool find(const std::string& path) const {
    const Node* node = &m_oRoot;
    forEachKey(path, [&node](const std::string& key) {
      if (node == nullptr)
        return;
      const auto found = node->children.find(key);
      node = found == node->children.end() ? nullptr : found->second.get();
    });
    return node != nullptr;
  }

  void addChild(int parent, const std::string& key) {
    m_aParents[parent].children.emplace(key, std::make_unique<Node>());
  }
  bool hasChild(int parent, const std::string& key) const {
    return m_aParents[parent].children.count(key) > 0;
  }
  void rename(int parent, const std::string& from, const std::string& to) {
    auto node = m_aParents[parent].children.extract(from);
    node.key() = to;
    m_aParents[parent].children.insert(std::move(node));
  }
  void move(int from, const std::string& key) {
    m_aParents[1 - from].children.insert(m_aParents[from].children.extract(key));
  }

 private:
  struct Node {
    std::map<std::string, std::unique_ptr<Node>> children;
  };

  Node m_oRoot;
  Node m_aParents[2];
};

class PathMap {
 public:
  void add(const std::string& path) { m_mapNodes[path]; }
  bool find(const std::string& path) const { return m_mapNodes.count(path) > 0; }

 private:
  std::map<std::string, std::string> m_mapNodes;
};

// What one vector of pointers in key order takes, which callers of our nodes can see.
class SortedPointers {
 public:
  void addChild(int parent, const std::string& key) { place(parent, &m_vKeys.emplace_back(key)); }
  bool hasChild(int parent, const std::string& key) const {
    const Children& children = m_aParents[parent];
    const auto found = placeOf(children, key);
    return found != children.end() && **found == key;
  }
  void rename(int parent, const std::string& from, const std::string& to) {
    std::string* const child = take(parent, from);
    *child = to;
    place(parent, child);
  }
  void move(int from, const std::string& key) { place(1 - from, take(from, key)); }

 private:
  using Children = std::vector<std::string*>;

  static Children::const_iterator placeOf(const Children& children, const std::string& key) {
    return std::lower_bound(
        children.begin(), children.end(), key,
        [](const std::string* child, const std::string& sought) { return *child < sought; });
  }
  void place(int parent, std::string* child) {
    m_aParents[parent].insert(placeOf(m_aParents[parent], *child), child);
  }
  std::string* take(int parent, const std::string& key) {
    const auto found = placeOf(m_aParents[parent], key);
    std::string* const child = *found;
    m_aParents[parent].erase(found);
    return child;
  }

  std::deque<std::string> m_vKeys;
  Children m_aParents[2];
};

#ifdef PEER_BOOST
class WithBoost {
 public:
  void add(const std::string& path) { m_oRoot.put(path, ""); }
  bool find(const std::string& path) const {
    return static_cast<bool>(m_oRoot.get_child_optional(path));
  }

  void addChild(int parent, const std::string& key) { m_aParents[parent].push_back({key, {}}); }
  bool hasChild(int parent, const std::string& key) const { return m_aParents[parent].count(key); }
  // Its keys cannot be changed.
  void rename(int parent, const std::string& from, const std::string& to) {
    take(m_aParents[parent], from, m_aParents[parent], to);
  }
  void move(int from, const std::string& key) {
    take(m_aParents[from], key, m_aParents[1 - from], key);
  }

 private:
  using Node = boost::property_tree::ptree;

  static void take(Node& from, const std::string& key, Node& to, const std::string& newKey) {
    const auto found = from.find(key);
    Node node;
    node.swap(found->second);
    from.erase(from.to_iterator(found));
    to.push_back({newKey, {}})->second.swap(node);
  }

  Node m_oRoot;
  Node m_aParents[2];
};
#endif

template <typename Side>
void find(benchmark::State& state, const std::vector<std::string>& paths) {
  Side side;
  for (const std::string& path : paths)
    side.add(path);
  Bench::require(state, !side.find("key0.none"));
  Bench::measure(state, static_cast<std::int64_t>(paths.size()), true, [&] {
    bool all = true;
    for (const std::string& path : paths)
      all = side.find(path) && all;
    return all;
  });
}

// Among `count` children of one node and as many of another: `change` gets a turn and a key, and
// must leave the child with that key where it looks for it.
template <typename Side, typename Change>
void changeWide(benchmark::State& state, int count, Change change) {
  Side side;
  std::vector<std::string> keys;
  for (const Bench::Property& property : Bench::properties(count))
    keys.push_back(property.key);
  Bench::Draw("children").shuffle(keys);
  for (const std::string& key : keys)
    side.addChild(0, key);
  for (std::size_t i = 0; i < keys.size(); i += 2)
    side.addChild(1, "other" + keys[i]);
  Bench::require(state, !side.hasChild(0, "none") && side.hasChild(0, keys[0]));
  bool all = true;
  std::size_t turn = 0;
  for (auto _ : state) {
    all = change(side, keys[turn % keys.size()], turn / keys.size()) && all;
    ++turn;
  }
  Bench::require(state, all);
}

template <typename Side>
bool findChild(Side& side, const std::string& key, std::size_t) {
  return side.hasChild(0, key);
}

// There and back in one turn, as each name is wanted again. The name is local: comparisons of what
// stands in the last bytes of the program's data may take a hundred times as long.
template <typename Side>
bool renameChild(Side& side, const std::string& key, std::size_t) {
  const std::string other("another name");
  side.rename(0, key, other);
  const bool found = side.hasChild(0, other);
  side.rename(0, other, key);
  return side.hasChild(0, key) && found;
}

// There in one round of all keys, and back in the next.
template <typename Side>
bool moveChild(Side& side, const std::string& key, std::size_t round) {
  const int from = static_cast<int>(round % 2);
  side.move(from, key);
  return side.hasChild(1 - from, key);
}

template <typename Side>
void addWide(const std::string& name) {
  for (const int count : kCounts) {
    const std::string number = std::to_string(count);
    Workload("growth of wide nodes, a child found among " + number)
        .side(name, [count](benchmark::State& state) {
          changeWide<Side>(state, count, findChild<Side>);
        });
    Workload("growth of renaming, twice and found among " + number)
        .side(name, [count](benchmark::State& state) {
          changeWide<Side>(state, count, renameChild<Side>);
        });
    Workload("growth of moving, once and found among " + number)
        .side(name, [count](benchmark::State& state) {
          changeWide<Side>(state, count, moveChild<Side>);
        });
  }
}

template <typename Side>
void add(const std::string& name) {
  constexpr int kNodes = 10000;
  Workload("tree, path added").alsoInVarnThread().side(name, [](benchmark::State& state) {
    const std::vector<std::string> paths = pathsOf(kNodes);
    Bench::measure(state, kNodes, true, [&] {
      Side side;
      for (const std::string& path : paths)
        side.add(path);
      return side.find(paths.back());
    });
  });
  Workload("tree, path found").alsoInVarnThread().side(name, [](benchmark::State& state) {
    find<Side>(state, pathsOf(kNodes));
  });
  for (const int count : kCounts) {
    Workload("growth of tree look-up, per look-up among " + std::to_string(count))
        .side(name, [count](benchmark::State& state) { find<Side>(state, pathsOf(count)); });
  }
}

const bool g_bAdded = [] {
  add<Ours>("ours");
  addWide<Ours>("ours");
  add<MapOfMaps>("std");
  addWide<MapOfMaps>("std");
  add<PathMap>("limit: map of paths");
  addWide<SortedPointers>("limit: pointers in order");
#ifdef PEER_BOOST
  add<WithBoost>("Boost");
  addWide<WithBoost>("Boost");
#endif
  return true;
}();

}  // namespace
