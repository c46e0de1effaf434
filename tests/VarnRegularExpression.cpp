#include "VarnSupport/VarnRegularExpression.h"
#include "LibraryTools.h"
#include "PlainMatcher.h"

using namespace std::string_literals;

namespace {

using Pattern = VarnRegularExpression<std::string>;
using WidePattern = VarnRegularExpression<std::wstring>;

constexpr unsigned int kNone = Pattern::npos;
constexpr unsigned int kUntouched = 4711;

template <typename S>
VarnRegularExpression<S> compiled(const S& pattern) {
  VarnRegularExpression<S> expression;
  expression.setPattern(pattern);
  return expression;
}

// Both, so that a row shows them together.
struct Found {
  unsigned int position;
  unsigned int length;
  bool operator==(const Found&) const = default;
};

std::ostream& operator<<(std::ostream& stream, const Found& found) {
  return stream << found.position << ", length " << found.length;
}

template <typename S>
Found find(const VarnRegularExpression<S>& pattern, const S& text, unsigned int start = 0) {
  unsigned int length = kUntouched;
  const unsigned int position = pattern.find(text, length, start);
  return {position, length};
}

const Found kNothing{kNone, kUntouched};

template <typename S>
S randomText(Random& random, const S& alphabet, std::size_t limit, bool inRuns) {
  S text;
  for (std::size_t size = random() % (limit + 1); text.size() < size;)
    text.append(inRuns ? random() % 50 : 1, alphabet[random() % alphabet.size()]);
  return text;
}

// Single characters and sets with signs behind them: what random characters rarely give.
template <typename S>
S randomTokens(Random& random, const S& characters) {
  const auto any = [&] { return characters[random() % characters.size()]; };
  S pattern(random() % 8 == 0 ? 1 : 0, '^');
  for (std::size_t count = 1 + random() % 9; count > 0; --count) {
    const std::size_t kind = random() % 6;
    if (kind > 2)
      pattern.append(1, '[').append(kind % 2, '^').append({any(), any(), ']'});
    else
      pattern.append(1 + kind / 2, kind == 0 ? '.' : any());
    const std::size_t sign = random() % 5;
    if (sign < 3)
      pattern += "*+?"[sign];
  }
  return pattern.append(random() % 8 == 0 ? 1 : 0, '$');
}

// What replace() gives: one search after the other, each without what those before it learned.
template <typename S>
S replacedOneByOne(const VarnRegularExpression<S>& pattern, const S& text, const S& replacement) {
  S result;
  std::size_t done = 0;
  for (std::size_t from = 0; from <= text.size();) {
    const Found found = find(pattern, text, static_cast<unsigned int>(from));
    if (found.position == kNone)
      break;
    result.append(text, done, found.position - done).append(replacement);
    done = std::size_t{found.position} + found.length;
    from = done + (found.length == 0 ? 1 : 0);
  }
  return result.append(text, done);
}

// Compares with the plain matcher for a while. Half of the cases use the first three characters of
// the alphabet alone: walks that fail late and often come from these.
template <typename S>
void compare(const S& patternAlphabet, const S& textAlphabet) {
  Random random;
  VarnRegularExpression<S> expression;
  PlainMatcher<S> plain;
  const auto end = Clock::now() + 800ms;
  while (Clock::now() < end && !testing::Test::HasFailure()) {
    const S alphabet = textAlphabet.substr(0, random() % 2 == 0 ? 3 : S::npos);
    const S pattern = random() % 4 != 0 ? randomTokens(random, alphabet)
                                        : randomText(random, patternAlphabet, 14, false);
    std::string error;
    expression.setPatternImpl(pattern, error);
    ASSERT_EQ(plain.compile(pattern), error) << testing::PrintToString(pattern);
    for (int i = 0; i < 4; ++i) {
      const S text = randomText(random, alphabet, random() % 3 == 0 ? 300 : 40, i % 2 == 0);
      const auto start = static_cast<unsigned int>(i < 3 ? 0 : random() % (text.size() + 2));
      const auto expected = plain.find(text, start);
      const unsigned int length =
          expected.length == plain.npos ? kUntouched : static_cast<unsigned int>(expected.length);
      ASSERT_EQ((Found{static_cast<unsigned int>(expected.position), length}),
                find(expression, text, start))
          << testing::PrintToString(pattern) << " in " << testing::PrintToString(text) << " from "
          << start;
      ASSERT_EQ(replacedOneByOne(expression, text, pattern),
                expression.replace(text, pattern, expression.ALL_OCCURRENCES))
          << testing::PrintToString(pattern) << " in " << testing::PrintToString(text);
    }
  }
}

}  // namespace

