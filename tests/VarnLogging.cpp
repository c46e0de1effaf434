#include <regex>

#include "LibraryTools.h"
#include "VarnSupport/VarnLogging.h"

namespace {

template <typename Action>
std::string printed(Action action) {
  testing::internal::CaptureStdout();
  action();
  return testing::internal::GetCapturedStdout();
}

// Of each record a part of its line.
void expectHeaders(const FileLog& log, const Lines& parts) {
  const Lines lines = log.lines();
  ASSERT_EQ(parts.size(), lines.size());
  for (std::size_t i = 0; i < lines.size(); ++i)
    EXPECT_TRUE(contains(lines[i], parts[i])) << lines[i];
}

}  // namespace

TEST(VarnLogging, HeadersCarryTimeLevelComponentAndThread) {
  FileLog log(9);
  log.log() << setloglevel("a component of some length", 5) << "text" << endrecord;
  log.log() << "default" << endrecord;
  VarnLogRecord("short", 0) << "bare";
  const std::string thread = " \\[" + std::to_string(static_cast<int>(pthread_self())) + "\\] ";
  const std::string time = "[0-9]{8}_[0-2][0-9]:[0-5][0-9]:[0-6][0-9]";
  const std::string written = contentsOf(log.file());
  EXPECT_TRUE(std::regex_match(
      written, std::regex(time + " 5 a component of some length" + thread + "text\n" + time +
                          " 9 Global    " + thread + "default\nbare\n")))
      << written;
}

TEST(VarnLogging, TheTimeFollowsTheZone) {
  FileLog log(9);
  for (const char* const zone : {"UTC", "XST-5:30", "YST+3"}) {
    setenv("TZ", zone, 1);
    VarnLogRecord(9) << zone;
  }
  unsetenv("TZ");
  const Lines lines = log.lines();
  ASSERT_EQ(3U, lines.size());
  const auto minutes = [&](std::size_t i) {
    return std::stoi(lines[i].substr(9, 2)) * 60 + std::stoi(lines[i].substr(12, 2));
  };
  EXPECT_NEAR(330, (minutes(1) - minutes(0) + 1440) % 1440, 1);
  EXPECT_NEAR(1260, (minutes(2) - minutes(0) + 1440) % 1440, 1);
}

TEST(VarnLogging, FormatsEveryKindOfValueUpToTheFirstNul) {
  FileLog log(9);
  const void* const address = &log;
  log.log() << std::string("s") << ci_string("C") << endrecord;
  log.log() << std::wstring(L"wide") << ci_wstring(L"WIDE") << true << false << endrecord;
  log.log() << -1L << " " << 2UL << " " << -3 << " " << short{-4} << " " << 5U << " "
            << static_cast<unsigned short>(6) << endrecord;
  log.log() << 'x' << '\0' << 'y' << address << " " << 1.5 << " " << 2.25F << endrecord;
  log.log() << std::string("a\0b", 3) << "c" << endrecord;
  log.log() << std::string("\0b", 2) << endrecord;
  log.log() << 1.7976931348623157e308 << endrecord;
  Lines texts = log.texts();
  EXPECT_EQ(316U, texts.back().size());
  texts.pop_back();
  EXPECT_EQ((Lines{"sC", "wideWIDEtruefalse", "-1 2 -3 -4 5 6",
                   "xy" + testing::PrintToString(address) + " 1.500000 2.250000", "a", ""}),
            texts);
  log.log() << "before" << static_cast<const char*>(nullptr) << "after" << endrecord;
  log.log() << "never" << endrecord;
  EXPECT_EQ("before", log.texts().back()) << "a null pointer ends the stream";
}

