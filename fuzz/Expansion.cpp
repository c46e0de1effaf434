// A text and the values of the properties a to e. A value may name only letters behind its own, so
// that every expansion ends.
#include "Input.h"
#include "VarnSupport/VarnProperties.h"

using namespace VarnSupport;

namespace {

constexpr std::size_t kLongestText = 64;
constexpr std::size_t kLongestValue = 12;

// As it is defined: the first reference is replaced until there is none.
std::string plainlyExpanded(std::string text, const VarnProperties<std::string>& properties) {
  while (true) {
    const std::size_t open = text.find('<');
    const std::size_t close = open == text.npos ? text.npos : text.find('>', open);
    if (close == text.npos)
      return text;
    const std::string name = text.substr(open + 1, close - open - 1);
    const char* const variable = std::getenv(name.c_str());
    const std::string otherwise = variable != nullptr ? variable : "";
    text.replace(open, close - open + 1, properties.getProperty(name, otherwise));
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  const std::string text = input.line().substr(0, kLongestText);
  VarnProperties<std::string> properties;
  for (char key = 'a'; key <= 'e'; ++key) {
    std::string value = input.line().substr(0, kLongestValue);
    std::replace_if(
        value.begin(), value.end(), [key](char c) { return c >= 'a' && c <= key; }, '.');
    properties.addProperty(std::string(1, key), value);
  }
  require(VarnExpandString(text, properties) == plainlyExpanded(text, properties),
          "a text expands as defined");
  return 0;
}
