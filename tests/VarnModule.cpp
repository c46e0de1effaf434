#include <stdexcept>

#include "LibraryTools.h"
#include "VarnSupport/VarnModule.h"

namespace {

std::string history;

class Recorded : public ModuleData {
 public:
  explicit Recorded(char name) : ModuleData(false), m_cName(name) {}
  void attach() override { history += m_cName; }
  void detach() override { history += static_cast<char>(m_cName - 'a' + 'A'); }

 private:
  char m_cName;
};

}  // namespace

TEST(VarnModule, NestedControlsAttachOldestFirstAndDetachNewestFirst) {
  Recorded a('a');
  Recorded b('b');
  {
    const ModuleDataControl outer;
    EXPECT_EQ("ab", history);
    Recorded late('c');
    {
      const ModuleDataControl inner;
      EXPECT_EQ("abc", history);
    }
    EXPECT_EQ("abcC", history);
    EXPECT_EQ(&late, ModuleData::m_pHead);
  }
  EXPECT_EQ("abcCBA", history);
  EXPECT_EQ(&b, ModuleData::m_pHead);
}

TEST(VarnModule, ARefusedControlLowersWhatItRaised) {
  struct Refusing : ModuleData {
    Refusing() : ModuleData(false) {}
    void attach() override { throw std::runtime_error("no"); }
    void detach() override { history += "never"; }
  };
  const Recorded held('a');
  const ModuleDataControl control;
  history.clear();
  const Recorded older('b');
  const Recorded newer('c');
  const Refusing refusing;
  const Recorded newest('d');
  EXPECT_THROW(ModuleDataControl(), std::runtime_error);
  EXPECT_EQ("bcCB", history);
}

TEST(VarnModule, AFailedAttachIsTriedAgainAndMayWalkTheRegistry) {
  struct Failing : ModuleData {
    Failing() : ModuleData(false) {}
    void attach() override {
      const ModuleDataControl control;
      if (++attempts == 1)
        throw std::runtime_error("not yet");
    }
    void detach() override { --attempts; }
    int attempts = 0;
  } failing;
  EXPECT_THROW(ModuleData::entry(), std::runtime_error);
  ModuleData::entry();
  EXPECT_EQ(2, failing.attempts);
  ModuleData::exit();
  EXPECT_EQ(1, failing.attempts);
}

TEST(VarnModule, TheGlobalSectionIsPublishedAndCleared) {
  EXPECT_NE(nullptr, g_pCriticalSection);
  expectInChild([] {
    VSUPTFinitVarnObjectBase();
    EXPECT_EQ(nullptr, g_pCriticalSection);
    VSUPTInitVarnObjectBase();
    const VarnSmartPointer<VarnWorkInformation> counted(new VarnWorkInformation);
    EXPECT_NE(nullptr, g_pCriticalSection);
  });
}

TEST(VarnModule, TimersEndWithTheLibraryAndDoNotComeBack) {
  expectInChild([] {
    VarnTimer timer(1000, true);
    timer.reset();
    g_ModuleData.detach();
    g_ModuleData.attach();
    timer.stop();
    timer.reset();
    timer.start(1, false);
    EXPECT_EQ("VarnTimerManager::getInstance: Exiting system",
              resultOf([] { VarnTimerManager::getInstance(); }));
  });
}

TEST(VarnModule, TheHeadersAndTheSharedObjectAreOfOneVersion) {
  EXPECT_EQ(VSUPT_VERSION, VarnGetLibraryVersion());
}
