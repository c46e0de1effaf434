#include "VarnSupport/VarnTreeNode.h"
#include "LibraryTools.h"

namespace {

using Node = VarnSmartPointer<VarnTreeNode>;
using Path = std::vector<std::string>;

Node make(const std::string& key) { return new VarnTreeNode(key); }

// A class of its own, which keeps its place in a path.
class Leaf : public VarnTreeNode {
 public:
  explicit Leaf(const std::string& key) : VarnTreeNode(key) {}
  ~Leaf() override { ++destroyed; }
  void printGuts(int indent) override { deepest = std::max(deepest, indent); }

  static int destroyed;
  static int deepest;
};

int Leaf::destroyed = 0;
int Leaf::deepest = 0;

// What print() logs at a level: the keys, each behind one point for every level of the tree.
std::string print(VarnTreeNode& node, int indent = 0, int logLevel = 9) {
  const FileLog log(logLevel);
  node.print(indent);
  const std::string intro = "VarnTreeNode::print: Key = ";
  std::string keys;
  for (const std::string& record : log.texts()) {
    const std::size_t begin = record.find(intro);
    keys += std::string(begin / 4, '.') + record.substr(begin + intro.size()) + ' ';
  }
  return keys;
}

// Two nodes, which share children, against plain lists of these: in key order at first, then in
// any, while keys change, often at first. They have `width` children more than come and go.
void compareWithPlainLists(const Path& keys, int width, int steps, int period) {
  Random random;
  const auto anyKey = [&] { return keys[random() % keys.size()]; };
  VarnTreeNode roots[2];
  std::vector<Node> models[2];
  const VarnTreeNode* lastChanged = nullptr;
  const unsigned sharing = width > 0 ? 20 : 4;  // once in so many steps
  for (int step = 0; step < steps; ++step) {
    const auto side = random() % 2;
    VarnTreeNode& root = roots[side];
    std::vector<Node>& model = models[side];
    const std::vector<Node>& others = models[1 - side];
    if (step % period < 2) {
      model.clear();
      root = VarnTreeNode();
      for (int i = 0; i < width; ++i)
        root.add(make(anyKey()));
      for (int i = 0; i < width; ++i)
        model.push_back(root[i]);
    }
    const bool isShared = random() % sharing == 0 && !others.empty();
    const Node node = isShared ? others[random() % others.size()] : make(anyKey());
    const std::string key = node->getKey();
    const auto hasKey = [&](const Node& child) { return child->getKey() == key; };
    const auto isGreater = [&](const Node& child) { return child->getKey() > key; };
    auto at = model.begin() + static_cast<std::ptrdiff_t>(random() % (model.size() + 1));
    if (random() % 3 == 0)
      at = std::find(model.begin(), model.end(), lastChanged);
    const auto first = std::find_if(model.begin(), model.end(), hasKey);
    const int fifth = step % period * 5 / period;
    const auto choice =
        fifth == 4 && random() % 100 > 0 ? random() % 6 : random() % (fifth < 3 ? 5U : 9U);
    if (choice < 3) {
      model.insert(std::find_if(model.begin(), model.end(), isGreater), node);
      ASSERT_EQ(node, root.add(node));
    } else if (choice == 3) {
      model.erase(first, first == model.end() ? first : first + 1);
      root.erase(key);
    } else if (choice == 4 && at != model.end()) {
      root.erase(static_cast<int>(at - model.begin()));
      model.erase(at);
    } else if (choice == 5) {
      ASSERT_EQ(node, root.insert(static_cast<int>(at - model.begin()), node));
      model.insert(at, node);
    } else if (choice == 6 && at != model.end()) {
      const auto end = at + std::min<std::ptrdiff_t>(model.end() - at, random() % 8 == 0 ? 10 : 1);
      std::for_each(at, end, [&](const Node& child) { child->setKey(anyKey()); });
      lastChanged = *at;
    } else if (choice == 7 && random() % sharing < 4) {
      const bool copiesOther = random() % 4 == 0;
      root = VarnTreeNode(copiesOther ? roots[1 - side] : root);
      if (copiesOther)
        model = others;
    }
    for (std::size_t i = 0; i < model.size(); ++i)
      ASSERT_EQ(model[i], root[static_cast<int>(i)]);
    ASSERT_THROW(root.erase(static_cast<int>(model.size())), VarnException);
    if (random() % 2 == 0)
      continue;
    for (int i = 0; i < 2; ++i) {
      const auto found = std::find_if(models[i].begin(), models[i].end(), hasKey);
      ASSERT_EQ(found != models[i].end() ? *found : Node(), roots[i].getNode(key));
    }
  }
}

TEST(VarnTreeNode, ChildrenStandAndAreFoundAsInAPlainList) {
  compareWithPlainLists({"", "a", {"a\0", 2}, "aa", "ab", "b", "\x80", "\xff"}, 0, 20000, 200);
  Path many;
  for (int i = 0; i < 300; ++i)
    many.push_back(std::string(i % 25, '1') + std::to_string(i));
  compareWithPlainLists(many, 100, 10000, 300);
  compareWithPlainLists(many, 100, 10000, 2000);
}

// Its key is another one at each of its two places, as nobody has looked between them.
TEST(VarnTreeNode, ARenamedChildMayComeOnceMoreAmongThoseOutOfOrder) {
  VarnTreeNode root;
  for (int i = 0; i < 200; ++i)
    root.insert(0, make(std::to_string(i)));
  for (int i = 0; i < 200; ++i)
    ASSERT_EQ("7", root.getNode("7")->getKey());
  root[100]->setKey("renamed");
  root.insert(10, root[100]);
  EXPECT_EQ(root[10], root.getNode("renamed"));
  root.erase("renamed");
  EXPECT_EQ(root[100], root.getNode("renamed"));
  root.erase("renamed");
  EXPECT_EQ(nullptr, root.getNode("renamed"));
  EXPECT_EQ(nullptr, root.getNode("99"));
}

// Minutes where a changed key is looked for in every tree. Parents may share a number by chance,
// which several of them hardly all do.
TEST(VarnTreeNode, AChangedKeyCostsNothingElsewhere) {
  constexpr int children = 100000;
  VarnTreeNode wide("wide");
  for (int i = 0; i < children; ++i)
    wide.add(make(std::to_string(children + i)));
  VarnTreeNode others[16];
  for (VarnTreeNode& other : others)
    other.add(make("child"));
  const std::string key = std::to_string(children);
  for (int i = 0; i < 20000; ++i) {
    others[i % std::size(others)][0]->setKey(std::to_string(i));
    ASSERT_EQ(wide[0], wide.getNode(key));
  }
}

TEST(VarnTreeNode, APathMakesWhatIsMissingAndReplacesPlainNodes) {
  VarnTreeNode root("root");
  Path path = {" x ", "y"};
  const Node deep = make("any");
  EXPECT_EQ(deep, root.add(deep, path));
  EXPECT_TRUE(path.empty());
  EXPECT_EQ("root .x ..y ", print(root));
  const Node replacement = make("  x//");
  replacement->add(make("lost"));
  EXPECT_EQ(replacement, root.add(replacement, "/"));
  EXPECT_EQ("root .x ..y ", print(root));
  EXPECT_EQ(replacement, root.getNode("x"));
  EXPECT_EQ(deep, replacement->getNode("y"));
  // The node that is there already stays, with what is below it.
  EXPECT_EQ(replacement, root.add(replacement, "/"));
  EXPECT_EQ("root .x ..y ", print(root));
  // A node of another class is not replaced.
  const Node leaf = root.add(new Leaf("w"));
  root.add(make("w;"), ";");
  EXPECT_EQ(leaf, root.getNode("w"));
  root.erase("w");
  // A replacement goes behind its equals.
  const Node equal = root.add(make("x"));
  const Node last = root.add(make("x"), "/");
  EXPECT_EQ(equal, root[0]);
  EXPECT_EQ(last, root[1]);
  // A child that gets another key by its path counts with that.
  VarnTreeNode list("list");
  const Node child = list.insert(0, make("z"));
  list.insert(1, make("b"));
  list.add(child, path = {"k"});
  EXPECT_EQ("list .k .b .k ", print(list));
}

TEST(VarnTreeNode, PathsAreFoundKeyByKey) {
  VarnTreeNode root("root");
  root.add(make("a/b\t/c"), "/");
  const std::tuple<Path, const char*, Path> rows[] = {{{"a"}, "a", {}},
                                                      {{"  a ", " b\t", "c "}, "c", {}},
                                                      {{"a", "b", "c"}, nullptr, {"c"}},
                                                      {{"A", "b\t"}, nullptr, {"b\t"}},
                                                      {{"a", "b\t", "c", "d"}, nullptr, {}},
                                                      {{" "}, nullptr, {}}};
  for (const auto& [keys, key, left] : rows) {
    SCOPED_TRACE(testing::PrintToString(keys));
    Path path = keys;
    const Node found = root.getNode(path);
    EXPECT_EQ(key == nullptr, found == nullptr);
    EXPECT_TRUE(found == nullptr || found->getKey() == key);
    EXPECT_EQ(left, path);
  }
  EXPECT_EQ("c", root.getNode("/a//b\t/c/", "/")->getKey());
  EXPECT_EQ("c", root.getNode("a, b\t/c", "/,")->getKey());
  EXPECT_EQ(Node(), root.getNode("///", "/"));
  EXPECT_EQ(Node(), root.getNode("a/b\t", nullptr));
}

TEST(VarnTreeNode, NothingIsAddedForNullAnEmptyPathOrAWrongIndex) {
  VarnTreeNode root("root");
  Path path;
  const Node node = make("//");
  EXPECT_EQ(node, root.add(node, path));
  EXPECT_EQ(node, root.add(node, "/"));
  path = {"x", "y"};
  EXPECT_EQ(Node(), root.add(Node(), path));
  EXPECT_EQ(Node(), root.add(Node()));
  EXPECT_EQ(Node(), root.insert(0, Node()));
  for (const int index : {1, -1})
    EXPECT_THROW(root.insert(index, node), VarnException);
  EXPECT_THROW(root.erase(-1), VarnException);
  EXPECT_EQ("root ", print(root));
}

TEST(VarnTreeNode, ThreadsMayLookThingsUpAtOnce) {
  VarnTreeNode root;
  for (int i = 0; i < 100; ++i)
    root.add(make(std::to_string(i) + "/leaf"), "/");
  root[50]->setKey("changed");
  VarnTreeNode unordered;
  for (int i = 0; i < 200; ++i)
    unordered.insert(0, make(std::to_string(i)));
  // Keys change in other trees, and below parents that are not known.
  std::vector<VarnTreeNode> others(2000);
  for (VarnTreeNode& other : others)
    other.add(make("child"));
  others.push_back(others.back());
  onThreads(3, [&](int thread) {
    for (int i = 0; i < 2000; ++i) {
      if (thread == 2)
        others[2000 - i % 200 * (i % 11)][0]->setKey("other");
      else
        EXPECT_EQ("leaf", root.getNode("99/leaf", "/")->getKey());
      EXPECT_EQ(unordered[99], unordered.getNode("100"));
    }
  });
}

TEST(VarnTreeNode, CopiesShareTheChildrenAndNothingElse) {
  VarnTreeNode root("root");
  root.add(make("a/b"), "/");
  const Node target = make("target");
  target->add(new Leaf("old"));
  Leaf::destroyed = 0;
  *target = root;
  EXPECT_EQ(1, target->refCount());
  EXPECT_EQ(1, Leaf::destroyed);
  *target = "renamed";
  VarnTreeNode copy(*target);
  copy.erase("a");
  root.getNode("a")->add(make("c"));
  EXPECT_EQ("renamed .a ..b ..c ", print(*target));
  EXPECT_EQ("..renamed ", print(copy, 2));
  EXPECT_EQ("", print(copy, 0, 8) + print(copy, 0, 12));  // level 9 exactly
}

TEST(VarnTreeNode, DepthIsLimitedByMemoryAlone) {
  constexpr int depth = 100000;
  Leaf::destroyed = 0;
  {
    Leaf top("");
    VarnTreeNode* last = &top;
    for (int i = 0; i < depth; ++i)
      last = last->add(new Leaf("k"));
    print(top);
    Path path(depth, "k");
    EXPECT_EQ(last, top.getNode(path));
    path.assign(depth, "other");
    const Node end = top.add(make(""), path);
    path.assign(depth, "other");
    EXPECT_EQ(end, top.getNode(path));
    EXPECT_EQ(0, Leaf::destroyed);
  }
  EXPECT_EQ(depth + 1, Leaf::destroyed);
  EXPECT_EQ(depth, Leaf::deepest);
}

}  // namespace
