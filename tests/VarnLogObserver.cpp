#include "VarnSupport/VarnLogObserver.h"

#include <regex>

#include "LibraryTools.h"

namespace {

// Collects the texts that it is told, and does what the case wants.
struct Told : Notes {
  explicit Told(
      int level, std::function<void()> action = [] {})
      : observer(level, [this, action = std::move(action)](const VarnLogEntry& entry) {
          add(std::string(entry.text));
          action();
        }) {}

  VarnLogObserver observer;
};

}  // namespace

TEST(VarnLogObserver, IsToldOfEachRecordOfTheRegisteredLogInWhole) {
  FileLog log(7);
  Lines told;
  const auto begin = std::chrono::system_clock::now();
  const VarnLogObserver observer(7, [&](const VarnLogEntry& entry) {
    EXPECT_LE(begin, entry.time);
    EXPECT_LE(entry.time, std::chrono::system_clock::now());
    EXPECT_EQ(gettid(), entry.threadId);
    told.push_back(std::to_string(entry.level) + '|' + std::string(entry.component) + '|' +
                   std::string(entry.threadName) + '|' + std::string(entry.text));
  });
  Task task([] { VarnLogRecord("part", 3) << "one"; }, "worker");
  task.start();
  task.waitForThreadExit();
  log.log() << setloglevel("older", 4) << "two" << endrecord;
  VarnLogRecord(8) << "above the level";
  log.log().setTarget(0);
  VarnLogRecord(0) << "no target" << '\n' << "two lines";
  VarnLogging other("", 0, 9);
  other << "not registered" << endrecord;
  pthread_setname_np(pthread_self(), "main");
  VarnLogRecord(1) << std::string("a\0b", 3);
  ASSERT_EQ(4U, told.size());
  EXPECT_EQ("3|part|worker|one", told[0]);
  EXPECT_EQ(0U, told[1].find("4|older|"));
  EXPECT_TRUE(contains(told[2], "|no target\ntwo lines"));
  EXPECT_EQ("1||main|a", told[3]);
}

TEST(VarnLogObserver, IsToldUpToItsLevelAndForItsLifeOnly) {
  const FileLog log(9);
  Told all(9);
  {
    Told few(3);
    VarnLogRecord(3) << "three";
    VarnLogRecord(4) << "four";
    EXPECT_EQ(Lines{"three"}, few.all());
  }
  VarnLogRecord(1) << "later";
  EXPECT_EQ((Lines{"three", "four", "later"}), all.all());
}

TEST(VarnLogObserver, IsCalledOutsideOfEveryLockOfTheLog) {
  FileLog log(5);
  VarnLogging other("", 0, 5);
  // Each call logs on another thread, to both logs, and waits for that.
  std::atomic<int> calls{0};
  const VarnLogObserver observer(4, [&](const VarnLogEntry&) {
    std::thread([&] {
      VarnLogRecord(5) << "elsewhere";
      other << setloglevel(5) << "elsewhere" << endrecord;
    }).join();
    ++calls;
  });
  {
    const VarnLogRecord outer(4);
    VarnLogRecord(3) << "inner";
    log.log() << setloglevel(2) << "older form" << endrecord;
    EXPECT_EQ(0, calls);
  }
  EXPECT_EQ(2, calls) << "the outer one has no text";
  other << setloglevel(5) << "around";
  VarnLogRecord(3) << "inside";
  EXPECT_EQ(2, calls);
  other << endrecord;
  EXPECT_EQ(3, calls);
}

TEST(VarnLogObserver, RecordsMadeInsideAreToldToTheOthers) {
  FileLog log(5);
  Told quiet(5);
  Told loud(5, [] { VarnLogRecord(5) << "made inside"; });
  Told thrower(5, [] { throw 1; });
  VarnLogRecord(5) << "record";
  EXPECT_EQ(Lines{"record"}, loud.all());
  EXPECT_EQ((Lines{"record", "made inside"}), quiet.all());
  EXPECT_EQ(2U, thrower.all().size());
  EXPECT_EQ((Lines{"record", "made inside"}), log.texts());
}

