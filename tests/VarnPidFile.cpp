#include "VarnSupport/VarnPidFile.h"

#include "LibraryTools.h"

namespace {

// What the refusal says, or "held".
std::string attempt(const std::string& path, int code = 0) {
  try {
    const VarnPidFile file(path);
    return "held";
  } catch (const VarnStartRefused& refusal) {
    EXPECT_EQ(code, refusal.getCode());
    return refusal.getText();
  }
}

std::string own() { return std::to_string(getpid()) + '\n'; }

}  // namespace

TEST(VarnPidFile, IsHeldForItsLife) {
  const TempFolder folder;
  const std::string path = folder / "x.pid";
  {
    const VarnPidFile file(path);
    EXPECT_EQ(own(), contentsOf(path));
    EXPECT_EQ(path + " is held by process " + std::to_string(getpid()), attempt(path, getpid()));
    EXPECT_EQ(1, runInBareChild([&] { return attempt(path, getppid()) == "held" ? 0 : 1; }));
    EXPECT_EQ(own(), contentsOf(path));
  }
  expectInBareChild([&] {
    close(STDIN_FILENO);
    const VarnPidFile file(path);
    EXPECT_EQ(-1, fcntl(STDIN_FILENO, F_GETFD)) << "it is left to whoever opens next";
  });
  EXPECT_EQ(0, entriesIn(folder.path()));
  fs::current_path(folder.path());
  const VarnPidFile relative("y.pid");
  EXPECT_EQ(folder / "y.pid", relative.path());
}

TEST(VarnPidFile, TakesOverWhatADeadProcessHasLeftAndNothingElse) {
  const TempFolder folder;
  const auto path = [&](const std::string& name) { return folder / name; };
  for (const std::string text : {"", "1\n", "2147483647\n", "123"}) {
    writeFile(path("stale"), text);
    const VarnPidFile file(path("stale"));
    EXPECT_EQ(own(), contentsOf(path("stale")));
  }
  writeFile(path("target"), "1\n");
  symlink(path("target").c_str(), path("link").c_str());
  symlink(path("none").c_str(), path("dangling").c_str());
  link(path("target").c_str(), path("second").c_str());
  mkfifo(path("pipe").c_str(), 0600);
  fs::create_directory(path("folder"));
  for (const std::string text : {"port=80\n", "0\n", "-1\n", "1\n2\n", "99999999999\n"})
    writeFile(path("other" + std::to_string(text.size())), text);
  const std::string other = "contains something else than the number of a process";
  const std::pair<std::string, std::string> refused[] = {
      {"link", "is a symbolic link"},
      {"dangling", "is a symbolic link"},
      {"second", "is no plain file of one name"},
      {"pipe", "is no plain file of one name"},
      {"folder", "cannot be opened: Is a directory"},
      {"missing/x", "cannot be opened: No such file or directory"},
      {"other8", other},
      {"other2", other},
      {"other3", other},
      {"other4", other},
      {"other12", other}};
  for (const auto& [name, reason] : refused)
    EXPECT_EQ(path(name) + ' ' + reason, attempt(path(name)));
  EXPECT_EQ(path("none") + "\\x00 cannot be opened: Invalid argument",
            attempt(path("none") + '\0'));
  EXPECT_EQ("1\n", contentsOf(path("target")));
  EXPECT_EQ("port=80\n", contentsOf(path("other8")));
  EXPECT_FALSE(fs::exists(path("none")));
}

TEST(VarnPidFile, AWriteThatIsCutShortIsRefusedForItsReason) {
  const TempFolder folder;
  expectInBareChild([&] {
    const rlimit small{1, RLIM_INFINITY};
    setrlimit(RLIMIT_FSIZE, &small);  // SIGXFSZ would end the process
    EXPECT_EQ(folder / "x.pid" + " cannot be written: File too large", attempt(folder / "x.pid"));
    EXPECT_EQ(0, entriesIn(folder.path()));
  });
}

TEST(VarnPidFile, IsRemovedOnlyWhileItIsStillTheOneThatWasMade) {
  const TempFolder folder;
  const std::string path = folder / "x.pid";
  auto first = std::make_unique<VarnPidFile>(path);
  fs::remove(path);
  const VarnPidFile second(path);
  first.reset();
  EXPECT_EQ(own(), contentsOf(path));
}

// Ten pairs at once, each for a path of its own; 'A' tells that one of the first pair has it, 'a'
// that one is refused.
TEST(VarnPidFile, OfTwoThatRaceForItOneHasIt) {
  constexpr std::size_t kProcesses = 20;
  const TempFolder folder;
  for (int round = 0; round < 10; ++round) {
    const TempFolder results;
    const std::string told = results / "told";
    int go[2];
    ASSERT_EQ(0, pipe(go));
    std::vector<pid_t> processes;
    for (int i = 0; processes.size() < kProcesses; ++i) {
      const int pair = i / 2;
      const std::string path = folder / std::to_string(pair);
      if (i % 4 == 0)
        writeFile(path, "2147483647\n");
      processes.push_back(startBareChild([&] {
        const auto tell = [&](int result) {
          std::ofstream(told, std::ios::app) << static_cast<char>(result);
        };
        close(go[1]);
        char byte = 0;
        EXPECT_EQ(0, read(go[0], &byte, 1));  // until all are there
        try {
          const VarnPidFile file(path);
          tell(contentsOf(path) == own() ? 'A' + pair : '?');
          eventually([&] { return contentsOf(told).size() == kProcesses; });
        } catch (const VarnStartRefused& refusal) {
          tell(refusal.getCode() > 0 && refusal.getCode() != INT_MAX ? 'a' + pair : '!');
        }
      }));
    }
    close(go[0]);
    close(go[1]);
    for (const pid_t process : processes)
      EXPECT_EQ(0, outcomeOf(process));
    std::string all = contentsOf(told);
    std::sort(all.begin(), all.end());
    EXPECT_EQ("ABCDEFGHIJabcdefghij", all);
    EXPECT_EQ(0, entriesIn(folder.path()));
  }
}

