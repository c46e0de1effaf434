#include <dlfcn.h>

#include "LibraryTools.h"
#include "VarnSupport/VarnObjectFactory.h"

namespace {

class Product : public VarnObjectBase {};

VarnObjectBase* makeProduct() { return new Product; }

// Creates its objects by a function of the test.
struct Registration : VarnObjectFactoryRegistration {
  Registration(const std::string& name, VarnObjectFactory& factory,
               std::function<VarnObjectBase*()> function)
      : VarnObjectFactoryRegistration(name, &factory), creator(std::move(function)) {}
  ~Registration() override { unregister(); }
  VarnSmartPointer<VarnObjectBase> create() override { return creator(); }

  std::function<VarnObjectBase*()> creator;
};

// A creation that stays under way on a thread of its own until it may end; further ones end at
// once.
struct LongCreation {
  explicit LongCreation(VarnObjectFactory& factory)
      : registration(std::in_place, "long", factory,
                     [this] {
                       if (!begun.exchange(true))
                         eventually([this] { return mayEnd.load(); });
                       return makeProduct();
                     }),
        thread([&factory] { factory.construct("long"); }) {
    eventually([this] { return begun.load(); });
  }
  ~LongCreation() { mayEnd = true; }

  std::atomic<bool> begun{false};
  std::atomic<bool> mayEnd{false};
  std::optional<Registration> registration;
  std::jthread thread;
};

}  // namespace

TEST(VarnObjectFactory, RegistrationsWinOverFunctionsAndGoFirst) {
  VarnObjectFactory factory;
  VarnObjectBase* const special = new Product;
  const VarnSmartPointer<VarnObjectBase> keep(special);
  Registration registration("a", factory, [&] { return special; });
  factory.add("b", [] { return static_cast<VarnObjectBase*>(nullptr); });
  factory.add("a", makeProduct);
  factory.add("null", nullptr);
  EXPECT_EQ((Lines{"a", "b", "null", "a"}), factory.getRegisteredClasses());
  EXPECT_TRUE(factory.construct("a") == special);
  EXPECT_TRUE(factory.construct("b") == nullptr);
  EXPECT_TRUE(factory.construct("null") == nullptr);
  factory.remove("a");
  const VarnSmartPointer<VarnObjectBase> made = factory.construct("a");
  ASSERT_TRUE(made != nullptr);
  EXPECT_TRUE(made != special);
  EXPECT_EQ(1, made->refCount());
  factory.remove("a");
  factory.remove("a");
  EXPECT_EQ((Lines{"b", "null"}), factory.getRegisteredClasses());
}

TEST(VarnObjectFactory, CopiesTakeTheFunctionsOnly) {
  VarnObjectFactory source;
  VarnObjectFactory target;
  const Registration ofSource("s", source, makeProduct);
  const Registration ofTarget("t", target, makeProduct);
  source.add("f", makeProduct);
  target.add("g", makeProduct);
  EXPECT_EQ(Lines{"f"}, VarnObjectFactory(source).getRegisteredClasses());
  target = source;
  EXPECT_EQ((Lines{"f", "t"}), target.getRegisteredClasses());
}

TEST(VarnObjectFactory, RemoveOnlyErasesAndDestructionWaitsForCreationsUnderWay) {
  VarnObjectFactory factory;
  LongCreation creation(factory);
  factory.remove("long");  // by the thread that has to end the creation
  EXPECT_TRUE(factory.construct("long") == nullptr);
  std::atomic<bool> destroyed{false};
  const std::jthread destroyer([&] {
    creation.registration.reset();
    destroyed = true;
  });
  sleepMs(20);
  EXPECT_FALSE(destroyed);
  creation.mayEnd = true;
}

TEST(VarnObjectFactory, ExitDoesNotWaitForACreatorThatNeverReturns) {
  EXPECT_EQ(7, runInChild([]() -> int {
              static VarnObjectFactory factory;
              static std::atomic<bool> begun{false};
              static const Registration registration("endless", factory, []() -> VarnObjectBase* {
                for (begun = true; true;)
                  sleepMs(1000);
              });
              std::thread([] { factory.construct("endless"); }).detach();
              EXPECT_TRUE(eventually([] { return begun.load(); }));
              return 7;
            }));
}

TEST(VarnObjectFactory, ACreatorMayUseTheFactoryAndRemoveItself) {
  VarnObjectFactory factory;
  const Registration registration("self", factory, [&] {
    factory.remove("self");
    factory.add("later", makeProduct);
    return makeProduct();
  });
  EXPECT_TRUE(factory.construct("self") != nullptr);
  EXPECT_EQ(Lines{"later"}, factory.getRegisteredClasses());
}

TEST(VarnObjectFactory, IsUsableInAForkedChildWhileOthersCreate) {
  VarnObjectFactory& factory = *VarnObjectFactory::getGlobalInstance();
  const LongCreation creation(factory);
  expectInChild([&] {
    factory.remove("long");
    factory.add("f", makeProduct);
    EXPECT_TRUE(factory.construct("f") != nullptr);
  });
}

