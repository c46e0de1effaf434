#include <sys/file.h>

#include "LibraryTools.h"

namespace {

using Set = VarnProperties<std::string>;

Set setOf(const std::vector<std::pair<std::string, std::string>>& values) {
  Set set;
  for (const auto& [key, value] : values)
    set.addProperty(key, value);
  return set;
}

class VarnUpdatePropertyFile : public testing::Test {
 protected:
  void update(const Set& set) const { VarnSupport::VarnUpdatePropertyFile(m_sFile, set); }
  std::string refusalOf(const Set& set) const {
    std::string refusal = resultOf([&] { update(set); });
    if (refusal.starts_with(m_sFile))
      refusal.erase(0, m_sFile.size());
    return refusal;
  }

  TempFolder m_oFolder;
  std::string m_sFile = m_oFolder / "conf";
};

TEST_F(VarnUpdatePropertyFile, ValuesChangeWhereTheyStandAndAllElseStays) {
  const std::tuple<std::string, Set, std::string> rows[] = {
      {"# a=0\na=1\n\nb = 2", setOf({{"a", "9"}}), "# a=0\na=9\n\nb = 2"},
      {"b=2", setOf({{"z", "1"}, {"c", ""}}), "b=2\nc=\nz=1\n"},
      {"a=  1\r\nb=1\r\n", setOf({{"a", "22"}, {"c", "3"}}), "a=  22\r\nb=1\r\nc=3\r\n"},
      {"a=\na\na=1\rx\n", setOf({{"a", "1"}, {"a", "2"}, {"a", "3"}}), "a=1\na=2\na=3\rx\n"},
      {"a=1\nb=\na=2\na=3\n", setOf({{"a", "1"}, {"a", "7"}}), "a=1\nb=\na=7\n"},
      {"a=1\nb=\n", setOf({{"a", "1"}, {"a", "2"}}), "a=1\na=2\nb=\n"},
      {"a\n", setOf({{"a", ""}}), "a\n"},
      {"a\r\n", setOf({{"a", ""}}), "a=\r\n"},
      {"x\r\na", setOf({{"a", ""}, {"b", "1"}}), "x\r\na\nb=1\r\n"},
      {"", setOf({{"a", "x = y "}}), "a=x = y \n"}};
  for (const auto& [before, set, after] : rows) {
    writeFile(m_sFile, before);
    update(set);
    EXPECT_EQ(contentsOf(m_sFile), after);
    Set loaded;
    loaded.loadProperties(m_sFile, '=');
    for (const auto& [key, values] : set.getProperties())
      EXPECT_EQ(loaded.getPropertyValues(key), values);
  }
  VarnSupport::VarnUpdatePropertyFile(m_sFile, setOf({{"a", "1"}}), {"a", "b"});
  EXPECT_EQ(contentsOf(m_sFile), "a=1\n");
  writeFile(m_sFile, "# b\na=1\nb=2\nc\nb=3");
  VarnSupport::VarnUpdatePropertyFile(m_sFile, Set(), {"b", "c", "none"});
  EXPECT_EQ(contentsOf(m_sFile), "# b\na=1\n");
  EXPECT_EQ(entriesIn(m_oFolder.path()), 1);
}

TEST_F(VarnUpdatePropertyFile, ModeAndLinksStayAndNothingIsWrittenWithoutAChange) {
  const std::string link = m_oFolder / "link";
  fs::create_symlink("conf", link);
  EXPECT_EQ(refusalOf(setOf({{"a", "0"}})), "none") << "a new file";
  struct stat before {};
  struct stat after {};
  chmod(m_sFile.c_str(), 0604);
  stat(m_sFile.c_str(), &before);
  VarnSupport::VarnUpdatePropertyFile(link, setOf({{"a", "0"}}));
  stat(m_sFile.c_str(), &after);
  EXPECT_EQ(after.st_ino, before.st_ino);
  VarnSupport::VarnUpdatePropertyFile(link, setOf({{"a", "1"}}));
  EXPECT_TRUE(fs::is_symlink(link));
  stat(m_sFile.c_str(), &after);
  EXPECT_EQ(after.st_mode & 07777, 0604u);
  EXPECT_EQ(contentsOf(m_sFile), "a=1\n");
}

TEST_F(VarnUpdatePropertyFile, WhatCannotBeWrittenIsRefusedAndChangesNothing) {
  for (const auto& [key, value] :
       std::vector<std::pair<std::string, std::string>>{{"a=b", "1"},
                                                        {"#a", "1"},
                                                        {"a\nb", "1"},
                                                        {"a", "1\nb=2"},
                                                        {"a", " 1"},
                                                        {"a", "1\r2"},
                                                        {"a\r", "1"},
                                                        {"a", std::string("1\0", 2)}})
    EXPECT_TRUE(refusalOf(setOf({{key, value}})).starts_with("no line can hold '")) << key << value;
  EXPECT_EQ(refusalOf(setOf({{"\xFF\xFE", "1"}})), ": is UTF-16, which is not updated");
  EXPECT_EQ(entriesIn(m_oFolder.path()), 0);
  const Set set = setOf({{"a", "1"}});
  mkfifo(m_sFile.c_str(), 0600);
  EXPECT_EQ(refusalOf(set), ": is not a regular file");
  fs::remove(m_sFile);
  fs::create_symlink("nowhere", m_sFile);
  EXPECT_EQ(refusalOf(set), ": cannot be read: No such file or directory");
  writeFile(m_oFolder / "cut", "a=0\n");
  m_sFile = m_oFolder / "cut";
  EXPECT_EQ(resultOf([&] { VarnSupport::VarnUpdatePropertyFile(m_sFile + '\0', set); }),
            m_sFile + "\\x00: cannot be read: Invalid argument");
  EXPECT_EQ(contentsOf(m_sFile), "a=0\n");
  m_sFile = "/no/such/file";
  EXPECT_EQ(refusalOf(set), ": its folder cannot be locked: No such file or directory");
}

TEST_F(VarnUpdatePropertyFile, ADiskThatIsFullLeavesTheOldFile) {
  writeFile(m_sFile, "a=1\n");
  expectInBareChild([&] {
    const rlimit limit{100, 100};
    setrlimit(RLIMIT_FSIZE, &limit);
    EXPECT_EQ(refusalOf(setOf({{"a", std::string(200, 'x')}})),
              ": cannot be replaced: File too large");
  });
  EXPECT_EQ(contentsOf(m_sFile), "a=1\n");
  EXPECT_EQ(entriesIn(m_oFolder.path()), 1);
}

TEST_F(VarnUpdatePropertyFile, UpdatesOfSeveralThreadsAndProcessesAllCount) {
  const auto count = [this](const std::string& key) {
    for (int i = 1; i <= 20; ++i)
      update(setOf({{key, std::to_string(i)}}));
  };
  const pid_t child = startBareChild([&] { count("c"); });
  onThreads(2, [&](int i) { count(std::to_string(i)); });
  EXPECT_EQ(0, outcomeOf(child));
  Set loaded;
  loaded.loadProperties(m_sFile, '=');
  for (const char* key : {"0", "1", "c"})
    EXPECT_EQ(loaded.getPropertyValues(key), Lines{"20"});
}

// Whole contents are one letter all over.
TEST_F(VarnUpdatePropertyFile, WhoeverIsKilledLeavesTheOldFileOrTheNew) {
  const std::string rest = "# " + std::string(200000, '-') + '\n';
  writeFile(m_sFile, "a=x\n" + rest + "b=x\n");
  Random random;
  for (int i = 0; i < 40; ++i) {
    const pid_t child = startBareChild([&] {
      for (char c = 'x';; c = c == 'x' ? 'y' : 'x')
        update(setOf({{"a", std::string(1, c)}, {"b", std::string(1, c)}}));
    });
    std::this_thread::sleep_for(std::chrono::microseconds(random() % 20000));
    kill(child, SIGKILL);
    EXPECT_EQ(-SIGKILL, outcomeOf(child));
    const std::string contents = contentsOf(m_sFile);
    const bool isOld = contents == "a=x\n" + rest + "b=x\n";
    ASSERT_TRUE(isOld || contents == "a=y\n" + rest + "b=y\n") << contents.size();
  }
  EXPECT_LE(entriesIn(m_oFolder.path()), 2);
  update(setOf({{"a", "z"}}));
  EXPECT_EQ(entriesIn(m_oFolder.path()), 1) << "what the killed ones have left stays";
}

TEST_F(VarnUpdatePropertyFile, AThreadThatWaitsForOthersCanBeKilled) {
  const int folder = open(m_oFolder.path().c_str(), O_RDONLY | O_CLOEXEC);
  flock(folder, LOCK_EX);
  const int before = entriesIn("/proc/self/fd");
  Task waiter([&] { update(setOf({{"a", "1"}})); });
  waiter.start();
  eventually([&] { return entriesIn("/proc/self/fd") > before; });
  killAndJoin(waiter);
  EXPECT_EQ(entriesIn("/proc/self/fd"), before);
  flock(folder, LOCK_UN);
  update(setOf({{"a", "2"}}));
}
}  // namespace
