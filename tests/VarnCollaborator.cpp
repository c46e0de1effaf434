#include "TestTools.h"

using namespace TestTools;

namespace {

// Writes its name, then does what the case wants.
class Named : public VarnDependent {
 public:
  Named(char name, VarnCollaborator& source, std::string& calls) : m_cName(name), m_sCalls(calls) {
    source.addDependent(*this);
  }
  void handleNotification(VarnCollaborator& source, const VarnNotification&) override {
    m_sCalls += m_cName;
    if (action)
      action(source);
  }

  std::function<void(VarnCollaborator&)> action;

 private:
  char m_cName;
  std::string& m_sCalls;
};

class VarnCollaboratorTest : public testing::Test {
 protected:
  std::string notify() {
    calls.clear();
    source->notify(VarnNotification());
    return calls;
  }

  std::string calls;
  std::unique_ptr<VarnCollaborator> source = std::make_unique<VarnCollaborator>();
  Named a{'a', *source, calls};
  Named b{'b', *source, calls};
  Named c{'c', *source, calls};
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
  a.action = [&](VarnCollaborator& s) { s.removeDependent(a); };
  EXPECT_EQ("ac", notify());
  EXPECT_EQ("bc", notify());
}

TEST_F(VarnCollaboratorTest, AddedDuringTheWalkIsCalledInIt) {
  VarnCollaborator elsewhere;
  Named d('d', elsewhere, calls);
  c.action = [&](VarnCollaborator& s) { s.addDependent(d); };
  EXPECT_EQ("abcd", notify());
  source->removeDependent(d);
}

TEST_F(VarnCollaboratorTest, AWalkEndsWhenACallbackDestroysTheSource) {
  b.action = [&](VarnCollaborator&) { source.reset(); };
  EXPECT_EQ("ab", notify());
  EXPECT_EQ(nullptr, source);
}

TEST_F(VarnCollaboratorTest, NestedWalksBothEndWhenTheSourceGoes) {
  a.action = [&](VarnCollaborator& s) {
    a.action = nullptr;
    s.notify(VarnNotification());
  };
  b.action = [&](VarnCollaborator&) { source.reset(); };
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