TEST(VarnLogging, GlobalAndComponentLevelsFilterAtTheirOwnTimes) {
  FileLog log(5);
  VarnLogging& l = log.log();
  l << setloglevel(6) << "above the global level" << endrecord;
  l.setLogLevel("quiet", 3);
  l.setLogLevel("loud", 9);
  l.setLogLevel("quiet", 10);
  l.setLogLevel("quiet", -2);
  EXPECT_EQ(3, l.getLogLevel("quiet"));
  EXPECT_EQ(5, l.getLogLevel("unknown"));
  l << setloglevel("loud", 6) << "a component cannot raise the global level" << endrecord;
  EXPECT_FALSE(VarnLogRecord("quiet", 5) << "is not left");
  l << setloglevel("quiet", 5) << "left " << endrecord;
  VarnLogRecord("quiet", 3) << "and led";
  l << setloglevel("quiet", 4) << endrecord;
  l << setloglevel("quiet", 0) << "level 0 passes" << endrecord;
  l.setLogLevel(-1);
  EXPECT_FALSE(VarnLogging::isAccessAllowed());
  l << setloglevel(0) << "off" << endrecord;
  l << setloglevel(-1) << "minus one at minus one" << endrecord;
  l.setLogLevel(10);
  EXPECT_EQ(-1, l.getLogLevel());
  EXPECT_EQ((Lines{"left and led", "level 0 passes", "minus one at minus one"}), log.texts());
}

TEST(VarnLogging, LevelAndComponentLastForOneRecord) {
  FileLog log(9);
  VarnLogging& l = log.log();
  l.setCurrentLevel("part", 4);
  l.setCurrentLevel("ignored", -2);
  l << "one" << endrecord << "two" << endrecord;
  l.setCurrentLevel(12);
  l << "rejected by the global level" << endrecord;
  expectHeaders(log, {" 4 part       [", " 9 Global     ["});
}

TEST(VarnLogging, FileNamesLoseExtensionAndQuoteAndOthersMayReadTheFile) {
  const TempFolder folder;
  const mode_t previous = umask(0);
  VarnLogging log('"' + (folder / "app.txt") + '"', VarnLogging::kToFile, 9);
  log.setTarget(VarnLogging::kToFile);
  umask(previous);
  const fs::directory_entry file(*fs::directory_iterator(folder.path()));
  EXPECT_TRUE(std::regex_match(file.path().filename().string(), std::regex("app[0-9]+\\.log")));
  EXPECT_EQ(fs::perms(0644), file.status().permissions());
}

TEST(VarnLogging, TargetsOpenAndCloseTheFile) {
  const TempFolder folder;
  VarnLogging log(folder / "t", VarnLogging::kToFile, 9);
  EXPECT_EQ(1, entriesIn(folder.path()));
  EXPECT_TRUE(log.isFileOpen());
  EXPECT_EQ("", printed([&] { log << "to file" << endrecord; }));
  log.setTarget(2);
  EXPECT_EQ("pending to output\n", printed([&] {
              std::printf("pending ");
              log << setloglevel(0) << "to output" << endrecord;
            }));
  log.setTarget(3);
  EXPECT_EQ(2, entriesIn(folder.path()));
  EXPECT_EQ("both\n", printed([&] { log << setloglevel(0) << "both" << endrecord; }));
  log.setTarget(0);
  EXPECT_FALSE(log.isFileOpen());
  EXPECT_EQ("", printed([&] { log << setloglevel(0) << "nowhere" << endrecord; }));
  EXPECT_EQ(0, log.getTarget());
}

TEST(VarnLogging, AFileThatCannotBeOpenedIsReportedAndSkipped) {
  testing::internal::CaptureStderr();
  VarnLogging log("/nonexistent/x", 3, 9);
  const std::string report = testing::internal::GetCapturedStderr();
  EXPECT_TRUE(std::regex_match(
      report, std::regex("VarnLogging: Opening (/nonexistent/x[0-9]+\\.log) for "
                         "logging\\.\\.\\.\nVarnLogging: Cannot open log file \\1 \\(2\\)\n")))
      << report;
  EXPECT_FALSE(log.isFileOpen());
  EXPECT_EQ("still\n", printed([&] { log << setloglevel(0) << "still" << endrecord; }));
}

