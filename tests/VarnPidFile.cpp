#include "VarnSupport/VarnPidFile.h"

#include <fcntl.h>
#include <sys/stat.h>

#include "LibraryTools.h"
#include "VarnSupport/VarnProcess.h"
#include "VarnSupport/VarnService.h"

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

class Service : public VarnService {
 public:
  explicit Service(std::function<bool()> hook)
      : VarnService("", "named", "", "", false), m_oHook(std::move(hook)) {}

 protected:
  bool onStart(const std::string&) override { return m_oHook(); }
  void onStop() override {}

 private:
  std::function<bool()> m_oHook;
};

void stop(pid_t process) {
  kill(process, SIGTERM);
  EXPECT_TRUE(eventually([&] { return isGone(process); }));
}

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
  EXPECT_EQ(0, runInBareChild([&] {
              close(STDIN_FILENO);
              const VarnPidFile file(path);
              return fcntl(STDIN_FILENO, F_GETFD) == -1 ? 0 : 1;  // left to whoever opens next
            }));
  EXPECT_EQ(0, entriesIn(folder.path()));
  std::filesystem::current_path(folder.path());
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
  std::filesystem::create_directory(path("folder"));
  for (const std::string text : {"port=80\n", "0\n", "-1\n", "1\n2\n", "99999999999\n", "\n"})
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
  EXPECT_EQ("1\n", contentsOf(path("target")));
  EXPECT_EQ("port=80\n", contentsOf(path("other8")));
  EXPECT_FALSE(std::filesystem::exists(path("none")));
}

TEST(VarnPidFile, IsRemovedOnlyWhileItIsStillTheOneThatWasMade) {
  const TempFolder folder;
  const std::string path = folder / "x.pid";
  auto first = std::make_unique<VarnPidFile>(path);
  std::filesystem::remove(path);
  const VarnPidFile second(path);
  first.reset();
  EXPECT_EQ(own(), contentsOf(path));
}

// Ten pairs at once, each for a path of its own; 'A' tells that one of the first pair has it, 'a'
// that one is refused.
TEST(VarnPidFile, OfTwoThatRaceForItOneHasIt) {
  constexpr int kPairs = 10;
  const TempFolder folder;
  const auto path = [&](int pair) { return folder / std::to_string(pair); };
  for (int round = 0; round < 10; ++round) {
    int go[2];
    int results[2];
    int done[2];
    ASSERT_EQ(0, pipe(go) | pipe(results) | pipe(done));
    std::vector<pid_t> processes;
    for (int i = 0; i < 2 * kPairs; ++i) {
      const int pair = i / 2;
      if (i % 4 == 0)
        writeFile(path(pair), "2147483647\n");
      processes.push_back(startBareChild([&] {
        close(go[1]);
        close(done[1]);
        char byte = 0;
        const auto await = [&](int descriptor) { return read(descriptor, &byte, 1) == 0; };
        const auto tell = [&](int result) {
          return write(results[1], &(byte = static_cast<char>(result)), 1);
        };
        await(go[0]);
        try {
          const VarnPidFile file(path(pair));
          tell(contentsOf(path(pair)) == own() ? 'A' + pair : '?');
          await(done[0]);
        } catch (const VarnStartRefused& refusal) {
          tell(refusal.getCode() > 0 && refusal.getCode() != INT_MAX ? 'a' + pair : '!');
        }
        return 0;
      }));
    }
    close(go[0]);
    close(go[1]);
    std::string told;
    for (char result = 0; told.size() < processes.size() && read(results[0], &result, 1) == 1;)
      told += result;
    std::sort(told.begin(), told.end());
    EXPECT_EQ("ABCDEFGHIJabcdefghij", told);
    for (const int descriptor : {results[0], results[1], done[0], done[1]})
      close(descriptor);
    for (const pid_t process : processes)
      EXPECT_EQ(0, outcomeOf(process));
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
  EXPECT_EQ(0, runInBareChild([&] {
              file.reset();
              return contentsOf(path) == std::to_string(getppid()) + '\n' ? 0 : 1;
            }));
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
        Service service([&] {
          if (file == nullptr)
            file = std::make_unique<VarnPidFile>(path);
          return contentsOf(path) == own() && VarnDetachStreams();
        });
        return service.start("", asDaemon) ? 0 : 1;
      });
    };
    EXPECT_EQ(0, start(folder / "first", true));
    const std::string daemon = contentsOf(path).substr(0, contentsOf(path).find('\n'));
    for (const bool asDaemon : {true, false}) {
      EXPECT_EQ(1, start(folder / "second", asDaemon));
      std::string text = "named: ";
      text += path;
      text += " is held by process ";
      text += daemon;
      EXPECT_EQ(std::vector<std::string>{text}, linesOf(folder / "second"));
    }
    kill(std::stoi(daemon), SIGKILL);
    EXPECT_TRUE(eventually([&] { return attempt(path, std::stoi(daemon)) == "held"; }));
    writeFile(path, daemon);
    EXPECT_EQ(0, start(folder / "first", true));
    stop(std::stoi(contentsOf(path)));
    EXPECT_FALSE(std::filesystem::exists(path));
    EXPECT_EQ("", contentsOf(folder / "first"));
  }
}

TEST(VarnDetachStreams, LeavesNothingOfTheStarter) {
  const TempFolder folder;
  EXPECT_EQ(0, runInChild([&] {
              const int output = open((folder / "output").c_str(), O_WRONLY | O_CREAT, 0600);
              dup2(output, STDOUT_FILENO);
              close(output);
              close(STDIN_FILENO);
              const int descriptors = entriesIn("/proc/self/fd");
              std::printf("buffered");
              if (!VarnDetachStreams(027) || umask(0) != 027 ||
                  entriesIn("/proc/self/fd") != descriptors + 1)
                return 1;
              std::printf("lost");
              for (const std::string stream : {"0", "1", "2"}) {
                if (std::filesystem::read_symlink("/proc/self/fd/" + stream) != "/dev/null" ||
                    fcntl(std::stoi(stream), F_GETFD) != 0)
                  return 2;
              }
              return 0;
            }));
  EXPECT_EQ("buffered", contentsOf(folder / "output"));
}
