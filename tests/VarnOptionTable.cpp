#include "VarnSupport/VarnOptionTable.h"

#include <getopt.h>

#include <sstream>

#include "TestTools.h"

namespace {

using Words = std::vector<std::string>;

// As main() has them: behind the last one stands a null one. Requires: the words stay.
std::vector<char*> elementsOf(const Words& words) {
  std::vector<char*> elements(words.size() + 2, nullptr);
  for (std::size_t i = 0; i < words.size(); ++i)
    elements[i + 1] = const_cast<char*>(words[i].c_str());
  return elements;
}

int countOf(const Words& words) { return static_cast<int>(words.size()) + 1; }
Words wordsOf(const std::string& line) {
  std::istringstream stream(line);
  return {std::istream_iterator<std::string>(stream), {}};
}

std::optional<int> parse(VarnOptionTable& table, const Words& words) {
  return table.parse(countOf(words), elementsOf(words).data());
}

// "none", or why the words are refused.
std::string refusal(VarnOptionTable& table, const Words& words) {
  try {
    parse(table, words);
    return "none";
  } catch (const VarnOptionError& error) {
    EXPECT_EQ(error.getCode(), 2);
    return error.getText();
  }
}

std::string joined(const Words& words, const char* separator = ",") {
  std::string all;
  for (const std::string& word : words)
    all += (&word == &words.front() ? "" : separator) + word;
  return all;
}

struct Greeter {
  VarnOptionTable table{"/usr/bin/greeter", "1.2", "Greets people."};
  bool daemon = false;
  std::string config = "preset";
  int interval = 60;
  double share = 0.5;
  Words plugins{"preset"};
  std::string place;
  Words names;

