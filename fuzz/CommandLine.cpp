// Flags, two declarations and a command line, for both splitters and for program options.
#include <cstring>
#include <memory>
#include <vector>

#include "Input.h"
#include "VarnSupport/VarnException.h"
#include "VarnSupport/VarnProgramOptions.h"

using namespace VarnSupport;

namespace {

// Words in arrays of their own, so that nothing may be read beyond them.
class Arguments {
 public:
  explicit Arguments(const std::string& commandLine) : m_vElements(1, nullptr) {
    VarnCmdLineTokenizer<std::string> tokenizer(commandLine, " \t", "\"'");
    while (!tokenizer.isExhausted()) {
      const std::string word = tokenizer.next();
      m_vWords.push_back(std::make_unique<char[]>(std::strlen(word.c_str()) + 1));
      m_vElements.push_back(std::strcpy(m_vWords.back().get(), word.c_str()));
    }
    require(m_vWords.size() <= commandLine.size(), "each token takes a character at least");
  }
  int count() const { return static_cast<int>(m_vElements.size()); }
  char** elements() { return m_vElements.data(); }

 private:
  std::vector<std::unique_ptr<char[]>> m_vWords;
  std::vector<char*> m_vElements;
};

// Parses, and checks what is there whether or not all of it was accepted.
template <typename... Parameters>
std::string parse(VarnProgramOptions& options, const Parameters&... parameters) {
  std::string error;
  try {
    options.parse(parameters...);
  } catch (const VarnException& exception) {
    error = exception.getText();
  }
  std::string argument;
  for (unsigned int i = 0; options.nextArgument(argument); ++i)
    require(argument == options.getArgument(i), "stepping and indexing see the same arguments");
  return error;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  const unsigned flags = input.byte();
  const bool validate = (flags & 1) != 0;
  const bool allowSlash = (flags & 2) != 0;
  const std::string shortSpec = input.line();
  const std::string longSpec = input.line();
  const std::string commandLine = input.rest();

  std::vector<std::string> words;
  VarnParseCommandLine(commandLine, words);
  for (const std::string& word : words)
    require(!word.empty(), "no word of a command line is empty");

  Arguments arguments(commandLine);
  VarnProgramOptions fromLine("", false);
  VarnProgramOptions fromVector("", false);
  const std::string error = parse(fromVector, arguments.count(), arguments.elements(), shortSpec,
                                  longSpec, validate, allowSlash);
  require(error == parse(fromLine, commandLine, shortSpec, longSpec, validate, allowSlash) &&
              fromLine.getArguments() == fromVector.getArguments() &&
              fromLine.getOptions().getProperties() == fromVector.getOptions().getProperties(),
          "a command line parses as the vector of its words");
  return 0;
}
