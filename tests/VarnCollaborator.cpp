#include "VarnSupport/VarnCollaborator.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>

using namespace VarnSupport;

namespace {

// Writes its name, then does what the case wants.
class Observer : public VarnDependent {
 public:
  Observer(char name, std::string& calls) : m_cName(name), m_sCalls(calls) {}

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
  VarnCollaboratorTest() {
    for (Observer* const observer : {&a, &b, &c})
      source->addDependent(*observer);
  }

  std::string notify() {
    calls.clear();
    source->notify(VarnNotification());
    return calls;
  }

  std::string calls;
  Observer a{'a', calls};
  Observer b{'b', calls};
  Observer c{'c', calls};
  std::unique_ptr<VarnCollaborator> source = std::make_unique<VarnCollaborator>();
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
  Observer d('d', calls);
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

TEST(VarnNotification, IdsAndAssignment) {
  VarnNotification notification;
  EXPECT_EQ(0, notification.getId());
  notification = 7;
  VarnNotification copy(notification);
  EXPECT_EQ(7, copy.getId());
  copy = VarnEventNotification();
  EXPECT_EQ(1, copy.getId());
  const PropertyChanged changed("port");
  EXPECT_EQ(2, changed.getId());
  EXPECT_EQ("port", changed.getName());
}