TEST(VarnLogging, TheFileIsNoStandardStreamAndRecordsGoToItsEnd) {
  expectInBareChild([] {
    close(STDIN_FILENO);
    close(STDOUT_FILENO);
    const FileLog log(5);
    VarnLogRecord(5) << "before somebody empties the file";
    fs::resize_file(log.file(), 0);
    VarnLogRecord(5) << "after";
    EXPECT_EQ(-1, fcntl(STDIN_FILENO, F_GETFD));
    EXPECT_EQ(-1, fcntl(STDOUT_FILENO, F_GETFD));
    EXPECT_EQ(Lines{"after"}, log.texts());
  });
}

TEST(VarnLogging, ARecordThatATargetTookInPartKeepsItsLineToItself) {
  const TempFolder folder;
  const std::string output = folder / "output";
  expectInBareChild([&] {
    signal(SIGXFSZ, SIG_IGN);
    FileLog log(5);
    log.log().setTarget(3);
    dup2(::open(output.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600), STDOUT_FILENO);
    for (const auto& [room, text] : {std::pair(3, "torn"),
                                     {3, "lost"},
                                     {4, "only its line feed is taken"},
                                     {100, "there is room"},
                                     {100, "again"}}) {
      const rlimit limit{static_cast<rlim_t>(room), RLIM_INFINITY};
      setrlimit(RLIMIT_FSIZE, &limit);
      VarnLogRecord(0) << text;
    }
    EXPECT_EQ(linesOf(log.file()), linesOf(output));
  });
  EXPECT_EQ((Lines{"tor", "there is room", "again"}), linesOf(output));
}

TEST(VarnLogging, AnOpenRecordExcludesOtherThreadsButNotTheTables) {
  FileLog log(9);
  VarnLogging& l = log.log();
  l << "begun ";
  std::thread([&] {
    l.endrecord();
    l.setLogLevel("x", 4);
    l.setTarget(1);
    EXPECT_EQ(4, l.getLogLevel("x"));
  }).join();
  EXPECT_EQ(Lines{}, log.texts());
  std::thread other([&] { l << setloglevel(5) << "other" << endrecord; });
  l << "ended" << endrecord;
  other.join();
  EXPECT_EQ((Lines{"begun ended", "other"}), log.texts());
}

TEST(VarnLogRecord, HoldsTheRecordAndKnowsWhetherItIsAdmitted) {
  EXPECT_FALSE(VarnLogRecord(0));
  FileLog log(5);
  EXPECT_TRUE(VarnLogging::admits(5));
  EXPECT_FALSE(VarnLogging::admits(6));
  EXPECT_FALSE(VarnLogRecord(6) << "no");
  {
    VarnLogRecord record("part", 5);
    record << "a" << 1;
    std::thread([&] { log.log().endrecord(); }).join();
    record << 'b' << std::wstring();
  }
  expectHeaders(log, {" 5 part       ["});
  EXPECT_EQ(Lines{"a1b"}, log.texts());
}

TEST(VarnLogRecord, MayStandInsideAnotherRecordOfItsThreadAndReadsANullPointer) {
  FileLog log(9);
  const auto compute = [null = static_cast<const char*>(nullptr)] {
    VarnLogRecord("inner", 2) << null << " inner";
    return "value";
  };
  VarnLogRecord("outer", 7) << "outer " << compute() << " end";
  expectHeaders(log, {" 2 inner ", " 7 outer "});
  EXPECT_EQ((Lines{"(null) inner", "outer value end"}), log.texts());
}

TEST(VarnLogRecord, TheOlderFormInsideMakesRecordsOfItsOwn) {
  FileLog log(5);
  VarnLogging& l = log.log();
  l.setLogLevel("quiet", 1);
  const auto useOlderForm = [&] {
    l << setloglevel("older", 3) << "a record" << endrecord << setloglevel("lost", 4);
    l << endrecord << setloglevel("quiet", 2) << "rejected, " << endrecord;
    l << setloglevel("older", 1) << "not ended";
    return "value";
  };
  std::thread other;
  {
    VarnLogRecord whole("whole", 2);
    whole << "begun, ";
    other = std::thread([] { VarnLogRecord(4) << "another thread"; });
    whole << useOlderForm() << ", ended";
  }
  other.join();
  l << setloglevel("around", 4) << "around ";
  VarnLogRecord("whole", 2) << useOlderForm();
  l << "it all" << endrecord;
  expectHeaders(log, {" 3 older ", " 1 older ", " 2 whole ", " 4 Global ", " 3 older ", " 1 older ",
                      " 2 whole ", " 4 around "});
  EXPECT_EQ((Lines{"a record", "rejected, not ended", "begun, value, ended", "another thread",
                   "a record", "rejected, not ended", "value", "around it all"}),
            log.texts());
}

