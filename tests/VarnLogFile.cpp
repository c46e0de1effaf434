#include "VarnSupport/VarnLogFile.h"

#include <regex>

#include "LibraryTools.h"

namespace {

using Background = VarnLogFile::Background;

void limitFiles(rlim_t bytes) {
  const rlimit limit{bytes, RLIM_INFINITY};
  setrlimit(RLIMIT_FSIZE, &limit);
}

// A registered VarnLogFile in a folder of its own.
struct RegisteredFile {
  explicit RegisteredFile(std::size_t queueBytes = 0)
      : log(folder / "app.log", 5, Background{queueBytes}) {
    VarnLogging::setInstance(log);
  }
  std::string path() const { return folder / "app.log"; }
  Lines texts() const { return textsOf(path()); }

  const TempFolder folder;
  VarnLogFile log;
};

// Each of so many texts stands once in the files of the folder.
void expectOnce(const RegisteredFile& file, std::size_t size) {
  std::set<std::string> found;
  for (const auto& entry : fs::directory_iterator(file.folder.path())) {
    for (const std::string& text : textsOf(entry.path()))
      EXPECT_TRUE(found.insert(text).second) << text;
  }
  EXPECT_EQ(size, found.size());
}

}  // namespace

TEST(VarnLogFile, KeepsItsNameAndWhatIsThereAndIsForOwnerAndGroup) {
  const TempFolder folder;
  const std::string path = folder / "app.txt";
  const mode_t previous = umask(0);
  for (const char* const text : {"first run", "second run"}) {
    VarnLogFile log(path, 5);
    EXPECT_EQ(path, log.getName());
    VarnLogging::setInstance(log);
    VarnLogRecord("part", 3) << text;
    *VarnLogging::getInstance() << setloglevel(6) << "above the level" << endrecord;
    *VarnLogging::getInstance() << setloglevel("older", 5) << text << endrecord;
  }
  umask(previous);
  EXPECT_EQ((Lines{"first run", "first run", "second run", "second run"}), textsOf(path));
  EXPECT_TRUE(std::regex_match(
      linesOf(path)[0], std::regex("[0-9]{8}_[0-9:]{8} 3 part       \\[-?[0-9]+\\] first run")));
  EXPECT_EQ(fs::perms(0640), fs::status(path).permissions());
}

TEST(VarnLogFile, RotationUnderLoadWritesEachRecordOnce) {
  for (const std::size_t queueBytes : {0, 64 << 20}) {  // the load has no brake
    RegisteredFile file(queueBytes);
    std::atomic<std::size_t> written{0};
    std::atomic<bool> rotated{false};
    onThreads(6, [&](int thread) {
      const std::string prefix = std::to_string(thread) + ':';
      for (int i = 0; thread < 4 && (i < 500 || !rotated); ++i) {
        VarnLogRecord(5) << prefix << i;
        ++written;
      }
      for (int i = 0; thread >= 4 && i < 100; ++i) {
        std::rename(file.path().c_str(), (file.path() + prefix + std::to_string(i)).c_str());
        EXPECT_TRUE(file.log.reopen());
        rotated = i == 99;
      }
    });
    file.log.flush();
    EXPECT_EQ(0U, file.log.lostRecords()) << file.log.lastError();
    expectOnce(file, written);
  }
}

TEST(VarnLogFile, ANameThatIsNoPlainFileIsRefusedAtOnce) {
  const TempFolder folder;
  writeFile(folder / "target", "");
  fs::create_symlink(folder / "target", folder / "link");
  fs::create_directory(folder / "folder");
  mkfifo((folder / "fifo").c_str(), 0600);
  mkfifo((folder / "read").c_str(), 0600);
  const int reader = open((folder / "read").c_str(), O_RDONLY | O_NONBLOCK);
  for (const auto& [name, reason] : {std::pair("link", "Too many levels of symbolic links"),
                                     {"folder", "Is a directory"},
                                     {"fifo", "is no regular file"},
                                     {"read", "is no regular file"},
                                     {"none/file", "No such file or directory"}}) {
    testing::internal::CaptureStderr();
    VarnLogFile log(folder / name, 5);
    const std::string told = (folder / name) + ": " + reason;
    EXPECT_EQ("VarnLogFile: Cannot open log file " + told + '\n',
              testing::internal::GetCapturedStderr());
    EXPECT_EQ(told, log.lastError());
    log << "lost" << endrecord;
    EXPECT_FALSE(log.isFileOpen() || log.reopen());
    EXPECT_EQ(0U, log.lostRecords()) << "level 9 is above the level";
    log << setloglevel(5) << "lost" << endrecord;
    EXPECT_EQ(1U, log.lostRecords());
  }
  close(reader);
  VarnLogFile log("/dev/null", 5);
  EXPECT_TRUE(log.isFileOpen());
  const std::string cut = (folder / "new") + '\0';
  EXPECT_EQ(cut + ": Invalid argument", VarnLogFile(cut, 5).lastError());
  EXPECT_FALSE(fs::exists(folder / "new"));
}

