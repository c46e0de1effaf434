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

// A search may take a step for each character of the pattern and each of the text. One that takes a
// step for every pair of characters of the text takes four times as long for twice the text.
constexpr std::size_t kLongPattern = 512;
constexpr std::size_t kLongText = 32768;
constexpr double kSecondsPerStep = 200e-9;
constexpr double kLeastSeconds = 0.2;
constexpr double kLargestGrowth = 3;

enum tWay : unsigned { STRETCHED = 8, WIDE = 16, REPLACED = 32 };

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

// Bytes beyond ASCII become characters far apart.
std::wstring widened(const std::string& text) {
  std::wstring wide;
  for (const char c : text) {
    const auto value = static_cast<unsigned char>(c);
    wide += static_cast<wchar_t>(value < 0x80 ? value : (value - 0x7F) * 0x81);
  }
  return wide;
}

// The text over and over, or each of its characters.
std::string lengthened(const std::string& text, std::size_t size, bool stretched) {
  std::string longText;
  for (const char c : text)
    longText.append(stretched ? size / text.size() : 0, c);
  while (longText.size() < size)
    longText += text;
  return longText;
}

template <typename S>
double secondsOf(const S& pattern, const S& text, bool replaced) {
  VarnRegularExpression<S> expression;
  std::string error;
  expression.setPatternImpl(pattern, error);
  const std::clock_t begin = std::clock();
  if (replaced)
    expression.replace(text, S(), expression.ALL_OCCURRENCES);
  else
    expression.find(text, 0);
  return static_cast<double>(std::clock() - begin) / CLOCKS_PER_SEC;
}

void searchLongText(const std::string& pattern, const std::string& text, unsigned way) {
  if (text.empty())
    return;
  const auto seconds = [&](std::size_t length) {
    const std::string longText = lengthened(text, length, (way & STRETCHED) != 0);
    const bool replaced = (way & REPLACED) != 0;
    return (way & WIDE) != 0 ? secondsOf(widened(pattern), widened(longText), replaced)
                             : secondsOf(pattern, longText, replaced);
  };
  const auto grows = [&] { return seconds(kLongText) > kLargestGrowth * seconds(kLongText / 2); };
  const double taken = seconds(kLongText);
  const auto steps = static_cast<double>(pattern.size()) * static_cast<double>(kLongText);
  require(taken < kLeastSeconds + steps * kSecondsPerStep,
          "a search takes time in proportion to pattern and text");
  // Whatever else the machine does, a search in proportion does not seem otherwise three times.
  require(taken < kLeastSeconds || !(grows() && grows() && grows()),
          "a search takes time in proportion to the text");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  const unsigned way = input.byte();
  const unsigned int start = way % 8;
  const std::string longPattern = input.line().substr(0, kLongPattern);
  const std::string pattern = longPattern.substr(0, kLongestPattern);
  const std::string text = input.rest().substr(0, kLongestText);
  agree(pattern, text, start);
  agree(widened(pattern), widened(text), start);
  searchLongText(longPattern, text, way);
  return 0;
}