  Greeter() {
    table.flag("-d, --daemon", "run in the background", daemon)
        .value("-c, --config=FILE", "read FILE", config)
        .value("--colour[=WHEN]", "use colours")
        .number("-i, --interval=N", "seconds between two", interval, 1, 3600)
        .number("--share=X", "how many", share, 0.25)
        .values("-p, --plugin=NAME", "load NAME", plugins)
        .flag("-v", "tell more")
        .argument("PLACE", "where to greet", place)
        .argument("[NAME...]", "whom to greet", names);
  }
  std::string shown() const {
    return std::string(daemon ? "daemon " : "") + config + ' ' + std::to_string(interval) + ' ' +
           std::to_string(share).substr(0, 4) + ' ' + joined(plugins) + " | " + place + ' ' +
           joined(names);
  }
};

TEST(VarnOptionTable, ValuesLandInVariablesAndUnderTheirNames) {
  Greeter greeter;
  EXPECT_EQ(parse(greeter.table, wordsOf("home -vvdc old --config=new - --interv +7 -pa --plugin b "
                                         "--share=1e0 --colour -- -x")),
            std::nullopt);
  EXPECT_EQ(greeter.shown(), "daemon new 7 1.00 a,b | home -,-x");
  EXPECT_EQ(greeter.table.count("v"), 2u);
  EXPECT_EQ(greeter.table.text("c"), "new");
  EXPECT_EQ(joined(greeter.table.texts("NAME")), "-,-x");
  EXPECT_TRUE(greeter.table.isGiven("colour"));
  const auto values = greeter.table.values();
  std::string all;
  for (const auto& [key, given] : values.getProperties())
    all += key + '=' + joined(given) + ' ';
  EXPECT_EQ(all, "colour= config=new daemon=true interval=+7 plugin=a,b share=1e0 v=true ");
  parse(greeter.table, {"--config=", "-p", "-d", "there", "--plugin", "--", "--colour=x"});
  EXPECT_EQ(greeter.shown(), "daemon  7 1.00 -d,-- | there -,-x") << "only what is given changes";
  EXPECT_EQ(greeter.table.values().getProperties().size(), 3u);
  EXPECT_THROW(greeter.table.text("confg"), VarnException);
}

TEST(VarnOptionTable, RefusalsSayWhatIsWrongAndChangeNothing) {
  const std::pair<const char*, const char*> cases[] = {
      {"--confg", "unknown option --confg; did you mean --config?"},
      {"--CONIFG=x", "unknown option --CONIFG; did you mean --config?"},
      {"--nothing", "unknown option --nothing"},
      {"-dx", "unknown option -x in -dx"},
      {"-deamon", "unknown option -e in -deamon; did you mean --daemon?"},
      {"-d-", "unknown option -- in -d-"},
      {"--co x", "--co may be --colour, --completion or --config"},
      {"--=x", "-- may be --colour, --completion, --config, --daemon, --help, ..."},
      {"x --conf", "--config needs data: --config=FILE"},
      {"x -dc", "-c needs data: -c FILE"},
      {"--dae=1", "--daemon takes no data: --dae=1"},
      {"-i 0", "-i 0 is not a whole number from 1 to 3600"},
      {"--interval=3601", "--interval=3601 is not a whole number from 1 to 3600"},
      {"--share=nan", "--share=nan is not a number of at least 0.25"},
      {"-d", "PLACE is missing"},
      {"--\x1b[31m=1", "unknown option --\\x1b[31m"},
      {"-\xff", "unknown option -\\xff"},
      {"-\xc3\xa4z", "unknown option -\xc3\xa4 in -\xc3\xa4z"}};
  Greeter greeter;
  const std::string before = greeter.shown();
  for (const auto& [line, expected] : cases) {
    Words words = wordsOf(line);
    words.insert(words.begin(), {"--daemon", "-cnew", "-phere"});
    EXPECT_EQ(refusal(greeter.table, words), expected);
    EXPECT_EQ(greeter.shown(), before) << line;
    EXPECT_EQ(greeter.table.count("config"), 0u) << line;
  }
  VarnOptionTable plain("plain", "1", "");
  EXPECT_EQ(refusal(plain, {"a\nb"}), "there is no use for a\\x0ab");
  EXPECT_EQ(refusal(plain, {std::string(100000, 'x')}).size(), 223u);
  EXPECT_EQ(refusal(plain, {"--" + std::string(100000, 'x')}).size(), 220u);
}

TEST(VarnOptionTable, DeclarationsThatCannotBeMeantThrowAtOnce) {
  const char* const bad[] = {
      "",      "-",     "--",     "daemon", "-d --daemon", "-d,--daemon", "---x",
      "-:",    "--a=b", "--a b",  "-d, -e", "--a[=b",      "--a[b]",      "-- x",
      "--a\n", "-a b",  "-\xc3x", "-old",   "-new, --old", "-o, --new"};
  std::string name;
  int number = 0;
  VarnOptionTable table("x", "1", "");
  table.flag("-o, --old", "").argument("[ONE]", "", name).argument("MANY...", "");
  for (const char* const declared : bad)
    EXPECT_THROW(table.flag(declared, ""), VarnException) << declared;
  for (const char* const declared : {"--file", "--file="})
    EXPECT_THROW(table.value(declared, ""), VarnException) << declared;
  EXPECT_THROW(table.values("--file=A\tB", ""), VarnException);
  EXPECT_THROW(table.number("--size[=N]", "", number), VarnException);
  EXPECT_THROW(table.number("--size=N", "", number, 2, 1), VarnException);
  for (const char* const argument : {"", "[A", "-a", "...", "ONE", "old", "MORE...", "A\n"})
    EXPECT_THROW(table.argument(argument, ""), VarnException) << argument;
  EXPECT_THROW(table.argument("LIST...", "", name), VarnException);
  EXPECT_THROW(table.flag("--ONE", ""), VarnException);
  EXPECT_THROW(table.flag("-a", "").flag("--a", ""), VarnException);
  EXPECT_THROW(table.flag("--b", "").flag("-b", ""), VarnException);
  EXPECT_EQ(refusal(table, {"-o", "a"}), "none") << "what was refused is not there";
}

// Reads the good text as the number, and refuses the others.
template <typename Number, typename... Lowest>
std::string refusals(const char* good, Number expected, const Words& bad, Lowest... lowest) {
  Number number = 0;
  VarnOptionTable table("x", "1", "");
  table.number("-n N", "", number, static_cast<Number>(lowest)...);
  EXPECT_EQ(refusal(table, {"-n", good}), "none");
  EXPECT_EQ(number, expected);
  std::string last;
  for (const std::string& text : bad)
    EXPECT_NE(last = refusal(table, {"-n", text}), "none") << text;
  return last;
}

TEST(VarnOptionTable, NumbersFitTheirVariables) {
  refusals<signed char>("-128", -128, {"128", "1x", " 1", "0x10", "", "+-1"});
  refusals<unsigned short>("65535", 65535, {"65536", "0"}, 1);
  refusals<unsigned long>("9223372036854775807", LONG_MAX,
                          {"-1", "9223372036854775808", "99999999999999999999"});
  refusals<long long>("-5", -5, {"-6"}, -5);
  refusals<float>("-1e38", -1e38F, {"1e39", "1e999", "inf"});
  EXPECT_EQ(refusals<float>("0.1", 0.1F, {"0"}, 0.1F), "-n 0 is not a number of at least 0.1")
      << "a limit is in its range, though 0.1 is less as a double";
}

TEST(VarnOptionTable, ArgumentsAreDealtOutFromTheLeft) {
  const std::tuple<const char*, const char*, const char*> cases[] = {
      {"A... B", "1 2 3", "1,2 3"},
      {"A... B", "1 2", "1 2"},
      {"A... B", "1", "B is missing"},
      {"[A] B [C] D", "1 2 3", "1 2  3"},
      {"[A] B", "1 2 3", "there is no use for 3"},
      {"[A] [B...] C", "1 2 3 4", "1 2,3 4"},
      {"[A]... B", "1", " 1"},
      {"", "1", "there is no use for 1"}};
  for (const auto& [names, line, expected] : cases) {
    VarnOptionTable table("x", "1", "");
    for (const std::string& name : wordsOf(names))
      table.argument(name, "");
    std::string result = refusal(table, wordsOf(line));
    if (result == "none") {
      Words given;
      for (const std::string& name : wordsOf(names))
        given.push_back(joined(table.texts(name.substr(name[0] == '[' ? 1 : 0, 1))));
      result = joined(given, " ");
    }
    EXPECT_EQ(result, expected) << names << ": " << line;
  }
}

TEST(VarnOptionTable, AnEmptyVectorHasNoOptions) {
  VarnOptionTable table("x", "1", "");
  const char* const none[] = {"x", nullptr, "--bad"};
  EXPECT_EQ(table.parse(0, nullptr), std::nullopt);
  EXPECT_EQ(table.parse(3, nullptr), std::nullopt);
  EXPECT_EQ(table.parse(0, none + 2), std::nullopt);
  EXPECT_EQ(table.parse(1, none + 2), std::nullopt) << "the program's name is not looked at";
  EXPECT_EQ(table.parse(3, none), std::nullopt) << "a null element is the end";
  EXPECT_THROW(table.parse(2, none + 1), VarnOptionError) << "unless it is the program's name";
}

// A table of random options with names that begin each other, for our parser and for getopt_long.
struct RandomTable {
  VarnOptionTable table{"x", "1", ""};
  Words keys;
  std::map<int, std::size_t> byValue;
  std::string letters = ":";  // which tells missing data apart
  std::vector<option> options;
  std::set<std::string> names;  // whose addresses stay
  bool unused = false;

