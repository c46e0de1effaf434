
#include "VarnSupport/VarnFindFile.h"
#include "TestTools.h"

namespace {

using Names = std::multiset<std::string>;
constexpr auto matches = FindFileImplementation::IsPatternMatch;

Names found(const std::string& path) {
  VarnFindFile search(path);
  Names names;
  while (search.hasMore())
    names.insert(search.next());
  EXPECT_EQ("", search.next());
  return names;
}

}  // namespace

TEST(VarnFindFile, MatchesWholeNamesByteByByte) {
  const std::tuple<const char*, const char*, bool> rows[] = {
      {"", "", true},           {"", "a", false},      {"*", "", true},
      {"?", "", false},         {"a*b*", "acb", true}, {"a*b", "acbc", false},
      {"**a", "a", true},       {"*?*?", "a", false},  {"*ab", "aab", true},
      {"a*?b", "ab", false},    {"*.*", ".", true},    {"\xC3?", "\xC3\xA4", true},
      {"?", "\xC3\xA4", false}, {"A", "a", false}};
  for (const auto& [pattern, name, matching] : rows)
    EXPECT_EQ(matching, matches(pattern, name)) << pattern << " and " << name;
  // Hostile texts end soon and take no stack.
  std::string stars;
  for (int i = 0; i < 30; ++i)
    stars += "*a";
  EXPECT_FALSE(matches((stars + "*b").c_str(), std::string(2000, 'a').c_str()));
  const std::string longName(4000000, 'a');
  EXPECT_TRUE(matches((longName + "*").c_str(), longName.c_str()));
  EXPECT_TRUE(matches("*?", longName.c_str()));
}

TEST(VarnFindFile, ListsAFolderByPattern) {
  const TempFolder folder;
  for (const char* const name : {"a.log", "b.log", ".c.log", "b.txt"})
    writeFile(folder / name, "");
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
  const TempFolder folder;
  fs::current_path(folder.path());
  writeFile("x.conf", "");
  EXPECT_EQ(Names{"x.conf"}, found("*.conf"));
  EXPECT_EQ(Names{"x.conf"}, found("/*.conf"));
  EXPECT_EQ(Names(), found(""));
  // Deeper than any path may name.
  const std::string step(200, 'd');
  for (int i = 0; i < 25; ++i) {
    ASSERT_EQ(0, mkdir(step.c_str(), 0755));
    ASSERT_EQ(0, chdir(step.c_str()));
  }
  writeFile("deep.conf", "");
  EXPECT_EQ(Names{"deep.conf"}, found("*.conf"));
}
