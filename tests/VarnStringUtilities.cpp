#include <cctype>
#include <cwctype>
#include <locale>
#include <stdexcept>

#include "TestTools.h"
#include "VarnSupport/VarnStringUtilities.h"

namespace {

template <typename Facet>
std::locale with(Facet* facet) {
  return std::locale(std::locale::classic(), static_cast<std::ctype<wchar_t>*>(facet));
}

// A facet whose range conversions run a hook.
struct Hooked : std::ctype<wchar_t> {
  explicit Hooked(void (*function)()) : hook(function) {}
  const char* do_widen(const char* low, const char*, wchar_t*) const override {
    return hook(), low;
  }
  const wchar_t* do_narrow(const wchar_t* low, const wchar_t*, char, char*) const override {
    return hook(), low;
  }
  void (*hook)();
};

int folded(char c) { return static_cast<signed char>(c) < 0 ? c : std::tolower(c); }
std::wint_t folded(wchar_t c) { return std::towlower(static_cast<std::wint_t>(c)); }

// Against the order of the folded characters, one by one.
template <typename String>
void expectOneOrder(const String& left, const String& right) {
  const auto order = std::lexicographical_compare_three_way(
      left.begin(), left.end(), right.begin(), right.end(),
      [](auto a, auto b) { return folded(a) <=> folded(b); });
  SCOPED_TRACE(testing::PrintToString(left.c_str()) + testing::PrintToString(right.c_str()));
  ASSERT_EQ(std::less<String>()(left, right), order < 0);
  ASSERT_EQ(left < right, order < 0);
  ASSERT_EQ(left == right, order == 0);
  if (left.size() == 1 && right.size() == 1) {
    ASSERT_EQ(left.find(right[0]) == 0, order == 0);
    ASSERT_EQ(String::traits_type::eq(left[0], right[0]), order == 0);
    ASSERT_EQ(String::traits_type::lt(left[0], right[0]), order < 0);
  }
}

}  // namespace

TEST(VarnStringUtilities, TrimTakesCharactersOffTheChosenEnds) {
  using Utilities = VarnStringUtilities;
  using Row = std::tuple<const char*, const char*, int, const char*>;
  static constexpr Row rows[] = {
      {"  ab  ", " ", 0, "ab  "}, {"  ab  ", " ", 1, "  ab"}, {"  ab  ", " ", 2, "ab"},
      {"   ", " ", 0, ""},        {"   ", " ", 1, ""},        {"   ", " ", 2, ""},
      {"", " ", 1, ""},           {" a ", "", 2, " a "},      {"\ta b\t ", "\t ", 2, "a b"},
      {"xx", "x", 7, "xx"},       {"xx", "x", -1, "xx"}};
  for (const auto& [text, chars, option, result] : rows) {
    const auto chosen = static_cast<Utilities::tTrimOption>(option);
    EXPECT_EQ(Utilities::trim<std::string>(text, chars, chosen), result) << text << option;
    const auto wide = [](const std::string& s) { return std::wstring(s.begin(), s.end()); };
    EXPECT_EQ(Utilities::trim(wide(text), wide(chars), chosen), wide(result)) << text << option;
  }
}

TEST(VarnStringUtilities, ConvertsUpToTheFirstNulWithBlanksForTheRest) {
  const std::locale& classic = std::locale::classic();
  EXPECT_EQ(VarnStringUtilities::narrow(L"a\u20ACb\u00E9", classic), "a b ");
  EXPECT_EQ(VarnStringUtilities::narrow(std::wstring(L"ab\0c", 4), classic), "ab");
  EXPECT_EQ(VarnStringUtilities::widen(std::string("ab\0c", 4), classic), L"ab");
  const std::string text(3000, 'x');
  EXPECT_EQ(VarnStringUtilities::widen(text, classic), std::wstring(3000, L'x'));
  EXPECT_EQ(VarnStringUtilities::narrow(std::wstring(3000, L'x'), classic), text);
}

