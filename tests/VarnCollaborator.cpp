#include "VarnSupport/VarnCollaborator.h"
#include "LibraryTools.h"

namespace {

// Three observers that write their names, then do what the case wants.
class VarnCollaboratorTest : public testing::Test {
 protected:
  std::string notify() {
    calls.clear();
    source->notify(VarnNotification());
    return calls;
  }
  void called(char name) {
    calls += name;
    if (const auto& action = actions[name])
      action();
  }

  std::string calls;
  std::map<char, std::function<void()>> actions;
  std::unique_ptr<VarnCollaborator> source = std::make_unique<VarnCollaborator>();
  Observer a{*source, [this] { called('a'); }};
  Observer b{*source, [this] { called('b'); }};
  Observer c{*source, [this] { called('c'); }};
};

}  // namespace

TEST_F(VarnCollaboratorTest, CallsInOrderAndAsOftenAsAdded) {
  source->addDependent(a);
  EXPECT_EQ("abca", notify());
  source->removeDependent(a);
  EXPECT_EQ("bc", notify());
  source->removeDependent(a);
  EXPECT_EQ("bc", notify());
}

TEST_F(VarnCollaboratorTest, RemovingOneselfSkipsTheNextInThatWalk) {
  actions['a'] = [&] { source->removeDependent(a); };
  EXPECT_EQ("ac", notify());
  EXPECT_EQ("bc", notify());
}

TEST_F(VarnCollaboratorTest, AddedDuringTheWalkIsCalledInIt) {
  VarnCollaborator elsewhere;
  Observer d(elsewhere, [&] { called('d'); });
  actions['c'] = [&] { source->addDependent(d); };
  EXPECT_EQ("abcd", notify());
  source->removeDependent(d);
}

TEST_F(VarnCollaboratorTest, NestedWalksBothEndWhenTheSourceGoes) {
  actions['a'] = [&] {
    if (calls == "a")
      source->notify(VarnNotification());
  };
  actions['b'] = [&] { source.reset(); };
  EXPECT_EQ("aab", notify());
}

TEST_F(VarnCollaboratorTest, CopiesStartWithoutDependents) {
  VarnCollaborator copy(*source);
  VarnCollaborator other;
  other.addDependent(b);
  other = *source;
  calls.clear();
  copy.notify(VarnNotification());
  other.notify(VarnNotification());
  EXPECT_EQ("b", calls);
}
