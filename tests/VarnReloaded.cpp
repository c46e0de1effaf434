#include "VarnSupport/VarnReloaded.h"

#include "LibraryTools.h"

namespace {

struct Config {
  explicit Config(VarnSettings& settings)
      : first(settings.number("first", 0)), second(settings.number("second", 0)) {
    if (second > 99)
      throw VarnException("too much", 0);
    ++alive;
  }
  Config(const Config&) = delete;
  Config& operator=(const Config&) = delete;
  ~Config() { --alive; }

  int first;
  int second;
  static inline std::atomic<int> alive{0};
};

class VarnReloaded : public testing::Test {
 protected:
  using Reloaded = VarnSupport::VarnReloaded<Config>;

  // Replaces the file at once.
  void save(const std::string& contents) const {
    writeFile(m_sFile + '~', contents);
    fs::rename(m_sFile + '~', m_sFile);
  }

  TempFolder m_oFolder;
  std::string m_sFile = m_oFolder / "conf";
};

TEST_F(VarnReloaded, ABadFileLeavesTheOldValueInForce) {
  EXPECT_THROW(Reloaded{m_sFile}, VarnSettingsError);
  save("first=1\n");
  Reloaded config(m_sFile);
  const auto held = config.get();
  for (const char* bad : {"first=x\n", "first=1\nfrist=2\n", "second=100\n"}) {
    save(bad);
    EXPECT_THROW(config.reload(), VarnException) << bad;
    EXPECT_EQ(config.get(), held);
  }
  save("first=2\n");
  config.reload();
  EXPECT_EQ(config.get()->first, 2);
  EXPECT_EQ(held->first, 1);
  EXPECT_EQ(Config::alive, 2);
}

TEST_F(VarnReloaded, EachKeyThatDiffersIsTold) {
  save("first=<base>\nbase=1\n");
  Reloaded config(m_sFile);
  std::string told;
  Observer observer(config, [&](VarnCollaborator&, const VarnNotification& notification) {
    told += dynamic_cast<const PropertyChanged&>(notification).getName() + '=';
    told += std::to_string(config.get()->first) + ' ';
  });
  config.reload();
  EXPECT_EQ(told, "");
  save("base=2\nfirst=<base>\nsecond=5\n");
  config.reload();
  EXPECT_EQ(told, "first=2 second=2 ");
  save("first=2\n");
  config.reload();
  EXPECT_EQ(told, "first=2 second=2 second=2 ");
}

TEST_F(VarnReloaded, MayGoInItsOwnNotification) {
  save("first=1\n");
  auto config = std::make_unique<Reloaded>(m_sFile);
  Observer observer(*config, [&] { config.reset(); });
  save("first=2\nsecond=2\n");
  config->reload();
  EXPECT_EQ(observer.calls, 1);
}

TEST_F(VarnReloaded, FindsItsFileWhereverTheProcessGoes) {
  save("first=1\n");
  fs::current_path(m_oFolder.path());
  Reloaded config("conf");
  fs::current_path("/");
  save("first=2\n");
  config.reload();
  EXPECT_EQ(config.get()->first, 2);
}

// Each file has equal numbers, each larger than those before.
TEST_F(VarnReloaded, ReadersSeeWholeValuesAndTheNewestStays) {
  save("first=0\nsecond=0\n");
  {
    Reloaded config(m_sFile);
    std::atomic<int> mixed{0};
    const auto read = [&] {
      const auto now = config.get();
      mixed += now->first != now->second ? 1 : 0;
    };
    const std::jthread readers[] = {repeating(read), repeating(read)};
    const std::jthread reloader = repeating([&] { config.reload(); });
    for (int i = 1; i < 99; ++i) {
      save("first=" + std::to_string(i) + "\nsecond=" + std::to_string(i) + '\n');
      config.reload();
    }
    EXPECT_EQ(mixed, 0);
    EXPECT_TRUE(eventually([&] { return config.get()->first == 98; }));
  }
  EXPECT_EQ(Config::alive, 0);
}

TEST_F(VarnReloaded, TheChildOfAForkReadsAndReloads) {
  if (kThreadSanitizer)
    GTEST_SKIP() << "its children of processes with threads start none";
  save("first=1\n");
  Reloaded config(m_sFile);
  const std::jthread reloader = repeating([&] { config.reload(); });
  const std::jthread reader = repeating([&] { config.get(); });
  for (int i = 0; i < 30; ++i) {
    expectInBareChild([&] {
      leaksCanBeFound = false;
      config.reload();
      EXPECT_EQ(1, config.get()->first);
    });
  }
}

}  // namespace