TEST(VarnStringUtilities, ReportsFacetsThatFail) {
  const std::string report = ": ctype facet cannot be created for the locale - broken";
  const auto narrow = [](const std::locale& locale) { VarnStringUtilities::narrow(L"a", locale); };
  const auto widen = [](const std::locale& locale) { VarnStringUtilities::widen("a", locale); };
  const auto standard = with(new Hooked([] { throw std::runtime_error("broken"); }));
  EXPECT_EQ(resultOf([&] { narrow(standard); }), "VarnStringUtilities::narrow" + report);
  EXPECT_EQ(resultOf([&] { widen(standard); }), "VarnStringUtilities::widen" + report);
  const auto own = with(new Hooked([] { throw VarnException(L"mine", 0); }));
  EXPECT_EQ(resultOf([&] { narrow(own); }), "mine");
  const auto other = with(new Hooked([] { throw 1; }));
  EXPECT_EXIT(widen(other), testing::KilledBySignal(SIGABRT), "");
}

TEST(VarnStringUtilities, TheFacetsSwitchConversionOff) {
  for (const std::locale& locale : {with(new ansi_ctype(0)), with(new utf8_ctype(0))}) {
    EXPECT_EQ(VarnStringUtilities::narrow(L"abc", locale), "");
    EXPECT_EQ(VarnStringUtilities::widen("abc", locale), L"");
    const auto& facet = std::use_facet<std::ctype<wchar_t>>(locale);
    EXPECT_EQ(facet.narrow(L'x', '?'), '?');
    EXPECT_EQ(facet.widen('x'), L'x');
    wchar_t untouched = L'-';
    const char text[] = "x";
    EXPECT_EQ(facet.widen(text, text + 1, &untouched), text);
    EXPECT_EQ(untouched, L'-');
  }
}

TEST(VarnStringUtilities, SplitsListsAtNuls) {
  Lines tokens{"old"};
  char list[] = "a\0bc\0\0d\0";
  VarnTokenizer(list, tokens);
  EXPECT_EQ(tokens, (Lines{"a", "bc"}));
  VarnTokenizer(std::string("one\0two", 7), tokens);
  EXPECT_EQ(tokens, (Lines{"one", "two"}));
  VarnTokenizer(tokens[1], tokens);
  EXPECT_EQ(tokens, Lines{"two"});
  VarnTokenizer(static_cast<char*>(nullptr), tokens);
  EXPECT_EQ(tokens, Lines());
}

TEST(VarnStringUtilities, SplitsAtDelimitersAsStrtokDoes) {
  Random random;
  for (int i = 0; i < 2000; ++i) {
    std::string text(random() % 12, '\0');
    for (char& c : text)
      c = ",;a\xC3"[random() % 4];
    const std::string delimiters = i % 3 == 0 ? ",;" : i % 3 == 1 ? "\xC3" : "";
    std::string cut = text;
    Lines expected;
    for (const char* token = std::strtok(cut.data(), delimiters.c_str()); token != nullptr;
         token = std::strtok(nullptr, delimiters.c_str()))
      expected.emplace_back(token);
    Lines tokens{"old"};
    VarnTokenizer(text, delimiters, tokens);
    ASSERT_EQ(tokens, expected) << text;
    VarnTokenizer(text.data(), delimiters, tokens);
    ASSERT_EQ(tokens, expected) << text;
    ASSERT_EQ(text, cut);
  }
  Lines tokens{"a b", " "};
  VarnTokenizer(tokens[0], tokens[1], tokens);
  EXPECT_EQ(tokens, (Lines{"a", "b"}));
  VarnTokenizer(static_cast<char*>(nullptr), " ", tokens);
  EXPECT_EQ(tokens, Lines());
}

TEST(VarnStringUtilities, ExtractsTheFirstWordOrQuotedText) {
  static constexpr std::array<const char*, 3> rows[] = {{"copy  a b", "copy", " a b"},
                                                        {"a\tb", "a", "b"},
                                                        {"one", "one", ""},
                                                        {"", "", ""},
                                                        {" a", "", "a"},
                                                        {R"("a b" c)", "a b", " c"},
                                                        {R"("abc)", "abc", "abc"},
                                                        {R"(")", "", ""},
                                                        {R"(""x)", "", "x"},
                                                        {R"(a"b c")", "a\"b", "c\""}};
  for (const auto& [line, first, rest] : rows) {
    std::string both = line;
    EXPECT_EQ(VarnExtractFirstString(both, both), first) << line;
    EXPECT_EQ(both, rest) << line;
  }
}