TEST(VarnRegularExpression, FindsWhatTheStackWalkFinds) {
  const std::tuple<std::string, std::string, unsigned int, Found> rows[] = {
      {"abc", "xxabcx", 0, {2, 3}},
      {"^$", "", 0, kNothing},
      // Leading sets and '.' are tried at the start only, unless they may be absent.
      {"[a-c]*", "xxab", 0, {2, 2}},
      // What is given back goes to the token that failed.
      {"a*ab", "aaab", 0, {0, 4}},
      // Equality of repetitions is that of the gathered text.
      {"[a-c]+[abc]+", "a", 0, {0, 1}},
      // What earlier walks taught does not hide what later ones meet.
      {"^ab*aa+aa[ba]*ac?b+.", std::string(85, 'a') + "bbbbbbbbb", 0, kNothing},
      // Anchors.
      {"^ab", "xxab", 2, {2, 2}},
      {"^ab", "xab", 0, {kNone, 2}},
      {"ab$", "abab", 0, {kNone, 2}},
      {"x^", "x^", 0, {0, 2}},
      // Signs where a token should begin, and after '^'.
      {"*", "abc", 1, {1, 0}},
      {"\\e*", "abc", 0, {0, 0}},
      // What ends a set, and what is a member.
      {"[ab*]", "abbb]", 0, {0, 5}},
      {"[a.c]", "axc]", 0, {0, 4}},
      {"[!-\\n]x", "/x", 0, {0, 2}},
      {"[\xF0-\x05]+", "\xF0\xFF\x01", 0, {0, 2}},
      {"a\0b"s, "xa", 0, {1, 1}},
      {"\\.\\\\\\t\\f\\r", ".\\\t\f\r", 0, {0, 5}}};
  for (const auto& [pattern, text, start, found] : rows)
    EXPECT_EQ(found, find(compiled(pattern), text, start))
        << testing::PrintToString(pattern) << " in " << testing::PrintToString(text);
}

TEST(VarnRegularExpression, RefusesBadPatternsAndKeepsTheTokensBeforeTheFault) {
  const struct {
    std::string pattern;
    std::string error;
    Found found;  // in "xyz"
  } rows[] = {{"[]", "empty set in pattern", kNothing},
              {"[^]", "empty set in pattern", kNothing},
              {"\\", "bad escape expression", kNothing},
              {"y+\\", "bad escape expression", {1, 1}},
              {"y\\", "bad regular expression", kNothing},
              {"[z-a]", "invalid endpoint in range", kNothing},
              {"x[a-", "end of expression found in pattern", {0, 1}},
              {"x$y", "end token found inside expression", {0, 1}},
              {"[$y", "end token found inside expression", kNothing}};
  for (const auto& row : rows) {
    Pattern pattern = compiled("z"s);
    std::string error = "none";
    EXPECT_FALSE(pattern.setPatternImpl(row.pattern, error)) << row.pattern;
    EXPECT_EQ(row.error, error) << row.pattern;
    EXPECT_EQ(row.found, find(pattern, "xyz"s)) << row.pattern;
    EXPECT_EQ(row.error, resultOf([&] { pattern.setPattern(row.pattern); }));
  }
}

TEST(VarnRegularExpression, AgreesWithThePlainMatcher) {
  compare("ab.[]^$*+?-\\cex0n*+?ab\0\xF0\x80\x7F"s, "abcn\n\xF0-]\0"s);
  compare(L"ab.[]^$*+?-\\cex0n*+?ab\0\u0100\u0110\u4E00\x7F"s,
          L"abcn\u0105-]\0\u0100\u4E01\u00FF"s);
}

TEST(VarnRegularExpression, TakesAnyBytesForPatternAndText) {
  std::string bytes;
  for (int value = 0; value < 256; ++value)
    bytes += static_cast<char>(value);
  compare(bytes, bytes);
}

TEST(VarnRegularExpression, KeepsWideRangesUnexpanded) {
  const std::wstring all = L"[\x01-\x7FFFFFFF]+";
  const WidePattern pattern = compiled(all + L"[\x01\x02-\x7FFFFFFF]+$");
  EXPECT_EQ((Found{0, 3}), find(pattern, L"a\u4E00\x7FFFFFFF"s));
  EXPECT_EQ(kNothing, find(compiled(all + L"[\x01-\x7FFFFFFE]+"), L"a"s));
  const auto low = static_cast<wchar_t>(INT32_MIN);
  const std::wstring negative{L'[',      low,  L'-',      wchar_t(-1), L'\u0101',
                              L'\u4E00', L'-', L'\u4E10', L']',        L'+'};
  EXPECT_EQ((Found{0, 4}), find(compiled(negative),
                                std::wstring{low, wchar_t(-7), L'\u4E05', L'\u0101', L'\u4E11'}));
}

