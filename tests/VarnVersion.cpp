#include "VarnSupport/VarnVersion.h"
#include "TestTools.h"

namespace {

std::string shown(const std::vector<std::pair<VarnVersion, VarnVersion>>& ranges) {
  std::string text;
  for (const auto& [low, high] : ranges)
    text += '[' + low.toString() + '|' + high.toString() + ']';
  return text;
}

}  // namespace

TEST(VarnVersion, ReadsNumbersAndALastText) {
  const std::string most = "2147483647";
  const std::pair<std::string, std::string> rows[] = {
      {"", ""},
      {"1.2.3", "1.2.3"},
      {"007.0", "7.0"},
      {"1.2.3a", "1.2.3"},
      {"0-2.5 x", "0.5"},
      {"2.1.beta", "2.1.beta"},
      {"beta", ".beta"},
      {"-1", ".-1"},
      {"1.2.", "1.2"},
      {most + ".2147483648.99999999999999999999", most + '.' + most + '.' + most}};
  for (const auto& [text, result] : rows)
    EXPECT_EQ(VarnVersion(text).toString(), result) << text;
  for (const std::string text : {"2.beta.1", "1..2", ".5", ".", "1. 2", " 1", "1.+2.3"}) {
    EXPECT_EQ(resultOf([&] { return VarnVersion(text).toString(); }),
              "VarnVersion::parse: invalid version string: " + text);
  }
}

TEST(VarnVersion, ParsingAppendsAndAssigningReplaces) {
  VarnVersion version("1.2.beta");
  version.parse("3");
  EXPECT_EQ(version.toString(), "1.2.3.beta");
  version.parse("");
  EXPECT_THROW(version.parse("4.x.5"), VarnException);
  EXPECT_EQ(version.toString(), "1.2.3.4.beta");
  version.parse("5.");
  EXPECT_EQ(version.toString(), "1.2.3.4.5");
  version = "6.rc";
  EXPECT_EQ(version.toString(), "6.rc");
  EXPECT_FALSE(VarnVersion("").isInit());
  EXPECT_TRUE(VarnVersion("0").isInit());
  EXPECT_TRUE(version.isInit());
}

TEST(VarnVersion, OrdersByNumbersThenSuffixes) {
  // Each group is equal, and lower than the next.
  const std::vector<std::vector<std::string>> groups = {{"", "0", "0.0"}, {"alpha", "0.alpha"},
                                                        {"0.0.1"},        {"1", "1.0.0"},
                                                        {"1.A"},          {"1.a", "1.0.0.a"},
                                                        {"1.ab"},         {"1.\x80"},
                                                        {"1.0.1"},        {"1.2.9"},
                                                        {"1.2.10"},       {"1.2147483647"},
                                                        {"2", "2.0-beta"}};
  for (std::size_t i = 0; i < groups.size(); ++i) {
    for (std::size_t j = 0; j < groups.size(); ++j) {
      const unsigned expected = i == j ? 0 : i < j ? 1 : 2;
      for (const std::string& a : groups[i]) {
        for (const std::string& b : groups[j])
          EXPECT_EQ(VarnVersion::compare(a, b), expected) << '"' << a << "\" \"" << b << '"';
      }
    }
  }
}

TEST(VarnVersion, ReadsRangeLists) {
  const auto result = [](const std::string& text) {
    return resultOf([&] { return shown(VarnVersion::createRangeVector(text)); });
  };
  static constexpr std::pair<const char*, const char*> rows[] = {
      {"", ""},
      {",,", ""},
      {"{1.0-2.0},3.5", "[1.0|2.0][3.5|]"},
      {",1,,{2-3.beta},", "[1|][2|3.beta]"},
      {"1.0-2.0", "[1.0.0|]"},
      {"{1-2-3}", "[1|2]"},
      {"{1-2x", "[1|2]"}};
  for (const auto& [text, ranges] : rows)
    EXPECT_EQ(result(text), ranges) << text;
  for (const std::string text : {"{1.0-}", "{-2.0}", "{1.0}", "{", "{1-2", "1..2,{-2}"})
    EXPECT_EQ(result(text), "VarnVersion::createRangeVector: Invalid range specification: " + text);
  EXPECT_EQ(result("{1..-2..}"), "VarnVersion::parse: invalid version string: 2..");
  EXPECT_EQ(result("1, 2"), "VarnVersion::parse: invalid version string:  2");
}

TEST(VarnVersion, ARangeHoldsItsLowEndAndNotItsHighEnd) {
  const auto ranges = VarnVersion::createRangeVector("{1.0-2.0},3.5");
  const auto holds = [&](const std::string& version) {
    return std::any_of(ranges.begin(), ranges.end(), [&](const auto& range) {
      return VarnVersionRange()(range, VarnVersion(version));
    });
  };
  for (const char* const inside : {"1", "1.0.0", "1.0.beta", "1.99", "1.9.rc", "3.5", "3.5.0"})
    EXPECT_TRUE(holds(inside)) << inside;
  for (const char* const outside : {"", "0.9", "2", "2.0.0", "2.0.beta", "3.5.1", "3.5.a", "3"})
    EXPECT_FALSE(holds(outside)) << outside;
}
