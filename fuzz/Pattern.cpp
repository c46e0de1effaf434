// A start, a pattern and a text: what is found is what the plain matcher finds, and a long text
// takes no more than its share of time.
#include <ctime>

#include "Input.h"
#include "PlainMatcher.h"
#include "VarnSupport/VarnRegularExpression.h"

using namespace VarnSupport;

namespace {

constexpr std::size_t kLongestPattern = 48;
constexpr std::size_t kLongestText = 80;
// A search that takes a step for every pair of characters of the long text would need ten times the
// budget.
constexpr std::size_t kLongText = 32768;
constexpr std::size_t kPatternOfLongText = 16;
constexpr std::clock_t kBudget = CLOCKS_PER_SEC / 4;

template <typename S>
void agree(const S& pattern, const S& text, unsigned int start) {
  PlainMatcher<S> plain;
  VarnRegularExpression<S> expression;
  std::string error;
  expression.setPatternImpl(pattern, error);
  require(error == plain.compile(pattern), "a pattern compiles as the plain matcher's");
  const auto expected = plain.find(text, start);
  unsigned int length = expression.npos;
  const unsigned int position = expression.find(text, length, start);
  require(position == static_cast<unsigned int>(expected.position) &&
              length == static_cast<unsigned int>(expected.length),
          "a search finds what the plain matcher finds");
  expression.replace(text, text, expression.ALL_OCCURRENCES, start);
}

void searchLongText(const std::string& pattern, const std::string& text) {
  if (pattern.size() > kPatternOfLongText || text.empty())
    return;
  VarnRegularExpression<std::string> expression;
  std::string error;
  expression.setPatternImpl(pattern, error);
  std::string longText;
  while (longText.size() < kLongText)
    longText += text;
  const std::clock_t begin = std::clock();
  expression.find(longText, 0);
  require(std::clock() - begin < kBudget, "a search takes time in proportion to its text");
}

// Bytes beyond ASCII become characters far apart.
std::wstring widened(const std::string& text) {
  std::wstring wide;
  for (const char c : text) {
    const auto value = static_cast<unsigned char>(c);
    wide += static_cast<wchar_t>(value < 0x80 ? value : (value - 0x7F) * 0x81);
  }
  return wide;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  const unsigned int start = input.byte() % 8;
  const std::string pattern = input.line().substr(0, kLongestPattern);
  const std::string text = input.rest().substr(0, kLongestText);
  agree(pattern, text, start);
  agree(widened(pattern), widened(text), start);
  searchLongText(pattern, text);
  return 0;
}
