#include <stdexcept>

#include "LibraryTools.h"
#include "VarnSupport/VarnObjectBase.h"

namespace {

class Counted : public VarnObjectBase {
 public:
  Counted() { ++alive; }
  Counted(const Counted& source) : VarnObjectBase(source) { ++alive; }
  Counted& operator=(const Counted&) = default;
  ~Counted() override { --alive; }

  VarnSmartPointer<Counted> next;
  static int alive;
};

int Counted::alive = 0;

using Pointer = VarnSmartPointer<Counted>;

}  // namespace

class Leaf : public VarnObjectBase {};

TEST(VarnObjectBase, CopiesStartAtZeroAndAssignmentResets) {
  Counted first;
  first.addRef();
  Counted copy(first);
  EXPECT_EQ(0, copy.refCount());
  copy.addRef();
  const Counted& same = copy;
  copy = same;
  EXPECT_EQ(1, copy.refCount());
  copy = first;
  EXPECT_EQ(0, copy.refCount());
  EXPECT_EQ(1, first.refCount());
  EXPECT_EQ(16U, sizeof(VarnObjectBase));
}

TEST(VarnObjectBase, NamesOnlyTheDynamicClass) {
  const Leaf leaf;
  const VarnObjectBase& base = leaf;
  EXPECT_EQ("Leaf", base.getClassName());
  EXPECT_TRUE(base.isA("Leaf"));
  EXPECT_FALSE(base.isA("VarnObjectBase"));
  EXPECT_EQ("VarnSupport19VarnWorkInformationE", VarnWorkInformation().getClassName());
}

TEST(VarnObjectBase, NormalizesClassNames) {
  const std::pair<const char*, const char*> cases[] = {
      {"14VarnObjectBase", "VarnObjectBase"},
      {"Q211VarnSupport14VarnObjectBase", "VarnSupport::VarnObjectBase"},
      {"N11VarnSupport14VarnObjectBaseE", "VarnSupport14VarnObjectBaseE"},
      {"Q_2_3Abc3Def", "Abc::Def"},
      {"Q_3_1A2Bc3Def", "A::Bc::Def"},
      {"Q5Abc", "Abc"},
      {"Q23Abc", "Abc::"},
      {"Q73Abc", "Abc::::::::::::"},
      {"A", ""},
      {"Q", ""},
      {"Q_", "out of range"},
      {"", "out of range"},
      {"Q29Abc", "out of range"},
      {"Q_2000000000_3Abc", "out of range"},
      {"Q218446744073709551616Abc", "out of range"}};
  for (const auto& [raw, name] : cases) {
    SCOPED_TRACE(raw);
    try {
      EXPECT_EQ(std::string(name), VarnObjectBase::normalizeClassName(raw));
    } catch (const std::out_of_range& error) {
      EXPECT_STREQ("out of range", name);
      EXPECT_EQ(0U, std::string(error.what()).find("basic_string::substr"));
    }
  }
}

TEST(VarnSmartPointer, SharesAndReleases) {
  Pointer empty;
  EXPECT_TRUE(empty == nullptr);
  EXPECT_FALSE(empty);
  EXPECT_EQ(nullptr, empty.operator->());
  {
    auto* const raw = new Counted;
    Pointer first(raw);
    Pointer second(first);
    EXPECT_EQ(2, raw->refCount());
    first = second;
    first = raw;
    EXPECT_EQ(2, raw->refCount());
    EXPECT_TRUE(first == second);
    EXPECT_TRUE(first == raw);
    EXPECT_TRUE(raw == first);
    EXPECT_TRUE(first != nullptr);
    EXPECT_FALSE(first < second);
    EXPECT_FALSE(second < first);
    EXPECT_FALSE(empty < first);
    EXPECT_FALSE(first < empty);
    Pointer moved(std::move(first));
    EXPECT_EQ(3, raw->refCount());
    second = nullptr;
    EXPECT_EQ(2, raw->refCount());
    EXPECT_EQ(raw, moved.getOwnership());
    EXPECT_TRUE(moved == nullptr);
    EXPECT_EQ(2, raw->refCount());
    raw->release();
  }
  EXPECT_EQ(0, Counted::alive);
  EXPECT_EQ(nullptr, empty.getOwnership());
}

TEST(VarnSmartPointer, MayBeAssignedFromTheObjectItReleases) {
  Pointer head(new Counted);
  head->next = new Counted;
  head->next->next = new Counted;
  head = head->next;
  EXPECT_EQ(2, Counted::alive);
  head = static_cast<Counted*>(head->next);
  EXPECT_EQ(1, Counted::alive);
  head = nullptr;
  EXPECT_EQ(0, Counted::alive);

  // An object that dies may assign to what held it.
  static Pointer holder;
  struct Selfish : Counted {
    ~Selfish() override { holder = new Counted; }
  };
  holder = new Selfish;
  holder = nullptr;
  EXPECT_EQ(1, Counted::alive);
  holder = nullptr;
  EXPECT_EQ(0, Counted::alive);
}

TEST(VarnSmartPointer, CountsInASignalHandlerThatInterruptsACount) {
  expectInChild([] {
    static const Pointer shared(new Counted);
    signal(SIGRTMIN, [](int) { const Pointer copy(shared); });
    for (int i = 0; i < 1000; ++i)  // A fork has held the global section.
      const Pointer copy(shared);
    const pthread_t self = pthread_self();
    std::atomic<bool> done{false};
    std::jthread storm([&] {
      for (int i = 0; i < 20000; ++i)
        pthread_kill(self, SIGRTMIN);
      done = true;
    });
    while (!done)
      const Pointer copy(shared);
    EXPECT_EQ(1, shared->refCount());
  });
}