  explicit RandomTable(Random& random) {
    for (const char* const name : {"help", "version", "completion"})
      add('\0', name, no_argument);
    for (std::size_t count = random() % 9; count > 0; --count) {
      std::string name;
      for (std::size_t length = random() % 5; length > 0; --length)
        name += "abb-"[random() % (name.empty() ? 3 : 4)];
      const char letter = "\0abcd"[random() % 5];
      try {
        add(letter, name, static_cast<int>(random() % 3));
      } catch (const VarnException&) {
        continue;  // no name, or one that is there
      }
    }
    options.push_back({nullptr, 0, nullptr, 0});
    table.argument("[REST...]", "");
  }

  void add(char letter, const std::string& name, int data) {
    std::string declared = letter != '\0' ? std::string{'-', letter} : "";
    if (!name.empty())
      declared += (letter != '\0' ? ", --" : "--") + name;
    const std::string separator = name.empty() ? "" : "=";
    if (data == no_argument)
      table.flag(declared, "", unused);
    else if (data == required_argument)
      table.values(declared + (name.empty() ? " X" : "=X"), "");
    else
      table.values(declared + '[' + separator + "X]", "");
    const int value = letter != '\0' ? letter : 1000 + static_cast<int>(keys.size());
    byValue[value] = keys.size();
    keys.push_back(name.empty() ? std::string(1, letter) : name);
    if (!name.empty())
      options.push_back({names.insert(name).first->c_str(), data, nullptr, value});
    if (letter != '\0')
      letters += letter + std::string(static_cast<std::size_t>(data), ':');
  }
};

Words randomWords(Random& random, const RandomTable& from) {
  Words words;
  for (std::size_t count = random() % 7; count > 0; --count) {
    const char* const fixed[] = {"x", "-", "--", "", "y z", "-=", "--="};
    std::string word = fixed[random() % std::size(fixed)];
    const std::size_t kind = random() % 4;
    if (kind == 1) {
      word = "-";
      for (std::size_t length = random() % 4 + 1; length > 0; --length)
        word += "aabbccdd-x="[random() % 11];
    } else if (kind >= 2) {
      const std::string& key = from.keys[random() % from.keys.size()];
      word = "--" + key.substr(0, random() % (key.size() + 1)) + (random() % 4 == 0 ? "=v" : "");
    }
    words.push_back(word);
  }
  return words;
}

std::string parsedByUs(RandomTable& random, const Words& words) {
  const std::string fault = refusal(random.table, words);
  if (fault != "none")
    return contains(fault, " needs data") ? "missing" : "wrong";
  std::string all;
  for (const std::string& key : random.keys)
    all += key + '(' + joined(random.table.texts(key)) + ") ";
  return all + joined(random.table.arguments());
}

std::string parsedByGetopt(const RandomTable& random, const Words& words, const char* order) {
  std::vector<char*> elements = elementsOf(words);
  std::map<std::size_t, Words> found;
  optind = 0;
  opterr = 0;
  const std::string letters = order + random.letters;
  const auto next = [&] {
    return getopt_long(countOf(words), elements.data(), letters.c_str(), random.options.data(),
                       nullptr);
  };
  for (int value = next(); value != -1; value = next()) {
    if (value == '?' || value == ':')
      return value == ':' ? "missing" : "wrong";
    found[random.byValue.at(value)].emplace_back(optarg != nullptr ? optarg : "");
  }
  std::string all;
  for (std::size_t i = 0; i < random.keys.size(); ++i)
    all += random.keys[i] + '(' + joined(found[i]) + ") ";
  return all + joined(Words(elements.begin() + optind, elements.end() - 1));
}

TEST(VarnOptionTable, ParsesAsGetoptLongDoes) {
  Random random;
  for (int tables = 0; tables < 1500; ++tables) {
    RandomTable table(random);
    const bool posix = random() % 4 == 0;
    const bool stops = random() % 4 == 0;
    posix ? setenv("POSIXLY_CORRECT", "", 1) : unsetenv("POSIXLY_CORRECT");
    if (stops)
      table.table.stopAtArgument();
    for (int lines = 0; lines < 10; ++lines) {
      const Words words = randomWords(random, table);
      ASSERT_EQ(parsedByUs(table, words), parsedByGetopt(table, words, stops ? "+" : ""))
          << table.table.usage() << joined(words, " ");
    }
  }
  unsetenv("POSIXLY_CORRECT");
}

TEST(VarnOptionTable, AnOptionCostsNoMoreAmongMany) {
  constexpr int kCount = 100000;  // with a look at each for each, this would take minutes
  VarnOptionTable table("x", "1", "");
  Words words;
  const auto begin = Clock::now();
  for (int i = 0; i < kCount; ++i) {
    const std::string name = "--" + std::to_string(i);
    table.value(name + "-option=X", "");
    words.push_back(name + (i % 2 == 0 ? "-option=" : "-=") + std::to_string(i));
  }
  EXPECT_EQ(refusal(table, words), "none");
  EXPECT_LT(Clock::now() - begin, kGenerous);
  EXPECT_EQ(table.text("99999-option"), "99999");
  table.flag("--99999-options", "");
  EXPECT_EQ(refusal(table, {"--99999-o"}), "--99999-o may be --99999-option or --99999-options");
}

std::string printed(VarnOptionTable& table, const char* option) {
  testing::internal::CaptureStdout();
  const std::optional<int> code = parse(table, {"x", option, "--unknown"});
  std::string text = testing::internal::GetCapturedStdout();
  EXPECT_EQ(code, 0);
  EXPECT_FALSE(table.isGiven("help"));
  return text;
}

TEST(VarnOptionTable, AnswersAreAskedForByOptionsThatGiveWay) {
  Greeter greeter;
  EXPECT_EQ(printed(greeter.table, "--he"), greeter.table.usage());
  EXPECT_EQ(printed(greeter.table, "-dh"), greeter.table.usage());
  EXPECT_EQ(printed(greeter.table, "-V"), "greeter 1.2\n");
  EXPECT_EQ(printed(greeter.table, "--comp"), greeter.table.completion());
  EXPECT_FALSE(greeter.daemon);
  bool own = false;
  VarnOptionTable table("x", "1", "");
  table.flag("-h", "mine").flag("-v, --version", "say the version").flag("--completion", "", own);
  EXPECT_EQ(parse(table, {"-h", "--completion"}), std::nullopt);
  EXPECT_TRUE(own);
  EXPECT_EQ(printed(table, "-v"), "x 1\n");
  EXPECT_EQ(
      table.usage(),
      "usage: x [OPTION...]\n\n  -h                mine\n      --help        print this text\n"
      "  -v, --version     say the version\n      --completion\n");
  EXPECT_EQ(refusal(table, {"-V"}), "unknown option -V");
  EXPECT_THROW(table.flag("--version", ""), VarnException);
}

TEST(VarnOptionTable, ReportsGoToStandardErrorWithTheirExitCode) {
  Greeter greeter;
  const char* const wrong[] = {"x", "--confg"};
  testing::internal::CaptureStderr();
  EXPECT_EQ(greeter.table.parseOrReport(2, wrong), 2);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "greeter: unknown option --confg; did you mean --config?\nTry 'greeter --help'.\n");
  const char* const help[] = {"x", "--help"};
  testing::internal::CaptureStderr();
  expectInChild([&] {
    EXPECT_NE(std::freopen("/dev/full", "w", stdout), nullptr);
    EXPECT_EQ(greeter.table.parseOrReport(2, help), 2);
  });
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "greeter: cannot write to standard output: No space left on device\n");
  VarnOptionError error("\xc3\xa4\xff");
  EXPECT_EQ(error.getText(), "\xc3\xa4\xff");
  EXPECT_EQ(error.getUText(), L"\u00e4\ufffd");
  error.setText(std::string("other"));
  EXPECT_EQ(error.getText(), "other");
}