TEST(VarnLogFile, KeepsTheOldFileAndSaysSoWhenTheNewOneCannotBeOpened) {
  RegisteredFile file;
  fs::rename(file.path(), file.folder / "old");
  fs::create_directory(file.path());
  EXPECT_FALSE(file.log.reopen());
  VarnLogRecord(5) << "still there";
  EXPECT_EQ((Lines{"VarnLogFile::reopen: cannot open " + file.path() + ": Is a directory",
                   "still there"}),
            textsOf(file.folder / "old"));
  fs::remove(file.path());
  EXPECT_TRUE(file.log.reopen());
  VarnLogRecord(5) << "new";
  EXPECT_EQ(Lines{"new"}, file.texts());
}

TEST(VarnLogFile, ARelativeNameStaysThatOfItsFolder) {
  const TempFolder folder;
  fs::current_path(folder.path());
  VarnLogFile log("app.log", 5);
  fs::current_path("/");
  log.setTarget(0);
  log.setTarget(VarnLogging::kToFile);
  EXPECT_TRUE(log.isFileOpen());
  EXPECT_EQ(folder / "app.log", log.getName());
}

TEST(VarnLogFile, WhatAFullFileDoesNotTakeIsCountedAndToldOfAndTornLinesEnd) {
  for (const std::size_t queueBytes : {0, 4096}) {
    const TempFolder folder;
    const std::string path = folder / "app.log";
    writeFile(path, "killed");
    expectInBareChild([&] {
      VarnLogFile log(path, 5, Background{queueBytes});
      VarnLogging::setInstance(log);
      limitFiles(10);  // SIGXFSZ would end the process
      VarnLogRecord(0) << "torn";
      VarnLogRecord(0) << "lost";
      log.flush();
      const std::string error = log.lastError();
      limitFiles(100000);
      EXPECT_EQ(path + ": File too large", error);
      VarnLogRecord(0) << "there is room";
      log.flush();
      EXPECT_EQ(2U, log.lostRecords());
    });
    VarnLogFile(path, 5).writeLine("next run");
    EXPECT_EQ((Lines{"killed", "tor", "2 records lost", "there is room", "next run"}),
              textsOf(path));
  }
}

TEST(VarnLogFile, WithoutANameStandardErrorHasItWithPrioritiesForTheJournal) {
  const TempFolder folder;
  const std::string file = folder / "journal";
  expectInBareChild([&] {
    dup2(open(file.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600), STDERR_FILENO);
    struct stat status {};
    fstat(STDERR_FILENO, &status);
    VarnLogFile log("", 9);
    log.writeLine("plain");
    const std::string name = std::to_string(status.st_dev) + ':' + std::to_string(status.st_ino);
    setenv("JOURNAL_STREAM", name.c_str(), 1);
    log.reopen();
    log << setloglevel(1) << "failure\n<0>forged" << endrecord;
    log << setloglevel(9) << "trace" << endrecord;
    log.writeLine("no header");
    log.writeLine("");
    log.writeLine(std::string_view("\0 behind a NUL", 14));
  });
  EXPECT_TRUE(std::regex_match(
      contentsOf(file),
      std::regex("plain\n<3>2.*failure\n<3><0>forged\n<7>2.*trace\n<6>no header\n")))
      << contentsOf(file);
}

TEST(VarnLogFile, AClosedPipeRaisesNoSignal) {
  expectInBareChild([] {
    int ends[2] = {};
    ASSERT_EQ(0, pipe(ends));
    dup2(ends[1], STDERR_FILENO);
    close(ends[0]);
    VarnLogFile log("", 5);
    log.writeLine("lost");
    sigset_t pending;
    sigpending(&pending);
    EXPECT_EQ(1U, log.lostRecords());
    EXPECT_EQ(0, sigismember(&pending, SIGPIPE));
  });
}

TEST(VarnLogFile, InTheBackgroundLevel1DoesNotWait) {
  RegisteredFile file(Background().queueBytes);
  VarnLogRecord(5) << "before";
  VarnLogRecord(1) << "failure";
  EXPECT_EQ((Lines{"before", "failure"}), file.texts());
  VarnLogRecord(5) << "after";
  EXPECT_TRUE(eventually([&] { return file.texts().size() == 3; }));
}

TEST(VarnLogFile, WhatDoesNotFitTheQueueIsCountedAndToldOf) {
  RegisteredFile file(1000);
  const std::string large(2000, 'x');
  VarnLogRecord(5) << large;
  EXPECT_EQ(Lines{large}, file.texts()) << "what never fits is written at once";
  std::uint64_t written = 1;
  for (; file.log.lostRecords() == 0; ++written)
    VarnLogRecord(5) << std::string(300, 'y');
  file.log.flush();
  const Lines texts = file.texts();
  EXPECT_EQ("1 records lost", texts.back());
  EXPECT_EQ(written, texts.size());
  EXPECT_EQ(file.path() + ": No buffer space available", file.log.lastError());
}