TEST(VarnStringUtilities, WritesHexadecimalDigitsAndReadsAnythingAsSuch) {
  const auto value = [](int c) {
    return (c -= c >= 'a' ? 0x20 : 0) < 'A' ? c - '0' : c - 'A' + 10;
  };
  std::string digits;
  std::string expected;
  for (int both = 0; both < 65536; ++both) {
    const auto high = static_cast<char>(both / 256);
    const auto low = static_cast<char>(both);
    digits += {high, low};
    expected += static_cast<char>(value(high) * 16 | value(low));
  }
  std::string out(expected.size(), '\0');
  EXPECT_EQ(VarnHexToBytes(out.data(), digits), 65536);
  EXPECT_EQ(out, expected);
  EXPECT_EQ(VarnHexToBytes(out.data(), "0aFf1"), 2);
  EXPECT_EQ(out.substr(0, 3), "\x0A\xFF" + expected.substr(2, 1));
  EXPECT_EQ(VarnHexToBytes(nullptr, "f"), 0);
  EXPECT_EQ(VarnBytesToHex("\x00\x1F\x92\xEA\xFF", 5), "001F92EAFF");
  EXPECT_EQ(VarnBytesToHex("x", 0) + VarnBytesToHex("x", INT_MIN), "");
}

TEST(VarnStringUtilities, CopiesToABufferThatIsLargeEnough) {
  char buffer[] = "------";
  EXPECT_EQ(VarnStringToChar("abc", nullptr, 9), nullptr);
  EXPECT_EQ(VarnStringToChar(std::string("a\0c", 3), buffer, 3), nullptr);
  EXPECT_STREQ(buffer, "------");
  EXPECT_EQ(VarnStringToChar("abc", buffer, 4), buffer);
  EXPECT_EQ(VarnStringToChar(std::string("x\0yz", 4), buffer, -1), buffer);
  EXPECT_EQ(std::string(buffer, 6), std::string("x\0c\0--", 6));
  EXPECT_EQ(VarnStringFromChar(buffer), "x");
}

TEST(VarnStringUtilities, CaseInsensitiveStringsHaveOneOrder) {
  for (int both = 0; both < 65536; ++both) {
    const auto left = static_cast<signed char>(both / 256);
    const auto right = static_cast<signed char>(both);
    expectOneOrder(ci_string(1, left), ci_string(1, right));
    expectOneOrder(ci_wstring(1, left), ci_wstring(1, right));
  }
  Random random;
  for (int i = 0; i < 3000; ++i) {
    ci_string left(random() % 40, 'a');
    ci_string right(left.substr(0, random() % 40));
    for (char& c : right)
      c = random() % 2 != 0 ? 'a' : 'A';
    if (!right.empty() && i % 2 == 0)
      right[random() % right.size()] = "bB\xE9@"[random() % 4];
    expectOneOrder(left, right);
    expectOneOrder(ci_wstring(left.begin(), left.end()), ci_wstring(right.begin(), right.end()));
  }
}

// As 8-bit Turkish has it, where the small letter of I is another than i.
TEST(VarnStringUtilities, CaseInsensitiveOrderIsThatOfTheLocale) {
  const std::int32_t*& table = *__ctype_tolower_loc();
  const std::int32_t* const own = table;
  std::vector<std::int32_t> turkish(own - 128, own + 256);
  turkish[128 + 'I'] = 0xFD;
  const ci_string small("abcdefgh-i23456789");
  const ci_string capital("ABCDEFGH-I23456789");
  const std::less<ci_string> less;
  EXPECT_FALSE(less(small, capital));
  table = turkish.data() + 128;
  EXPECT_TRUE(less(small, capital));
  EXPECT_FALSE(less(capital, small));
  table = own;
}