TEST(VarnLogging, AStoreIntoTheInstanceRegistersTheLog) {
  VarnLogging log("unused", 0, 3);
  EXPECT_TRUE(VarnLogging::m_pInstance == nullptr);
  VarnLogging::m_pInstance = &log;
  EXPECT_EQ(3, VarnLogging::m_pInstance->getLogLevel());
  EXPECT_TRUE(VarnLogging::isAccessAllowed());
  EXPECT_TRUE(VarnLogRecord(3));
  VarnLogging::m_pInstance = nullptr;
  EXPECT_EQ(nullptr, VarnLogging::getInstance());
  EXPECT_FALSE(VarnLogging::isAccessAllowed());
  EXPECT_FALSE(VarnLogRecord(3));
}

// Of a log whose target takes nothing the records wait, and its end, for a while.
TEST(VarnLogging, AStuckTargetHoldsUpNothingElse) {
  const auto useStuckLog = [](int target) {
    const TempFolder folder;
    std::srand(7);
    const std::string name = folder / std::to_string(std::rand()) + ".log";
    std::srand(7);
    mkfifo(name.c_str(), 0600);
    const int reader = ::open(name.c_str(), O_RDWR | O_NONBLOCK);
    dup2(::open(name.c_str(), O_WRONLY), STDOUT_FILENO);
    auto log = std::make_unique<VarnLogging>(folder / ".x", target, 5);
    VarnLogging::setInstance(*log);
    const auto getStuck = [] {
      VarnLogRecord(5) << std::string(100000, 'x');
      return "never written";
    };
    std::atomic<pid_t> id{0};
    std::jthread writer([&] {
      id = gettid();
      VarnLogRecord(5) << getStuck();
    });
    const auto isWriting = [&] { return isIn(id, SYS_write); };
    EXPECT_TRUE(eventually(isWriting));
    std::jthread next = startSleeper([] { VarnLogRecord(5) << "goes to the other log"; });

    log->setLogLevel("part", 4);
    log->setLogLevel(log->getLogLevel("part"));
    FileLog other(5);
    const pid_t child = fork();
    if (child == 0) {
      log->setTarget(0);
      *log << setloglevel(1) << "of a log that is free again" << endrecord;
      _exit(0);
    }
    log.reset();
    EXPECT_EQ(0, outcomeOf(child));
    std::string taken(110000, 'x');
    EXPECT_TRUE(eventually([&] { return read(reader, taken.data(), taken.size()), !isWriting(); }));
    writer.join();
    next.join();
    EXPECT_EQ(Lines{"goes to the other log"}, other.texts());
    return testing::Test::HasFailure() ? 1 : 0;
  };
  const pid_t toFile = startBareChild([&] { return useStuckLog(VarnLogging::kToFile); });
  EXPECT_EQ(0, runInBareChild([&] { return useStuckLog(VarnLogging::kToStandardOutput); }));
  EXPECT_EQ(0, outcomeOf(toFile));
}

TEST(VarnLogging, ExpiryFlushesWhatNoLivingThreadHolds) {
  FileLog log(9);
  std::thread([&] {
    log.log() << "half a record";
    VarnCriticalSectionRecoverFn(nullptr);  // as when a thread is cancelled
  }).join();
  VarnCollaborator source;
  log.log().handleNotification(source, VarnNotification());
  EXPECT_TRUE(eventually([&] { return log.texts().size() == 2; }));
  EXPECT_EQ((Lines{"half a record",
                   "VarnLogging::timerElapsed: called (NOTE: This message only appears and repeats "
                   "when LogLevel = 9)"}),
            log.texts());
}