// Steps taken one by one would need hours for these.
TEST(VarnRegularExpression, TakesTimeInProportionToTheText) {
  const std::string letters(1 << 20, 'a');
  for (const char* const pattern :
       {".*x", ".*[xy]", "[a-z]+[0-9]*=", ".[a-z]*[=;]", "a.*a.*[xy]$", "a+b?a+[bc]", ".*aa.?[xy]"})
    EXPECT_EQ(kNothing, find(compiled<std::string>(pattern), letters)) << pattern;
  EXPECT_EQ((Found{0, 1 << 20}), find(compiled(".*.*a"s), letters));
  EXPECT_EQ(kNothing, find(compiled(L".*[xy]"s), std::wstring(1 << 20, L'a')));

  // Many tokens.
  std::string optional;
  for (int i = 0; i < 50000; ++i)
    optional += "b?[c]*";
  EXPECT_EQ((Found{1, 2}), find(compiled("a" + optional + "d"), "xad"s));
  const std::string end(300, 'z');
  EXPECT_EQ(kNothing, find(compiled("a[ab]*[cd]*x?x?x?x?x?x?x?x?x?x?x?x?x?[ef]"s),
                           letters + std::string(1 << 20, 'c') + end));
  EXPECT_EQ(kNothing,
            find(compiled("a[ab]*x?x?x?x?x?x?x?[cd]......................"s), letters + end));
}

TEST(VarnRegularExpression, ReplacesWithoutScanningReplacementsAgain) {
  constexpr auto all = Pattern::ALL_OCCURRENCES;
  const std::tuple<std::string, const char*, const char*, Pattern::Occurrence, unsigned,
                   const char*>
      rows[] = {{"a", "aXa", "aa", all, 0, "aaXaa"},
                {"a", "aXa", "bb", Pattern::FIRST_OCCURRENCE, 0, "bbXa"},
                {"a", "aXa", "bb", static_cast<Pattern::Occurrence>(2), 1, "aXbb"},
                {"a", "aXa", "", all, 9, "aXa"},
                {"^a", "aaba", "c", all, 0, "ccba"},
                {"a$", "aba", "c", all, 1, "abc"},
                {"\\e", "ab", "-", all, 0, "-a-b-"},
                {"\\e", "", "-", all, 0, "-"}};
  for (const auto& [pattern, text, replacement, occurrence, start, result] : rows)
    EXPECT_EQ(result, compiled(pattern).replace(text, replacement, occurrence, start))
        << pattern << " in " << text;
  EXPECT_EQ("id=48", compiled("id=[0-9]+"s).match("my id=47 and id=48", 4));
  EXPECT_EQ("", compiled("id=[0-9]+"s).match("none"));
}

TEST(VarnRegularExpression, SearchesWhileOthersSetThePattern) {
  Pattern pattern = compiled("[a-c]+x"s);
  std::atomic<int> seen[2] = {0, 0};
  const auto search = [&] {
    const Found found = find(pattern, "abcxyyy"s);
    EXPECT_TRUE(found == (Found{0, 4}) || found == (Found{4, 3})) << found;
    Pattern assigned;
    assigned = Pattern(pattern);
    const auto replaced = assigned.replace("abcxyyy", "", Pattern::ALL_OCCURRENCES);
    EXPECT_TRUE(replaced == "yyy" || replaced == "abcx") << replaced;
    ++seen[found.position == 0 ? 0 : 1];
  };
  const std::jthread searchers[] = {repeating(search), repeating(search), repeating(search)};
  for (bool even = true; seen[0] < 1000 || seen[1] < 1000; even = !even)
    pattern.setPattern(even ? "yyy" : "[a-c]+x");
}

TEST(VarnRegularExpression, TracesAtLevelNine) {
  const FileLog log(9);
  const Pattern pattern = compiled("b[a-c]+$"s);
  pattern.find("xbcax", 0);
  pattern.find("xbca", 0);
  pattern.print();
  const std::string written = contentsOf(log.file());
  const char* const expected[] = {"xbcax.find (b, 0) = 1",
                                  "VarnRegularExpressionImplementation::find: match stack begin",
                                  "c at 2, length 1, back-link -1",
                                  "a at 3, length 1, back-link 1",
                                  "VarnRegularExpressionImplementation::find: match stack end",
                                  "xbca.find (b, 0) = 1",
                                  "VarnRegularExpressionImplementation::find: match found at 1",
                                  "print: pattern b[a-c]+$",
                                  "segment abc"};
  std::size_t from = 0;
  for (const char* const text : expected) {
    from = written.find(text, from);
    ASSERT_NE(std::string::npos, from) << text << " is missing in\n" << written;
  }
}