TEST(VarnOptionTable, UsageIsWrappedTo80ColumnsOfTheTerminal) {
  int number = 0;
  VarnOptionTable table("x", "1", std::string(100, 'y') + " z");
  std::string wide;
  for (int i = 0; i < 60; ++i)
    wide += "\xe6\x97\xa5";  // two columns
  std::string marked;
  for (int i = 0; i < 70; ++i)
    marked += "e\xcc\x81";  // one column
  table.flag("--one", "a\tb  c\x1b[31m\nd " + wide)
      .flag("--two", marked)
      .flag("--three", "\xff\xe6\x97" + std::string(66, 'z'))
      .value("-n, --a-name-that-needs-a-line=X", "its text")
      .number("-i N", "number", number, 1, 9)
      .argument("[FILE...]", "is read")
      .note("The end.");
  const std::string next = '\n' + std::string(20, ' ');
  EXPECT_EQ(
      table.usage(),
      "usage: x [OPTION...] [FILE...]\n\n" + std::string(80, 'y') + '\n' + std::string(20, 'y') +
          " z\n\n  FILE              is read\n\n      --one         a b c [31m" + next + "d " +
          wide.substr(0, 29 * 3) + next + wide.substr(29 * 3, 30 * 3) + next + wide.substr(59 * 3) +
          "\n      --two         " + marked.substr(0, 60 * 3) + next + marked.substr(60 * 3) +
          "\n      --three       \xff\xe6\x97" + std::string(57, 'z') + next +
          "zzzzzzzzz\n  -n, --a-name-that-needs-a-line=X" + next +
          "its text\n  -i N              number (1 to 9)\n"
          "  -h, --help        print this text\n  -V, --version     print the version\n"
          "      --completion  print a completion script for bash\n\nThe end.\n");
}