TEST(VarnObjectFactory, TheGlobalInstanceIsMadeWhenThereIsNone) {
  VarnObjectFactory* const factory = VarnObjectFactory::getGlobalInstance();
  factory->add("f", makeProduct);
  VarnObjectFactory::m_pGlobalInstance = nullptr;
  VarnObjectFactory* const anew = VarnObjectFactory::getGlobalInstance();
  delete factory;  // it counts no more, at a fork either
  expectInBareChild([=] { EXPECT_EQ(Lines(), anew->getRegisteredClasses()); });
}

TEST(VarnObjectFactory, TheGlobalInstanceIsDeletedOnceAndByTheDetachingLibrary) {
  static int deletions = 0;
  struct Counting : VarnObjectFactory {
    ~Counting() override { ++deletions; }
  };
  for (const bool detaches : {false, true}) {
    EXPECT_EQ(2, runInBareChild([=] {
                for (int i = 0; i < 4; ++i) {
                  if (i % 2 == 0)  // the second one may lie where the first did
                    VarnObjectFactory::m_pGlobalInstance = new Counting;
                  detaches ? g_ModuleData.detach() : VarnObjectFactory::deleteGlobalInstance();
                }
                return deletions;
              }));
  }
}

TEST(VarnLibrary, APlugInAddsItsClassesWhileItIsLoaded) {
  VarnObjectFactory& factory = *VarnObjectFactory::getGlobalInstance();
  for (int round = 0; round < 2; ++round) {
    VarnSmartPointer<VarnLibrary> library(new VarnLibrary(VSUPT_TEST_PLUGIN, true));
    EXPECT_EQ(Lines{"Greeting"}, factory.getRegisteredClasses());
    EXPECT_TRUE(factory.construct("Greeting")->isA("Greeting"));
    EXPECT_EQ(nullptr, library->getProcAddr("noSuchSymbol"));
    void* const version = library->getProcAddr("greetingVersion");
    ASSERT_NE(nullptr, version);
    EXPECT_EQ(7, reinterpret_cast<int (*)()>(version)());
    const VarnSmartPointer<VarnLibrary> byShortName(new VarnLibrary("vsupt_test_plugin", false));
    EXPECT_EQ(version, byShortName->getProcAddr("greetingVersion"));
    library = nullptr;
    EXPECT_EQ(Lines{"Greeting"}, factory.getRegisteredClasses());
  }
  EXPECT_EQ(Lines(), factory.getRegisteredClasses());
  EXPECT_EQ(nullptr, dlopen(VSUPT_TEST_PLUGIN, RTLD_NOW | RTLD_NOLOAD));
}

TEST(VarnLibrary, CopiesHaveTheHandleAndCloseItOnceMore) {
  for (int copies = 0; copies < 2; ++copies)
    dlopen(VSUPT_TEST_PLUGIN, RTLD_NOW);
  {
    const VarnLibrary library(VSUPT_TEST_PLUGIN, true);
    const VarnSmartPointer<VarnLibrary> assigned(new VarnLibrary("libc.so.6", true));
    *assigned = library;
    EXPECT_EQ(1, assigned->refCount());
    void* const version = VarnLibrary(library).getProcAddr("greetingVersion");
    EXPECT_NE(nullptr, version);
    EXPECT_EQ(version, assigned->getProcAddr("greetingVersion"));
  }
  EXPECT_EQ(nullptr, dlopen(VSUPT_TEST_PLUGIN, RTLD_NOW | RTLD_NOLOAD));
}

// Who unloads it has the loader's lock, and waits for a call that is under way.
TEST(VarnLibrary, ATimerOfAPlugInEndsWithIt) {
  const auto unloadAsTheTimerElapses = [] {
    for (int i = 0; i < 50; ++i) {
      VarnLibrary library(VSUPT_TEST_PLUGIN, true);
      reinterpret_cast<void (*)()>(library.getProcAddr("keepTimer"))();
      usleep(static_cast<useconds_t>(800 + 37 * i % 600));
    }
  };
  EXPECT_EQ(0, runInBareChild(unloadAsTheTimerElapses));  // states of static events stay
}

TEST(VarnLibrary, OthersMayAskForItsClassesWhileItIsBeingLoaded) {
  std::atomic<int> made{0};
  std::mutex products;  // objects of the plug-in must be gone before it is
  const auto other = repeating([&] {
    const std::lock_guard guard(products);
    if (VarnObjectFactory::getGlobalInstance()->construct("Greeting") != nullptr)
      ++made;
  });
  for (int i = 0; i < 10; ++i) {
    VarnSmartPointer<VarnLibrary> library(new VarnLibrary(VSUPT_TEST_PLUGIN, true));
    const int before = made;
    EXPECT_TRUE(eventually([&] { return made > before; }));
    const std::lock_guard guard(products);
    library = nullptr;
  }
}

TEST(VarnLibrary, SaysWhatCouldNotBeLoaded) {
  const std::string said = resultOf([] { const VarnLibrary library("no-such-thing", false); });
  EXPECT_EQ(0U, said.find("VarnLibrary::VarnLibrary: failed to load: no-such-thing.  "
                          "libno-such-thing.so: "))
      << said;
}
