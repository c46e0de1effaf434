#include <locale>

#include "LibraryTools.h"

namespace {

using namespace std::string_literals;
using Narrow = VarnProperties<std::string>;
using Wide = VarnProperties<std::wstring>;

class VarnPropertyFile : public testing::Test {
 protected:
  ~VarnPropertyFile() override { std::locale::global(std::locale::classic()); }

  std::string path(const std::string& name) const { return m_oFolder / name; }
  std::string file(const std::string& bytes) const {
    writeFile(path("in"), bytes);
    return path("in");
  }

  TempFolder m_oFolder;
};

using Expected = Narrow::tProperties;
using WideExpected = Wide::tProperties;

std::string utf16(const std::string& text) {
  std::string bytes = "\xFF\xFE";
  for (const char c : text)
    bytes += {c, '\0'};
  return bytes;
}

TEST_F(VarnPropertyFile, LinesBecomeProperties) {
  const std::pair<std::string, Expected> cases[] = {
      {"", {}},
      {"port = 8080\nflag\n\n#c=1\n =x\n", {{"port ", {"8080"}}, {"flag", {""}}, {" ", {"x"}}}},
      {"k=1\nk=2\nj=0\nk=1", {{"j", {"0"}}, {"k", {"1", "2", "1"}}}},
      {"a=1\r\n\r\nflag\r\n", {{"a", {"1"}}, {"\r", {""}}, {"flag\r", {""}}}},
      {"\0a=\0b\n"s, {{"\0a"s, {"\0b"s}}}},
      {"\xFF", {{"\xFF", {""}}}},
      {"\xFF\xFF=1\n", {{"\xFF\xFF", {"1"}}}},
      {utf16("a=1\r\n\r\nb\r\r\n#\nlast\r"), {{"a", {"1"}}, {"b\r", {""}}, {"last\r", {""}}}},
      {utf16("a=1") + "2", {{"a", {"1"}}}},
      {utf16("x=1") + "\x0A\x01" + "y\x02=\x03", {{"x", {"1"}}, {"y", {""}}}}};
  for (const auto& [bytes, expected] : cases) {
    Narrow properties;
    EXPECT_TRUE(properties.loadProperties(file(bytes), '='));
    EXPECT_EQ(properties.getProperties(), expected) << testing::PrintToString(bytes);
    for (std::size_t length = 0; length < bytes.size(); ++length)
      Narrow().loadProperties(file(bytes.substr(0, length)), '=');
  }
}

TEST_F(VarnPropertyFile, LongLinesAndManyLinesInAnyOrderAreAddedAsTheyStand) {
  const std::string key(5000000, 'k');
  std::string bytes = key + "=long\n";
  Expected expected{{key, {"long"}}};
  for (long i = 0; i < 100000; ++i) {
    const std::string name = std::to_string(i * 7919 % 50000);
    bytes += name + "=" + std::to_string(i) + "\n";
    expected[name].push_back(std::to_string(i));
  }
  Narrow properties;
  properties.loadProperties(file(bytes), '=');
  EXPECT_TRUE(properties.getProperties() == expected);
  Narrow last(false);
  last.loadProperties(path("in"), '=');
  last.saveProperties(path("out"));
  Narrow again;
  again.loadProperties(path("out"), '=');
  EXPECT_TRUE(again.getProperties() == last.getProperties());
  EXPECT_EQ(again.getPropertyValues("7919"), Lines{"50001"});
}

TEST_F(VarnPropertyFile, OnlyFirstValuesAreSavedInKeyOrder) {
  Narrow properties;
  properties.loadProperties(file("b= 2\nk=1\nk=2\na\n"), '=');
  const mode_t mask = umask(0);
  EXPECT_TRUE(properties.saveProperties(path("out")));
  umask(mask);
  EXPECT_EQ(contentsOf(path("out")), "a=\nb=2\nk=1\n");
  struct stat status {};
  stat(path("out").c_str(), &status);
  EXPECT_EQ(status.st_mode & 07777, 0644u);
  EXPECT_TRUE(properties.saveProperties("/dev/full"));
}

TEST_F(VarnPropertyFile, AFileNeverTakesThePlaceOfAStandardStream) {
  const std::string pipe = path("pipe");
  ASSERT_EQ(0, mkfifo(pipe.c_str(), 0600));
  expectInChild([&] {
    const int reader = open(pipe.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    close(STDOUT_FILENO);
    Narrow properties;
    properties.addProperty("a", std::string(1000000, 'x'));
    std::jthread saver([&] { properties.saveProperties(pipe); });
    char byte = 0;
    EXPECT_TRUE(eventually([&] { return read(reader, &byte, 1) == 1; }));
    EXPECT_EQ(-1, write(STDOUT_FILENO, "x", 1));
    close(reader);
  });
}

TEST_F(VarnPropertyFile, AFileThatCannotBeOpenedChangesNothing) {
  Narrow properties;
  properties.addProperty("a", std::string("1"));
  for (const std::string& name : {path("none/file"), m_oFolder.path()}) {
    EXPECT_FALSE(properties.loadPropertiesImpl(name, '='));
    EXPECT_FALSE(properties.savePropertiesImpl(name));
    EXPECT_THROW(properties.saveProperties(name), VarnException);
    EXPECT_EQ(resultOf([&] { properties.loadProperties(name, '='); }),
              "VarnProperties<StringType>::loadProperties: couldn't open file " + name);
  }
  EXPECT_EQ(properties.getProperties(), (Expected{{"a", {"1"}}}));
}

TEST_F(VarnPropertyFile, WideSetsReadAndWriteThroughTheGlobalLocale) {
  const std::string bytes = "gr\xC3\xBC\xC3\x9F=\xE2\x82\xAC 5\n";
  Wide properties;
  properties.loadProperties(file("before=1\nx" + bytes + "after=1\n"), L'=');
  EXPECT_EQ(properties.getProperties(), (WideExpected{{L"before", {L"1"}}, {L"xgr", {L""}}}))
      << "a character that cannot be read does not end the file";

  std::locale::global(std::locale("C.UTF-8"));
  std::string large;
  for (int i = 0; i < 10000; ++i)
    large += std::to_string(i) + bytes;
  Wide wide;
  wide.loadProperties(file(large), L'=');
  EXPECT_EQ(wide.size(), 10000u);
  EXPECT_EQ(wide.getProperty(L"9999gr\u00FC\u00DF"), L"\u20AC 5");
  wide.saveProperties(path("out"));
  Wide again;
  again.loadProperties(path("out"), L'=');
  EXPECT_EQ(again.getProperties(), wide.getProperties());
  Wide marked;
  marked.loadProperties(file("\xC3\xBF\xC3\xBE" + utf16("a=1\r\nb").substr(2)), L'=');
  EXPECT_EQ(marked.getProperties(), (WideExpected{{L"a", {L"1"}}, {L"b", {L""}}}));

  std::locale::global(std::locale::classic());
  again.addProperty(L"/first", std::wstring(L"1"));
  EXPECT_TRUE(again.saveProperties(path("out")));
  EXPECT_EQ(contentsOf(path("out")), "/first=1\n");
}

TEST_F(VarnPropertyFile, APipeIsReadAsItsLinesCome) {
  ASSERT_EQ(mkfifo(path("pipe").c_str(), 0600), 0);
  Narrow loaded;
  std::thread loader([&] { loaded.loadProperties(path("pipe"), '='); });
  {
    std::ofstream pipe(path("pipe"));
    pipe << "first=1\nseco" << std::flush;
    while (loaded.size() == 0)
      std::this_thread::yield();
    EXPECT_EQ(loaded.getProperty("first"), "1");
    pipe << "nd=2";
  }
  loader.join();
  EXPECT_EQ(loaded.getProperties(), (Expected{{"first", {"1"}}, {"second", {"2"}}}));
}

TEST_F(VarnPropertyFile, AThreadThatWaitsForThePartnerOfAPipeCanBeKilled) {
  ASSERT_EQ(mkfifo(path("pipe").c_str(), 0600), 0);
  for (const bool loads : {true, false}) {
    Narrow properties;
    std::atomic<pid_t> id{0};
    Task waiter([&] {
      id = gettid();
      loads ? properties.loadProperties(path("pipe"), '=')
            : properties.saveProperties(path("pipe"));
    });
    waiter.start();
    eventually([&] { return isIn(id, SYS_openat); });
    killAndJoin(waiter);
    properties.addProperty("key", "free");
  }
}

// At level 5 what is done with files, at exactly 9 the properties.
TEST_F(VarnPropertyFile, WhatIsDoneIsLogged) {
  const std::string in = file("b=22\nb=3\n");
  Narrow properties;
  Wide wide;
  wide.addProperty(L"wide", std::wstring(L"text"));
  FileLog log(4);
  properties.loadProperties(in, '=');
  log.log().setLogLevel(5);
  properties.saveProperties(path("out"));
  properties.loadPropertiesImpl(path("none"), '=');
  properties.savePropertiesImpl(path("none/out"));
  log.log().setLogLevel(9);
  wide.loadProperties(in, L'=');
  VarnExpandString("-<b><", properties);
  std::string records;
  for (const std::string& text : log.texts()) {
    records += text + '\n';
    if (const std::size_t folder = records.find(path("")); folder != std::string::npos)
      records.erase(folder, path("").size());
  }
  EXPECT_EQ(records,
            "VarnProperties<StringType>::saveProperties: to file out\n"
            "VarnProperties<StringType>::loadProperties: from file none\n"
            "VarnProperties<StringType>::loadProperties: couldn't open file none\n"
            "VarnProperties<StringType>::saveProperties: to file none/out\n"
            "VarnProperties<StringType>::saveProperties: couldn't open file none/out\n"
            "VarnProperties<StringType>::loadProperties: from file in\n"
            "DebugPrintProperty: b=22 (2)\n"
            "DebugPrintProperty: wide=text (4)\n"
            "VarnExpandString: expand = -<b><\n"
            "VarnExpandString: Lookup b\n"
            "VarnExpandString: result = -22<\n");
}

}  // namespace