TEST(VarnOptionTable, TheManualHasItsSections) {
  Greeter greeter;
  greeter.table.flag("--odd", ".a\\b 'c' --one-two\n.d");
  const std::string manual = greeter.table.manual();
  EXPECT_EQ(manual.substr(0, manual.find(".SH OPTIONS")),
            ".SH SYNOPSIS\n\\fBgreeter\\fR\n[\\fB\\-d\\fR]\n[\\fB\\-c\\fR\\ \\fIFILE\\fR]\n"
            "[\\fB\\-\\-colour\\fR[=\\fIWHEN\\fR]]\n[\\fB\\-i\\fR\\ \\fIN\\fR]\n"
            "[\\fB\\-\\-share\\fR=\\fIX\\fR]\n[\\fB\\-p\\fR\\ \\fINAME\\fR]...\n[\\fB\\-v\\fR]\n"
            "[\\fB\\-\\-odd\\fR]\n\\fIPLACE\\fR\n[\\fINAME\\fR...]\n");
  EXPECT_TRUE(
      contains(manual, "\n.TP\n\\fB\\-c\\fR, \\fB\\-\\-config\\fR=\\fIFILE\\fR\nread FILE\n"));
  EXPECT_TRUE(contains(manual, "\n\\&.a\\eb \\(aqc\\(aq \\-\\-one\\-two\n.br\n\\&.d\n")) << manual;
}