TEST(VarnLogFile, EverythingIsOutAtTheEndOfTheProcess) {
  struct AtExit {
    ~AtExit() { VarnLogRecord(5) << "from a destructor"; }
  };
  for (const bool isReturn : {true, false}) {
    const TempFolder folder;
    EXPECT_EQ(3, runInChild([&] {
                static const AtExit older;
                auto* const log = new VarnLogFile(folder / "app.log", 5, Background{});
                VarnLogging::setInstance(*log);
                for (int i = 0; i < 1000; ++i)
                  VarnLogRecord(5) << i;
                if (!isReturn)
                  std::thread([] { std::exit(3); }).join();
                return 3;
              }));
    const Lines texts = textsOf(folder / "app.log");
    ASSERT_EQ(1001U, texts.size());
    EXPECT_EQ("999", texts[999]);
    EXPECT_EQ("from a destructor", texts[1000]);
  }
}

TEST(VarnLogFile, ATargetThatTakesNothingHoldsUpTheExitForAFewSecondsOnly) {
  std::vector<pid_t> children;
  for (const bool isDestroyed : {true, false}) {
    children.push_back(startChild([&] {
      int ends[2] = {};
      if (pipe(ends) != 0)
        return 2;
      dup2(ends[1], STDERR_FILENO);
      leaksCanBeFound = false;  // or AddressSanitizer tells of them there
      auto* const log = new VarnLogFile("", 5, Background{});
      VarnLogging::setInstance(*log);
      for (int i = 0; i < 2000; ++i)
        VarnLogRecord(5) << std::string(100, 'x');
      if (isDestroyed)
        delete log;
      return 3;
    }));
  }
  for (const pid_t child : children)
    EXPECT_EQ(3, outcomeOf(child));
}

TEST(VarnLogFile, AChildHasNoneOfTheRecordsThatWaitAndWritesItsOwn) {
  if (kThreadSanitizer)
    GTEST_SKIP() << "no threads in the child of a process that had some";
  if (kAddressSanitizer)
    GTEST_SKIP() << "its heap may stay locked in the child, where no thread can start then";
  RegisteredFile file(Background().queueBytes);
  const std::jthread load = repeating([] { VarnLogRecord(9) << "rejected"; });
  for (int i = 0; i < 50; ++i) {
    VarnLogRecord(5) << "parent " << i;
    expectInChild([&] {
      leaksCanBeFound = false;
      VarnLogRecord(5) << "child " << i;
    });
  }
  file.log.flush();
  expectOnce(file, 100);
}

// What the child opens gets the number of a file that its log believes to have.
TEST(VarnLogFile, AChildOfAForkDuringAReopenHasTheOldFileOrTheNew) {
  constexpr std::size_t kChildren = 200;
  RegisteredFile file;
  const std::string data = file.folder / "data";
  {
    const std::jthread reopening = repeating([&] { file.log.reopen(); });
    for (std::size_t i = 0; i < kChildren; ++i) {
      expectInBareChild([&] {
        const int own = open(data.c_str(), O_WRONLY | O_CREAT, 0600);
        VarnLogRecord(5) << "child";
        EXPECT_GE(own, 0);
        EXPECT_EQ(0U, file.log.lostRecords()) << file.log.lastError();
      });
    }
  }
  EXPECT_EQ("", contentsOf(data));
  EXPECT_EQ(Lines(kChildren, "child"), file.texts());
}

TEST(VarnLogFile, AThreadThatIsKilledWhileItWritesLeavesWholeRecords) {
  for (const std::size_t queueBytes : {0, 4096}) {
    RegisteredFile file(queueBytes);
    for (int i = 0; i < 20; ++i) {
      std::atomic<int> turns{0};
      Task task([&]() -> int {
        while (true) {
          VarnLogRecord(turns % 2 + 1) << "whole";
          ++turns;
        }
      });
      task.start();
      EXPECT_TRUE(eventually([&] { return turns > 10; }));
      killAndJoin(task);
      EXPECT_TRUE(file.log.reopen());
    }
    file.log.flush();
    for (const std::string& text : file.texts())
      EXPECT_TRUE(text == "whole" || contains(text, "records lost")) << text;
  }
}

TEST(VarnLogFile, MayEndWhileOthersLogAndItsIdleTimeExpires) {
  const std::jthread load = repeating([] { VarnLogRecord(5) << "record"; });
  const std::jthread urgent = repeating([] { VarnLogRecord(1) << "record"; });
  for (int i = 0; i < 100; ++i) {
    RegisteredFile file(static_cast<std::size_t>(i % 2) * 4096);
    EXPECT_TRUE(eventually([&] { return !file.texts().empty(); }));
    VarnCollaborator expiry;
    file.log.handleNotification(expiry, VarnNotification());
  }
  EXPECT_EQ(nullptr, VarnLogging::getInstance());
}
