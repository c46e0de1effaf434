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

// Against a plain list, while observers that stand in it several times come and go, at times one of
// them in its own call: the next is skipped, or it is called again at the end.
TEST_F(VarnCollaboratorTest, ManyDependentsComeAndGoAsInAPlainList) {
  Random random;
  VarnCollaborator many;
  std::vector<std::size_t> told;
  std::vector<std::size_t> model;
  std::deque<Observer> observers;
  std::size_t leaving = std::string::npos;
  std::size_t joining = std::string::npos;
  for (std::size_t i = 0; i < 1200; ++i) {
    observers.emplace_back(many, [&, i] {
      told.push_back(i);
      if (i == leaving)
        many.removeDependent(observers[i]);
      if (i == joining) {
        joining = std::string::npos;
        many.addDependent(observers[i]);
      }
    });
    model.push_back(i);
  }
  const auto remove = [&](std::size_t which) { std::erase(model, which); };
  for (int step = 0; step < 6000; ++step) {
    const std::size_t which = random() % observers.size();
    if (step % 3000 < 1500 ? random() % 4 != 0 : random() % 4 == 0) {
      many.removeDependent(observers[which]);
      remove(which);
    } else if (model.size() < 3000) {
      many.addDependent(observers[which]);
      model.push_back(which);
    }
    if (step % 20 != 0)
      continue;
    told.clear();
    joining = model.back();
    model.push_back(joining);
    many.notify(VarnNotification());
    ASSERT_EQ(model, told) << step;
    if (std::count(model.begin(), model.end(), which) != 1)
      continue;
    leaving = which;
    told.clear();
    many.notify(VarnNotification());
    leaving = std::string::npos;
    std::vector<std::size_t> expected = model;
    const auto next = std::find(expected.begin(), expected.end(), which) + 1;
    if (next != expected.end())
      expected.erase(next);
    ASSERT_EQ(expected, told) << step;
    remove(which);
  }
}