// What bash offers behind the words: each on a line.
std::string completed(const VarnOptionTable& table, const Words& words) {
  const TempFolder folder;
  const TempFolder outside;
  const std::string out = outside / "out";
  writeFile(folder / "script", table.completion());
  std::string call =
      "cd '" + folder.path() +
      "' && . ./script && f=$(complete -p | sed 's/.*-F \\([^ ]*\\) .*/\\1/') && COMP_WORDS=(x";
  for (const std::string& word : words)
    call += " '" + word + '\'';
  call += ") COMP_CWORD=" + std::to_string(words.size()) +
          " && set -u && $f && printf '%s\\n' \"${COMPREPLY[@]}\" && ls";
  writeFile(folder / "call", call);
  const std::string run = "bash --norc '" + (folder / "call") + "' >" + out + " 2>&1";
  EXPECT_EQ(std::system(run.c_str()), 0) << contentsOf(out);
  return contentsOf(out);
}

TEST(VarnOptionTable, BashCompletesNamesWhichCannotBreakOutOfTheScript) {
  Greeter greeter;
  const std::pair<Words, const char*> cases[] = {
      {{"--co"}, "--config=\n--colour\n--completion\n"},
      {{"x", "-d", "--conf"}, "--config=\n"},
      {{"-"},
       "--daemon\n--config=\n--colour\n--interval=\n--share=\n--plugin=\n-v\n--help\n"
       "--version\n--completion\n"},
      {{"--config", "--co"}, "\n"},
      {{"-c", "--co"}, "\n"},
      {{"--config", "=", "--co"}, "\n"},
      {{"--", "--co"}, "\n"},
      {{"x"}, "\n"},
      {{""}, "\n"}};
  for (const auto& [words, expected] : cases)
    EXPECT_EQ(completed(greeter.table, words), expected + std::string("call\nscript\n"));
  VarnOptionTable table("it's $(touch a) `touch b`\n\"", "1", "");
  table.flag("--it's$(touch\"c\");`d`*", "'\n$(touch d)").value("--b=A'\"$(touch e)", "");
  EXPECT_EQ(completed(table, {"--i"}),
            "--it\\'s\\$\\(touch\\\"c\\\"\\)\\;\\`d\\`\\*\ncall\nscript\n");
}

}  // namespace