// A worker is a child that goes on by itself, a command a program that is started.
TEST(VarnPidFile, IsFreeAfterAKillWhateverTheProcessHasStarted) {
  const TempFolder folder;
  const std::string path = folder / "x.pid";
  const pid_t process = startBareChild([&] {
    const VarnPidFile file(path);
    const pid_t worker = fork();
    if (worker == 0) {
      { const VarnPidFile own(path + "-worker"); }
      while (true)
        pause();
    }
    int command = 0;
    VarnExecuteProgram("/bin/sleep 1000", false, &command, nullptr);
    writeFile(folder / "workers", std::to_string(worker) + '\n' + std::to_string(command) + '\n');
    while (true)
      pause();
    return 0;
  });
  ASSERT_TRUE(eventually([&] { return linesOf(folder / "workers").size() == 2; }));
  EXPECT_EQ(path + " is held by process " + std::to_string(process), attempt(path, process));
  kill(process, SIGKILL);
  EXPECT_EQ(std::to_string(process) + '\n', contentsOf(path));
  EXPECT_TRUE(eventually([&] { return attempt(path, process) == "held"; }));
  EXPECT_EQ(-SIGKILL, outcomeOf(process));
  for (const std::string& worker : linesOf(folder / "workers"))
    kill(std::stoi(worker), SIGKILL);
}

TEST(VarnPidFile, TheChildOfAForkDoesNotRemoveIt) {
  const TempFolder folder;
  const std::string path = folder / "x.pid";
  auto file = std::make_unique<VarnPidFile>(path);
  expectInBareChild([&] {
    file.reset();
    EXPECT_EQ(std::to_string(getppid()) + '\n', contentsOf(path));
  });
  EXPECT_EQ(path + " is held by process " + std::to_string(getpid()), attempt(path, getpid()));
}

// Made in the start hook or before start(): either way the daemon has it when its launcher ends.
TEST(VarnPidFile, IsTheDaemonsAndRefusesASecondOneOnTheTerminal) {
  for (const bool before : {false, true}) {
    const TempFolder folder;
    const std::string path = folder / "x.pid";
    const auto start = [&](const std::string& terminal, bool asDaemon) {
      return runInChild([&] {
        const int output = open(terminal.c_str(), O_WRONLY | O_CREAT, 0600);
        dup2(output, STDERR_FILENO);
        close(output);
        std::unique_ptr<VarnPidFile> file;
        if (before && terminal == folder / "first")
          file = std::make_unique<VarnPidFile>(path);
        HookedService service;
        service.startHook = [&] {
          if (file == nullptr)
            file = std::make_unique<VarnPidFile>(path);
          return contentsOf(path) == own() && VarnDetachStreams();
        };
        return service.start("", asDaemon) ? 0 : 1;
      });
    };
    EXPECT_EQ(0, start(folder / "first", true));
    const std::string daemon = contentsOf(path).substr(0, contentsOf(path).find('\n'));
    for (const bool asDaemon : {true, false}) {
      EXPECT_EQ(1, start(folder / "second", asDaemon));
      EXPECT_EQ(std::string("named: ").append(path) + " is held by process " + daemon + '\n',
                contentsOf(folder / "second"));
    }
    kill(std::stoi(daemon), SIGKILL);
    EXPECT_TRUE(eventually([&] { return attempt(path, std::stoi(daemon)) == "held"; }));
    writeFile(path, daemon);
    EXPECT_EQ(0, start(folder / "first", true));
    terminate(std::stoi(contentsOf(path)));
    EXPECT_FALSE(fs::exists(path));
    EXPECT_EQ("", contentsOf(folder / "first"));
  }
}

TEST(VarnDetachStreams, LeavesNothingOfTheStarter) {
  const TempFolder folder;
  expectInChild([&] {
    const int output = open((folder / "output").c_str(), O_WRONLY | O_CREAT, 0600);
    dup2(output, STDOUT_FILENO);
    close(output);
    close(STDIN_FILENO);
    const int descriptors = entriesIn("/proc/self/fd");
    std::printf("buffered");
    EXPECT_TRUE(VarnDetachStreams(027));
    EXPECT_EQ(027U, umask(0));
    EXPECT_EQ(descriptors + 1, entriesIn("/proc/self/fd"));
    std::printf("lost");
    for (const std::string stream : {"0", "1", "2"}) {
      EXPECT_EQ("/dev/null", fs::read_symlink("/proc/self/fd/" + stream));
      EXPECT_EQ(0, fcntl(std::stoi(stream), F_GETFD));
    }
  });
  EXPECT_EQ("buffered", contentsOf(folder / "output"));
}

TEST(VarnDetachStreams, TellsOfAStreamThatStaysWhatItWas) {
  expectInChild([] {
    close(STDIN_FILENO);  // what /dev/null gets, and no other number is to be had
    rlimit usual{};
    getrlimit(RLIMIT_NOFILE, &usual);
    const rlimit limit{1, usual.rlim_max};
    setrlimit(RLIMIT_NOFILE, &limit);
    const bool isDetached = VarnDetachStreams(027);
    setrlimit(RLIMIT_NOFILE, &usual);
    EXPECT_FALSE(isDetached);
    EXPECT_EQ(027U, umask(0));
  });
}
