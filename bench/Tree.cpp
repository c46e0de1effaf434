// A tree of three levels: nodes added and found by their paths.
#include <map>
#include <vector>

#include "Workload.h"

#ifdef PEER_BOOST
#include <boost/property_tree/ptree.hpp>
#endif

namespace {

using Bench::Workload;

// The paths of `count` leaves, each level as wide as the others.
std::vector<std::string> pathsOf(int count) {
  int width = 1;
  while (width * width * width < count)
    ++width;
  std::vector<std::string> paths;
  for (int i = 0; i < count; ++i)
    paths.push_back("key" + std::to_string(i * 7919 % width) + "." + "key" +
                    std::to_string(i / width / width) + "." + "key" +
                    std::to_string(i / width % width));
  return paths;
}

// Each side adds and finds a node by its path.

class Ours {
 public:
  void add(const std::string& path) { m_pRoot->add(new VarnSupport::VarnTreeNode(path), "."); }
  bool find(const std::string& path) const { return m_pRoot->getNode(path, ".") != nullptr; }

 private:
  VarnSupport::VarnSmartPointer<VarnSupport::VarnTreeNode> m_pRoot{new VarnSupport::VarnTreeNode};
};

class PathMap {
 public:
  void add(const std::string& path) { m_mapNodes[path]; }
  bool find(const std::string& path) const { return m_mapNodes.count(path) > 0; }

 private:
  std::map<std::string, std::string> m_mapNodes;
};

#ifdef PEER_BOOST
class WithBoost {
 public:
  void add(const std::string& path) { m_oRoot.put(path, ""); }
  bool find(const std::string& path) const {
    return static_cast<bool>(m_oRoot.get_child_optional(path));
  }

 private:
  boost::property_tree::ptree m_oRoot;
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

template <typename Side>
void add(const std::string& name) {
  constexpr int kNodes = 10000;
  Workload("tree, path added").side(name, [](benchmark::State& state) {
    const std::vector<std::string> paths = pathsOf(kNodes);
    Bench::measure(state, kNodes, true, [&] {
      Side side;
      for (const std::string& path : paths)
        side.add(path);
      return side.find(paths.back());
    });
  });
  Workload("tree, path found").side(name, [](benchmark::State& state) {
    find<Side>(state, pathsOf(kNodes));
  });
  for (const int count : {100, 1000, 10000}) {
    Workload("growth of tree look-up, per look-up among " + std::to_string(count))
        .side(name, [count](benchmark::State& state) { find<Side>(state, pathsOf(count)); });
  }
}

const bool g_bAdded = [] {
  add<Ours>("ours");
  add<PathMap>("limit: map of paths");
#ifdef PEER_BOOST
  add<WithBoost>("Boost");
#endif
  return true;
}();

}  // namespace