TEST(VarnLogObserver, ItsEndWaitsForACallUnderWayButForItsOwn) {
  const FileLog log(5);
  std::atomic<int> stage{0};
  std::optional<Told> told;
  told.emplace(5, [&] {
    stage = 1;
    EXPECT_TRUE(eventually([&] { return stage == 2; }));
    sleepMs(20);
    stage = 3;
  });
  const std::jthread writer([] { VarnLogRecord(5) << "record"; });
  EXPECT_TRUE(eventually([&] { return stage == 1; }));
  stage = 2;
  told.reset();
  EXPECT_EQ(3, stage);

  std::optional<VarnLogObserver> once;
  int calls = 0;
  once.emplace(5, [&](const VarnLogEntry&) {
    ++calls;
    once.reset();
  });
  VarnLogRecord(5) << "first";
  VarnLogRecord(5) << "second";
  EXPECT_EQ(1, calls);
}

TEST(VarnLogObserver, ComeAndGoWhileOthersLogAndFork) {
  const FileLog log(5);
  const auto write = [] { VarnLogRecord(5) << "record"; };
  const std::jthread writers[] = {repeating(write), repeating(write)};
  for (int i = 0; i < 50; ++i) {
    std::atomic<int> calls{0};
    const VarnLogObserver observer(5, [&](const VarnLogEntry&) { ++calls; });
    EXPECT_TRUE(eventually([&] { return calls > 0; }));
    if (i % 5 > 0)
      continue;
    expectInBareChild([&] {
      const int before = calls;
      write();
      EXPECT_EQ(before + 1, calls);
    });
  }
}

TEST(VarnJsonLog, EachLineIsValidWhateverTheRecordHolds) {
  const TempFolder folder;
  const FileLog log(5);
  {
    VarnJsonLog json(folder / "app.json", 5, VarnLogFile::Background{});
    VarnLogRecord("net\"\\", 5) << "line\nfeed, tab\t, \x7F, \xC3\xA9, \xC3(, \xED\xA0\x80, \xFF";
    EXPECT_EQ(0U, json.file().lostRecords());
    VarnLogRecord(1) << "failure";
    EXPECT_EQ(2U, linesOf(folder / "app.json").size());
  }
  const Lines lines = linesOf(folder / "app.json");
  ASSERT_EQ(2U, lines.size());
  EXPECT_TRUE(contains(lines[0], R"("component":"net\"\\",)"));
  EXPECT_TRUE(contains(lines[0],
                       "\"text\":\"line\\u000afeed, tab\\u0009, \\u007f, \xC3\xA9, \\ufffd(, "
                       "\\ufffd\\ufffd\\ufffd, \\ufffd\"}"))
      << lines[0];
  EXPECT_TRUE(std::regex_match(
      lines[1], std::regex(R"(\{"time":"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{9}Z","level":1,)"
                           R"("component":"","thread":"[^"]*","tid":\d+,"text":"failure"\})")))
      << lines[1];
}

TEST(VarnJsonLog, WhatWasLostIsToldAsAnObject) {
  const TempFolder folder;
  const FileLog log(5);
  VarnJsonLog json(folder / "app.json", 5, VarnLogFile::Background{1000});
  while (json.file().lostRecords() == 0)
    VarnLogRecord(5) << std::string(300, 'y');
  json.file().flush();
  const Lines lines = linesOf(folder / "app.json");
  for (const std::string& line : lines)
    EXPECT_TRUE(line.starts_with("{\"time\":")) << line;
  EXPECT_TRUE(contains(lines.back(), " records lost\"}"));
}

TEST(VarnJsonLog, AFileThatCannotBeOpenedAgainIsToldInTheOldOne) {
  const TempFolder folder;
  std::filesystem::create_directory(folder / "old");
  VarnJsonLog json(folder / "old/app.json", 5);
  std::filesystem::rename(folder / "old", folder / "new");
  EXPECT_FALSE(json.file().reopen());
  const std::string line = contentsOf(folder / "new/app.json");
  EXPECT_TRUE(line.starts_with("{\"time\":")) << line;
  EXPECT_TRUE(contains(line, "VarnLogFile::reopen: cannot open ")) << line;
}
