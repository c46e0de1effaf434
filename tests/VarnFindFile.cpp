#include "VarnSupport/VarnFindFile.h"

#include <sys/stat.h>

#include <random>
#include <set>

#include "TestTools.h"

using namespace VarnSupport;

namespace {

using Names = std::multiset<std::string>;

Names found(const std::string& path) {
  VarnFindFile search(path);
  Names names;
  while (search.hasMore())
    names.insert(search.next());
  EXPECT_EQ("", search.next());
  return names;
}

// The rules as they are told, for short texts.
bool plainMatch(const char* pattern, const char* name) {
  if (*pattern == '\0')
    return *name == '\0';
  if (*pattern == '*')
    return plainMatch(pattern + 1, name) || (*name != '\0' && plainMatch(pattern, name + 1));
  return *name != '\0' && (*pattern == '?' || *pattern == *name) &&
         plainMatch(pattern + 1, name + 1);
}

std::string randomText(std::mt19937& random, const std::string& characters) {
  std::string text;
  for (std::size_t length = random() % 10; length > 0; --length)
    text += characters[random() % characters.size()];
  return text;
}

}  // namespace

TEST(VarnFindFile, MatchesAsThePlainRulesDo) {
  const auto seed = std::random_device()();
  std::mt19937 random(seed);
  int matches = 0;
  for (int i = 0; i < 100000; ++i) {
    const std::string pattern = randomText(random, "ab*?*");
    const std::string name = randomText(random, "ab*");
    const bool expected = plainMatch(pattern.c_str(), name.c_str());
    ASSERT_EQ(expected, FindFileImplementation::IsPatternMatch(pattern.c_str(), name.c_str()))
        << pattern << " and " << name << ", seed " << seed;
    matches += expected ? 1 : 0;
  }
  EXPECT_LT(1000, matches);
  EXPECT_FALSE(FindFileImplementation::IsPatternMatch("\xC3?A",
                                                      "\xC3\xA4"
                                                      "a"));
}

TEST(VarnFindFile, HostileTextsEndSoonAndTakeNoStack) {
  std::string stars;
  for (int i = 0; i < 30; ++i)
    stars += "*a";
  EXPECT_FALSE(FindFileImplementation::IsPatternMatch((stars + "*b").c_str(),
                                                      std::string(2000, 'a').c_str()));
  const std::string longName(4000000, 'a');
  EXPECT_TRUE(FindFileImplementation::IsPatternMatch((longName + "*").c_str(), longName.c_str()));
  EXPECT_TRUE(FindFileImplementation::IsPatternMatch("*?", longName.c_str()));
}

TEST(VarnFindFile, ListsAFolderByPattern) {
  const TestTools::TempFolder folder;
  for (const char* const name : {"a.log", "b.log", ".c.log", "b.txt"})
    TestTools::writeFile(folder / name, "");
  const std::string path = folder.path();
  EXPECT_EQ((Names{path + "/a.log", path + "/b.log", path + "/.c.log"}), found(path + "/*.log"));
  EXPECT_EQ((Names{path + "/b.txt", path + "/b.log"}), found(path + "\\b.???"));
  EXPECT_EQ(Names{path + "/.."}, found(path + "/.?"));
  EXPECT_EQ(6U, found(path + "/").size());
  EXPECT_EQ(Names(), found(path + "/none*"));
  EXPECT_EQ(Names(), found(path + "/a.log/*"));
  EXPECT_EQ(Names(), found(path + "/missing/*"));
}

TEST(VarnFindFile, ReadsTheWorkingDirectoryWithoutAFolder) {
  const TestTools::TempFolder folder;
  const std::string before = std::filesystem::current_path();
  std::filesystem::current_path(folder.path());
  TestTools::writeFile("x.conf", "");
  EXPECT_EQ(Names{"x.conf"}, found("*.conf"));
  EXPECT_EQ(Names{"x.conf"}, found("/*.conf"));
  EXPECT_EQ(Names(), found(""));
  // Deeper than any path may name.
  const std::string step(200, 'd');
  for (int i = 0; i < 25; ++i)
    ASSERT_TRUE(mkdir(step.c_str(), 0755) == 0 && chdir(step.c_str()) == 0);
  TestTools::writeFile("deep.conf", "");
  EXPECT_EQ(Names{"deep.conf"}, found("*.conf"));
  std::filesystem::current_path(before);
}
