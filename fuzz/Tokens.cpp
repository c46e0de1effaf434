// Delimiters and a text, for the tokenizers, the first word and trimming.
#include <cstring>
#include <vector>

#include "Input.h"
#include "VarnSupport/VarnStringUtilities.h"

using namespace VarnSupport;

namespace {

std::vector<std::string> systemTokens(std::string text, const std::string& delimiters) {
  std::vector<std::string> tokens;
  char* state = nullptr;
  for (char* token = strtok_r(text.data(), delimiters.c_str(), &state); token != nullptr;
       token = strtok_r(nullptr, delimiters.c_str(), &state))
    tokens.emplace_back(token);
  return tokens;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  const std::string delimiters = input.line();
  const std::string text = input.rest();

  std::vector<std::string> tokens;
  std::vector<std::string> ofArray;
  std::string array = text;
  VarnTokenizer(text, delimiters, tokens);
  VarnTokenizer(array.data(), delimiters, ofArray);
  require(tokens == systemTokens(text, delimiters) && tokens == ofArray,
          "tokens are those of strtok()");

  VarnTokenizer(text, tokens);
  std::string joined;
  for (const std::string& token : tokens)
    joined += token + '\0';
  require((text + '\0').compare(0, joined.size(), joined) == 0, "a list holds its strings");

  std::string rest = text;
  while (!rest.empty()) {
    const std::size_t length = rest.size();
    VarnExtractFirstString(rest, rest);
    require(rest.size() < length, "each first word shortens the line");
  }
  const std::string trimmed =
      VarnStringUtilities::trim(text, delimiters, VarnStringUtilities::TRIM_BOTH);
  require(text.find(trimmed) != text.npos, "a trimmed text is part of the text");
  return 0;
}
