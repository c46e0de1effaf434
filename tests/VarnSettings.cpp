#include "VarnSupport/VarnSettings.h"

#include "TestTools.h"

namespace {

using namespace std::string_literals;

class VarnSettings : public testing::Test {
 protected:
  using Settings = VarnSupport::VarnSettings;

  ~VarnSettings() override { unsetenv("GREETER_LOG_LEVEL"); }

  std::string file(const std::string& contents) const {
    writeFile(m_sFile, contents);
    return m_sFile;
  }
  // The faults that finish() throws, without the file's name.
  Lines faultsOf(const Settings& settings) const {
    try {
      settings.finish();
      return {};
    } catch (const VarnSettingsError& error) {
      Lines faults = error.faults();
      for (std::string& fault : faults) {
        if (fault.starts_with(m_sFile))
          fault.erase(0, m_sFile.size());
      }
      return faults;
    }
  }
  // What one reading of a file with this line gives, and its faults.
  template <typename Read>
  Lines faultsOf(const std::string& contents, Read read) const {
    Settings settings(file(contents));
    read(settings);
    return faultsOf(settings);
  }

  TempFolder m_oFolder;
  std::string m_sFile = m_oFolder / "conf";
};

TEST_F(VarnSettings, ValuesAreReadAsTheirTypes) {
  Settings settings(
      file("# all\nn=-12\r\nr=1e-3\n\nf=Yes\nbare\nd=1h30m\nms=500ms\nd0=90\nb=10MiB\n"
           "b2=2kB\nt= a = b \nt2=\nm=x\nm=\nm=<t>\nc=two\np=a[0-9]<x>\nlog=l/x\nabs=/x"));
  EXPECT_EQ(settings.number("n"), -12);
  EXPECT_EQ(settings.real("r"), 1e-3);
  EXPECT_TRUE(settings.flag("f") && settings.flag("bare") && settings.flag("none", true));
  EXPECT_EQ(settings.duration("d"), 90min);
  EXPECT_EQ(settings.duration("ms", 1s, {1ms, 2s}), 500ms);
  EXPECT_EQ(settings.duration("d0"), 90s);
  EXPECT_EQ(settings.bytes("b"), 10485760u);
  EXPECT_EQ(settings.bytes("b2", 1), 2000u);
  EXPECT_EQ(settings.text("t"), "a = b ");
  EXPECT_EQ(settings.text("t2", "preset"), "");
  EXPECT_EQ(settings.texts("m", 3), (Lines{"x", "", "a = b "}));
  EXPECT_EQ(settings.oneOf("c", {"one", "two"}), "two");
  EXPECT_EQ(settings.pattern("p").match("-a7<x>-"), "a7<x>");
  EXPECT_EQ(settings.path("log"), m_oFolder / "l/x");
  EXPECT_EQ(settings.path("abs"), "/x");
  EXPECT_EQ(settings.path("none", "y"), m_oFolder / "y");
  EXPECT_EQ(settings.path("none", ""), "");
  const std::uint16_t port = settings.number<std::uint16_t>("port", 80);
  EXPECT_EQ(port, 80);
  EXPECT_FALSE(settings.has("port"));
  EXPECT_EQ(faultsOf(settings), Lines());
}

struct Wrong {
  std::string value;
  std::function<void(VarnSupport::VarnSettings&)> read;
  std::string reason;
};

TEST_F(VarnSettings, AWrongValueIsAFaultThatSaysWhatIsAllowed) {
  const auto number = [](Settings& s) { EXPECT_EQ(s.number("k", 7, {1, 64}), 7); };
  const auto any = [](Settings& s) { EXPECT_EQ(s.number("k"), 0); };
  const auto port = [](Settings& s) { s.number<std::uint16_t>("k"); };
  const auto real = [](Settings& s) { EXPECT_EQ(s.real("k", {2, 3}), 2); };
  const auto duration = [](Settings& s) { EXPECT_EQ(s.duration("k", {1s, 90min}), 1s); };
  const auto bytes = [](Settings& s) { s.bytes("k", 1, {1024, LLONG_MAX}); };
  const std::string whole = " is no whole number from 1 to 64";
  const std::string longer = " is no duration from 1s to 1h30m, such as 90s or 1h30m";
  const std::string size = " is no size of at least 1KiB, such as 500 or 10MiB";
  const Wrong rows[] = {
      {" 4 ", number, "'4 '" + whole},
      {"+4", number, "'+4'" + whole},
      {"0x4", number, "'0x4'" + whole},
      {"65", number, "'65'" + whole},
      {"9223372036854775808", any, "'9223372036854775808' is no whole number"},
      {"65536", port, "'65536' is no whole number from 0 to 65535"},
      {"1", real, "'1' is no number from 2 to 3"},
      {"nan", real, "'nan' is no number from 2 to 3"},
      {"1e999", [](Settings& s) { s.real("k"); }, "'1e999' is no number"},
      {"maybe", [](Settings& s) { EXPECT_TRUE(s.flag("k", true)); },
       "'maybe' is none of true, yes, on, 1, false, no, off, 0"},
      {"", duration, "''" + longer},
      {"1m1h", duration, "'1m1h'" + longer},
      {"1h30", duration, "'1h30'" + longer},
      {"1h1h", duration, "'1h1h'" + longer},
      {"1y", duration, "'1y'" + longer},
      {"2h", duration, "'2h'" + longer},
      {"106751991168d", duration, "'106751991168d'" + longer},
      {"9223372036854775807", duration, "'9223372036854775807'" + longer},
      {"1023", bytes, "'1023'" + size},
      {"10 M", bytes, "'10 M'" + size},
      {"10Mi", bytes, "'10Mi'" + size},
      {"8192P", bytes, "'8192P'" + size},
      {"x",
       [](Settings& s) {
         s.oneOf("k", "b", {"a", "b"});
       },
       "'x' is none of a, b"},
      {"a[9-0]", [](Settings& s) { EXPECT_EQ(s.pattern("k").find("a", 0), UINT_MAX); }, ""},
      {"\x1b[2J\xFF" + std::string(54, 'x') + "\xC3\xBC", any,
       "'\\x1b[2J\\xff" + std::string(54, 'x') + "...' is no whole number"}};
  for (const Wrong& row : rows) {
    const Lines faults = faultsOf("#\nk=" + row.value + "\n", row.read);
    ASSERT_EQ(faults.size(), 1u) << row.value;
    EXPECT_TRUE(faults[0].starts_with(":2: k: " + row.reason)) << faults[0];
  }
}

TEST_F(VarnSettings, AllFaultsAreThrownTogetherByLine) {
  const std::string contents =
      "limit.laod=1\nworkers=9\nname\nworkers=2\nport = 80\nodd\r=1\nx=\0\n=5\nzzzzzzzz=1\r\n \n"s;
  Settings settings(file(contents));
  settings.number("workers", 1, {1, 4});
  settings.text("port");
  settings.text("name", "");
  settings.text("limit.load", "");
  settings.fault("name", "is odd\n");
  EXPECT_EQ(faultsOf(settings),
            (Lines{": port: is missing",
                   ":1: limit.laod: there is no such setting; the nearest is limit.load",
                   ":2: workers: '9' is no whole number from 1 to 4", ":3: name: has no '='",
                   ":3: name: is odd\\x0a", ":4: workers: stands in line 2 already",
                   ":5: port : has blanks beside it, which belong to the key",
                   ":6: has a carriage return in its middle", ":7: has a NUL in it",
                   ":8: has nothing before its '='", ":9: zzzzzzzz: there is no such setting"}));
  const VarnSettingsError error({"\xC3\xBC", "b"});
  EXPECT_EQ(error.getText(), "\xC3\xBC\nb");
  EXPECT_EQ(faultsOf("\xEF\xBB\xBFk=1\n", [](Settings& s) { s.text("k", ""); }),
            Lines{":1: \xEF\xBB\xBFk: begins with a byte order mark, which belongs to the key"});
  std::string many;
  for (int i = 0; i < 30000; ++i)
    many += "k" + std::to_string(i) + "=\n";
  EXPECT_EQ(faultsOf(many, [](Settings&) {}).back(), "and 29900 more");
}

TEST_F(VarnSettings, AnIndexOfAFaultCountsTheLinesOfItsKey) {
  Settings settings(file("path=<no such>\npath=a\npath\npath=b\n"));
  EXPECT_EQ(settings.texts("path", 4), (Lines{"", "a", "", "b"}));
  settings.fault("path", "is odd", 3);
  EXPECT_EQ(faultsOf(settings), (Lines{":1: path: refers to 'no such', which is not set",
                                       ":3: path: has no '='", ":4: path: is odd"}));
}

TEST_F(VarnSettings, TheCommandLineComesBeforeTheEnvironmentAndThatBeforeTheFile) {
  const std::string contents = "log.level=1\nfiles=a\nfiles=b\n";
  VarnProperties<std::string> options;
  EXPECT_EQ(Settings(file(contents), options, "GREETER").number("log.level"), 1);
  setenv("GREETER_LOG_LEVEL", "x", 1);
  Settings environment(file(contents), options, "GREETER");
  environment.number("log.level", 2, {0, 9});
  EXPECT_EQ(environment.texts("files"), (Lines{"a", "b"}));
  EXPECT_EQ(faultsOf(environment),
            Lines{"environment: GREETER_LOG_LEVEL: 'x' is no whole number from 0 to 9"});
  for (const char* level : {"7", "8"})
    options.addProperty("log-level", std::string(level));
  options.addProperty("files", std::string("c"));
  options.addProperty("verbose", std::string());
  options.addProperty("log", std::string("here"));
  Settings settings(file(contents), options, "GREETER");
  EXPECT_EQ(settings.number("log.level"), 8);
  EXPECT_EQ(settings.texts("files"), Lines{"c"});
  EXPECT_TRUE(settings.flag("verbose"));
  EXPECT_EQ(settings.path("log"), fs::current_path() / "here");
  settings.number("files");
  EXPECT_EQ(faultsOf(settings), Lines{"command line: files: 'c' is no whole number"});
  Settings none("", options);
  EXPECT_EQ(none.path("log"), fs::current_path() / "here");
  none.text("must");
  EXPECT_EQ(faultsOf(none), Lines{"must: is missing"});
}

TEST_F(VarnSettings, AFileThatCannotBeReadIsOneFault) {
  ASSERT_EQ(mkfifo((m_oFolder / "pipe").c_str(), 0600), 0);
  const std::string huge = m_oFolder / "huge";
  writeFile(huge, "k=1\n");
  fs::resize_file(huge, 16777217);
  const std::pair<std::string, std::string> rows[] = {
      {m_oFolder / "none", "cannot be read: No such file or directory"},
      {m_oFolder.path(), "cannot be read: Is a directory"},
      {m_oFolder / "pipe", "is not a regular file"},
      {"/dev/zero", "is not a regular file"},
      {"/proc/self/mem", "cannot be read: Input/output error"},
      {huge, "is larger than 16 MiB"}};
  for (const auto& [name, reason] : rows) {
    Settings settings(name);
    EXPECT_EQ(settings.number("k", {3, 4}), 3);
    EXPECT_EQ(faultsOf(settings), Lines{name + ": " + reason});
  }
  const Settings cut(file("k=1\n") + "\0x"s);
  EXPECT_EQ(faultsOf(cut), Lines{"\\x00x: cannot be read: Invalid argument"});
}

// The platform cancels threads that the library does not run, in its own calls.
TEST_F(VarnSettings, AThreadThatIsCancelledWhileItReadsLeavesNoDescriptor) {
  file("k=1\n");
  const auto read = [](void* name) -> void* {
    while (true)
      Settings(*static_cast<std::string*>(name));
  };
  const int before = entriesIn("/proc/self/fd");
  Random random;
  for (int i = 0; i < 100; ++i) {
    pthread_t reader{};
    ASSERT_EQ(0, pthread_create(&reader, nullptr, read, &m_sFile));
    std::this_thread::sleep_for(std::chrono::microseconds(random() % 2000));
    pthread_cancel(reader);
    ASSERT_EQ(0, pthread_join(reader, nullptr));
  }
  EXPECT_EQ(before, entriesIn("/proc/self/fd"));
}

TEST_F(VarnSettings, ReferencesAreReplacedInTurnAndFaultsWhereTheyLeadNowhere) {
  Settings settings(
      file("a=<b>-<b>\nb=<host> <HOME>\nlt=<\ncommand=run <b> <name> <lt>5 <<lt>> <>\n"
           "self=<self>\none=<two>\ntwo=-<one>\nunset=<no such>\nunread=<unread>\n"));
  settings.define("host", "<a>");
  setenv("HOME", "<b>", 1);
  EXPECT_EQ(settings.text("a"), "<a> <b>-<a> <b>");
  EXPECT_EQ(settings.text("command", "", {"name"}), "run <a> <b> <name> <5 <<> <>");
  EXPECT_EQ(settings.text("self", "preset"), "preset");
  settings.texts("one");
  settings.text("unset");
  EXPECT_EQ(faultsOf(settings),
            (Lines{":5: self: refers to 'self', which leads back to itself",
                   ":6: one: refers to 'two', which leads back to itself",
                   ":7: two: refers to 'one', which leads back to itself",
                   ":8: unset: refers to 'no such', which is not set",
                   ":9: unread: refers to 'unread', which leads back to itself"}));
}

TEST_F(VarnSettings, ReferencesThatStandForTooMuchEndSoon) {
  std::string bomb = "k0=x\n";
  std::string chain = "k0=x\n";
  for (int i = 1; i < 31; ++i) {
    const std::string before = "<k" + std::to_string(i - 1) + ">";
    bomb += "k" + std::to_string(i) + "=" + before + before + "\n";
  }
  for (int i = 1; i < 100000; ++i)
    chain += "k" + std::to_string(i) + "=<k" + std::to_string(i - 1) + ">\n";
  EXPECT_TRUE(contains(faultsOf(bomb, [](Settings& s) { s.text("k30"); }).at(0), "too much text"));
  EXPECT_TRUE(
      contains(faultsOf(chain, [](Settings& s) { s.text("k99999"); }).at(0), "references deep"));
}

TEST_F(VarnSettings, KeysWithAPrefixAreListedInTheirOrder) {
  VarnProperties<std::string> options;
  options.addProperty("rule.c.key", std::string("x"));
  Settings settings(file("rule.b.key=1\nrule=0\nrule.a.key=2\nrule.b.limit=\nrule.x=\nrule..y=\n"),
                    options);
  EXPECT_EQ(settings.groups("rule."), (Lines{"b", "a", "c"}));
  EXPECT_EQ(settings.keys("rule."),
            (Lines{"rule.b.key", "rule.a.key", "rule.b.limit", "rule.x", "rule..y", "rule.c.key"}));
  EXPECT_EQ(faultsOf(settings).size(), 6u) << "listed keys count as asked for";
}

TEST(VarnReplaceReferences, WhatIsPutInIsNotSearchedAgain) {
  const auto look = [](const std::string& name) -> std::optional<std::string> {
    if (name == "gone")
      return std::nullopt;
    return '<' + name + '>' + name;
  };
  const std::pair<std::string, std::string> rows[] = {
      {"plain", "plain"},          {"<a>", "<a>a"}, {"<a><b>", "<a>a<b>b"},   {"<<a>>", "<<a>a>"},
      {"1 < 2 <a>", "1 < 2 <a>a"}, {"<>", "<>"},    {"<gone>a>", "<gone>a>"}, {"<a", "<a"},
      {"<><b>", "<><b>b"}};
  for (const auto& [text, expected] : rows)
    EXPECT_EQ(VarnReplaceReferences(text, look), expected);
  const std::string opened(1000000, '<');
  EXPECT_EQ(VarnReplaceReferences(opened + "a>", look), opened.substr(1) + "<a>a");
}

}  // namespace
