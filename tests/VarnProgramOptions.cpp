#include "VarnSupport/VarnProgramOptions.h"
#include "TestTools.h"

namespace {

using Words = std::vector<std::string>;

// "name=value,value ... | argument ..."
std::string shown(const VarnProgramOptions& options) {
  std::string all;
  for (const auto& [name, values] : options.getOptions().getProperties()) {
    all += name;
    for (const std::string& value : values)
      all += (&value == &values.front() ? "=" : ",") + value;
    all += ' ';
  }
  all += '|';
  for (const std::string& argument : options.getArguments())
    all += " " + argument;
  return all;
}

struct Row {
  const char* commandLine;
  const char* shortSpec;
  const char* longSpec;
  const char* expected;  // or what is thrown, without its beginning
};

constexpr Row kUnvalidated[] = {
    {"-f=a.txt -v input", "", "", "f=a.txt v= | input"},
    {"-abc -x=5=6 --long=1 --flag a -x=7", "", "", "abc= flag= long=1 x=5=6,7 | a"},
    {"-- - -=5 --=5 -#c --#c=1 - b", "", "", "| b"},
    {"/v a/b", "", "", "| /v a/b"},
    {"--x=\" 1\" -- \"\" '-q'", "", "", "q= x=1 | "}};

constexpr Row kValidated[] = {{"-o out in", "o:", ":x:", "o=out | in"},
                              {"-oout -o=1", "o:", "", "o=out,=1 |"},
                              {"-o", "o:", "", "option data not available for: -o"},
                              {"-xy -x", "x", "", "x=, |"},
                              {"-o -x", "o:x", "", "o=-x |"},
                              {"-:", "ab:c", "", ":= |"},
                              {"-file x y", "f", ":file.:", "file=x | y"},
                              {"-file=abc x", "", ":file.:", "file=abc=x |"},
                              {"-file", "", ":file.:", "option data not available for: -file"},
                              {"--file x", "", ":file.:", "| x"},
                              {"--file.", "", ":file.:", "file.= |"},
                              {"--help=yes -help --help", "", ":help:", "help=yes,, |"},
                              {"-h", "h", ":help:", "h= |"},
                              {"--hel", "", ":help:", "Unrecognized option: --hel"},
                              {"--help", "", "help:", "Unrecognized option: --help"},
                              {"--no=1", "", ":help:", "Unrecognized option: --no"},
                              {"-", "a", ":a:", "Unrecognized option: -"}};

std::string parsed(const std::string& commandLine, const Row& row, bool validate, bool allowSlash) {
  const std::string result = resultOf([&] {
    return shown(validate ? VarnProgramOptions(commandLine, row.shortSpec, row.longSpec, allowSlash)
                          : VarnProgramOptions(commandLine, allowSlash));
  });
  const std::string intro = "VarnProgramOptions::parse: ";
  return result.rfind(intro, 0) == 0 ? result.substr(intro.size()) : result;
}

TEST(VarnProgramOptions, CommandLinesBecomeOptionsAndArguments) {
  for (const Row& row : kUnvalidated)
    EXPECT_EQ(parsed(row.commandLine, row, false, false), row.expected) << row.commandLine;
  for (const Row& row : kValidated) {
    EXPECT_EQ(parsed(row.commandLine, row, true, false), row.expected) << row.commandLine;
    const std::string line = row.commandLine;
    for (std::size_t length = 0; length < line.size(); ++length)
      parsed(line.substr(0, length), row, true, true);
  }
  EXPECT_EQ(parsed("/v /-w=1 -x / a", {}, false, true), "v= w=1 x= | a");
}

// An option behind many, which is looked up otherwise than the first ones, against one on its own.
TEST(VarnProgramOptions, AnyNumberOfOptionsIsFoundAsOneIs) {
  const std::string longSpec = "x:a:bb.:bb:cc.:d.::dd..:!:e.f:.:g:h:::i.";
  const char* const options[] = {"a",   "bb",    "bb.", "cc",  "cc.", "d",   "d.", "dd",
                                 "dd.", "dd..",  "e",   ".",   "",    "g",   "h",  ":",
                                 "g:h", "x",     "x:a", "e.f", "i",   "i.",  "::", "..",
                                 "e.",  "a:bb.", "d.:", ":h",  "h:",  "a:bb"};
  const auto parsedBehind = [&](int others, const std::string& option) {
    std::string line;
    for (int i = 0; i < others; ++i)
      line += "-! ";
    const std::string result =
        parsed(line + option + " data", {"", "", longSpec.c_str(), ""}, true, false);
    return result[0] == '!' ? result.substr(result.find(' ')) : result;
  };
  for (const std::string dash : {"-", "--"}) {
    for (const char* const option : options)
      EXPECT_EQ(parsedBehind(1, dash + option), parsedBehind(50, dash + option)) << option;
  }
}

// A minute where each option is looked for in the text of them all.
TEST(VarnProgramOptions, ManyDeclaredOptionsCostNoMoreEach) {
  std::string longSpec = ":";
  std::vector<std::string> words(1);
  for (int i = 0; i < 100000; ++i) {
    words.push_back("-an-option-of-the-many-that-are-declared-" + std::to_string(i));
    longSpec += words.back().substr(1) + ":";
  }
  std::vector<char*> elements;
  for (std::string& word : words)
    elements.push_back(word.data());
  const VarnProgramOptions options(static_cast<int>(words.size()), elements.data(), "", longSpec,
                                   false);
  EXPECT_EQ(100000U, options.getOptions().getProperties().size());
}

TEST(VarnProgramOptions, AnArgumentVectorGivesTheNameAndWhatWasReadBeforeAnErrorStays) {
  std::string words[] = {"-program", "-a", "x y", "-o", "-"};
  char* elements[] = {words[0].data(), words[1].data(), words[2].data(),
                      words[3].data(), words[4].data(), nullptr};
  VarnProgramOptions options(3, elements, "ao:", "", false);
  EXPECT_EQ(options.getProgramName(), "-program");
  EXPECT_EQ(shown(options), "a= | x y");
  EXPECT_THROW(options.parse(6, elements, "o:", "", true, false), VarnException);
  EXPECT_EQ(shown(options), "a= | x y");
  options.parse(6, elements, "ao:", "", true, false);
  EXPECT_EQ(shown(options), "a=, o=- | x y x y");
  EXPECT_FALSE(options.longOption("file=1", ":file.:", true));
  EXPECT_TRUE(options.longOption("file=1", "", false));
  EXPECT_EQ(options.getOptions().getProperty("file"), "1");
  EXPECT_EQ(VarnProgramOptions(0, nullptr, false).getProgramName(), "");
  EXPECT_EQ(VarnProgramOptions(1, elements + 5, false).getProgramName(), "");
}

TEST(VarnProgramOptions, ArgumentsAreSteppedThroughAndStayWhereTheyAre) {
  VarnProgramOptions options("-a one two", false);
  const std::string& first = options.getArgument(0);
  std::string argument;
  EXPECT_TRUE(options.nextArgument(argument));
  const VarnProgramOptions copy(options);
  for (int i = 0; i < 1000; ++i)
    options.parse(first, first, first, true, false);
  EXPECT_EQ(options.getArgumentCount(), 1002u);
  EXPECT_EQ(first, "one");
  options = copy;
  while (options.nextArgument(argument))
    argument += "!";
  EXPECT_EQ(argument, "two!");
  EXPECT_EQ(shown(options), "a= | one two");
  EXPECT_THROW(options.getArgument(2), VarnException);
}

TEST(VarnProgramOptions, TokensMayBeQuotedAnywhere) {
  const std::pair<const char*, Words> cases[] = {
      {"", {}},
      {" a", {"", "a"}},
      {"a 'b c' \"d\"\"e\"", {"a", "b c", "d\"e"}},
      {"a\t \tb ", {"a", "b"}},
      {"x'y z'w \"it's\" 'say \"no\"'", {"xy zw", "it's", "say \"no\""}},
      {"'' a''b \"open end", {"", "ab", "open end"}},
      {"'a'''", {"a'"}}};
  for (const auto& [text, expected] : cases) {
    VarnCmdLineTokenizer<std::string> tokenizer(text, " \t", "\"'");
    Words tokens;
    while (!tokenizer.isExhausted())
      tokens.push_back(tokenizer.next());
    EXPECT_EQ(tokens, expected) << text;
    EXPECT_EQ(tokenizer.next(), "");
  }
}

TEST(VarnProgramOptions, TheSimpleSplitterFollowsItsSteps) {
  const std::pair<const char*, Words> cases[] = {{"  a \t'b  c' ", {"a", "\t'b", "c'"}},
                                                 {"run \"a b\"c d", {"run", "a bc", "d"}},
                                                 {"\"a b\" \"\" \"end of", {"a b", "end of"}},
                                                 {"x\"y z\" \"\"a", {"x\"y", "z\"", "a"}},
                                                 {"\"a\"\"b\" \"cd\"\"e", {"\"b", "d\"e"}},
                                                 {"\"\"\"a\"", {"a"}},
                                                 {" \"", {}}};
  for (const auto& [text, expected] : cases) {
    Words words{text};
    VarnParseCommandLine(words[0], words);
    EXPECT_EQ(words, expected) << text;
    VarnParseCommandLine("", words);
    EXPECT_EQ(words, expected);
  }
}

}  // namespace
