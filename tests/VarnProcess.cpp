#include <dlfcn.h>

#include <cerrno>

#include "LibraryTools.h"
#include "VarnSupport/VarnProcess.h"

namespace {

std::atomic<bool> failForks{false};
constexpr int kErrorWithoutText = -77;

// The exit status that a waiting caller gets.
int statusOf(const std::string& commandLine) {
  int status = 99;
  int process = 98;
  EXPECT_TRUE(VarnExecuteProgram(commandLine, true, &process, &status));
  EXPECT_EQ(98, process);
  return status;
}

// What `script` writes to its standard output.
std::string outputOf(const std::string& script, int stdinHandle = -1) {
  const TempFolder folder;
  const int out = open((folder / "out").c_str(), O_CREAT | O_RDWR | O_CLOEXEC, 0600);
  const std::string command = "/bin/sh -c \"" + script + '"';
  EXPECT_TRUE(VarnExecuteProgramEx(command, stdinHandle, out, true, nullptr, nullptr));
  close(out);
  return contentsOf(folder / "out");
}

}  // namespace

// A function that returns twice cannot stand in front of the system's, but fork() can replace it.
extern "C" pid_t vfork() noexcept {
  if (!failForks)
    return fork();
  errno = EAGAIN;
  return -1;
}

extern "C" char* strerror(int number) noexcept {
  static const auto systems = reinterpret_cast<char* (*)(int)>(dlsym(RTLD_NEXT, "strerror"));
  static char blank[] = " \r\n";
  return number == kErrorWithoutText ? blank : systems(number);
}

TEST(VarnProcess, CreatesFoldersWithAllTheirParents) {
  const TempFolder top;
  writeFile(top / "file", "");
  const std::tuple<const char*, bool, const char*> cases[] = {{"a", true, "a"},
                                                              {"b/c/d/", true, "b/c/d"},
                                                              {"one\\name", true, "one\\name"},
                                                              {"gone/p\\q", true, "gone/p/q"},
                                                              {"file", true, "a"},
                                                              {"file/x", false, "a"},
                                                              {"new/p/../q", true, "new/q"}};
  for (const auto& [path, made, folder] : cases) {
    EXPECT_EQ(made, VarnCreateDirectory(top / path)) << path;
    EXPECT_TRUE(fs::is_directory(top / folder)) << folder;
  }
  const FileLog log(9);
  EXPECT_FALSE(VarnCreateDirectory(top / "none/../file/x/y"));
  EXPECT_FALSE(VarnCreateDirectory(top / "file/x"));
  EXPECT_FALSE(VarnCreateDirectory(""));
  EXPECT_EQ((Lines{"VarnCreateDirectory: " + (top / "none/../file/x/y"),
                   "VarnCreateDirectory: couldn't create " + (top / "none/../file/x") + " (20)",
                   "VarnCreateDirectory: " + (top / "file/x"),
                   "VarnCreateDirectory: couldn't create " + (top / "file/x") + " (20)",
                   "VarnCreateDirectory: ", "VarnCreateDirectory: couldn't create  (2)"}),
            log.texts());
}

TEST(VarnProcess, RemovesFolders) {
  const TempFolder top;
  fs::current_path(top.path());
  for (const std::string name : {"'quotes' \"and\" blanks; $(touch x)", "-v"}) {
    VarnCreateDirectory(name + "/below");
    std::string text = "text";
    int code = 7;
    EXPECT_FALSE(VarnRemoveDirectoryImpl(name, false, text, code));
    EXPECT_EQ("VarnRemoveDirectory: Could not remove the directory " + name, text);
    EXPECT_EQ(ENOTEMPTY, code);
    EXPECT_TRUE(VarnRemoveDirectoryImpl(name, true, text, code));
    EXPECT_EQ(0, code);
    EXPECT_FALSE(fs::exists(name));
  }
  std::string text;
  int code = 0;
  VarnCreateDirectory("a/b");
  EXPECT_FALSE(VarnRemoveDirectoryImpl("a/b/..", true, text, code));  // rm never removes that
  EXPECT_EQ("VarnRemoveDirectory: Could not remove the directory a/b/..", text);
  EXPECT_EQ(1, code);
}

TEST(VarnProcess, AFailedForkIsNotWaitedFor) {
  const TempFolder top;
  VarnCreateDirectory(top / "a/b");
  const pid_t other = startChild([] { return 5; });
  const FileLog log(1);
  failForks = true;
  std::string text;
  int number = 7;
  EXPECT_TRUE(VarnRemoveDirectoryImpl(top / "a", true, text, number));
  EXPECT_FALSE(VarnExecuteProgram("/bin/true", true, nullptr, &number));
  failForks = false;
  EXPECT_EQ(-1, number);
  EXPECT_EQ(5, outcomeOf(other));
  EXPECT_EQ(Lines{"VarnExecuteProgram: could not fork child process."}, log.texts());
}

TEST(VarnProcess, ExpandsReferencesToTheEnvironment) {
  setenv("VSUPT_A", "<VSUPT_B>!", 1);
  setenv("VSUPT_B", "b", 1);
  EXPECT_EQ("", VarnGetEnvironmentVariable("VSUPT_C"));
  EXPECT_EQ("<VSUPT_B>!", VarnGetEnvironmentVariable("VSUPT_A"));
  EXPECT_EQ("xb!y", VarnExpandString("x<VSUPT_A>y<VSUPT_C>"));
  EXPECT_EQ("x>b<VSUPT_A", VarnExpandString("x><VSUPT_B><VSUPT_A"));
}

TEST(VarnProcess, GivesTheSystemsErrorTexts) {
  const std::pair<int, std::string> cases[] = {
      {0, "Success"},
      {ENOENT, "No such file or directory"},
      {kErrorWithoutText, "Unrecognized error code: -77 (0xffffffb3)"}};
  for (const auto& [number, expected] : cases) {
    std::string narrow = "before";
    std::wstring wide = L"before";
    VarnGetOSErrorMessage(number, narrow);
    VarnGetOSErrorMessage(number, wide);
    EXPECT_EQ(std::pair(expected, std::wstring(expected.begin(), expected.end())),
              std::pair(narrow, wide));
  }
}

TEST(VarnProcess, GivesTheStatusOfAProgramThatItWaitedFor) {
  const std::pair<std::string, int> cases[] = {{"/bin/sh -c \"exit 3\"\n", 3},
                                               {"/bin/sh -c \"exit 33", 33},
                                               {"/bin/sh -c \"kill -9 $$\"", 0},
                                               {"/no/such/program", 0},
                                               {"false", 0},  // not searched for
                                               {"\"", 0},
                                               {"   ", 0}};
  for (const auto& [commandLine, status] : cases)
    EXPECT_EQ(status, statusOf(commandLine)) << commandLine;
}

TEST(VarnProcess, ReturnsAtOnceWithTheIdOtherwise) {
  const FileLog log(9);
  int process = 0;
  int status = 98;
  ASSERT_TRUE(VarnExecuteProgram("/bin/sh -c \"exit 4\"", false, &process, &status));
  EXPECT_EQ(98, status);
  EXPECT_EQ(4, outcomeOf(process));
  const std::string start = "VarnExecuteProgram: ";
  EXPECT_EQ(
      (Lines{start + "Execution Started.", "VarnExecuteProgramEx: Execution Started.",
             start + "child process id: " + std::to_string(process), start + "argv[0] = /bin/sh",
             start + "argv[1] = -c", start + "argv[2] = exit 4"}),
      log.texts());
}

TEST(VarnProcess, RedirectsInputThenOutput) {
  const TempFolder folder;
  const std::string file = folder / "both";
  const int both = open(file.c_str(), O_CREAT | O_RDWR | O_CLOEXEC, 0600);
  // An output handle of 0 is the new input.
  VarnExecuteProgramEx("/bin/echo hello", both, 0, true, nullptr, nullptr);
  EXPECT_EQ("hello\n", contentsOf(file));
  lseek(both, 0, SEEK_SET);
  EXPECT_EQ("hello\n", outputOf("cat", both));
  close(both);
}

TEST(VarnProcess, SaysWhichHandleCannotBeDuplicatedAndStartsNothing) {
  const TempFolder folder;
  const FileLog log(1);
  const std::string command = "/bin/touch " + (folder / "started");
  int status = 99;
  for (const auto& [in, out] : {std::pair(-2, 1), std::pair(12345, -2), std::pair(-1, 12345)}) {
    EXPECT_TRUE(VarnExecuteProgramEx(command, in, out, true, nullptr, &status));
    EXPECT_EQ(0, status);
  }
  EXPECT_FALSE(fs::exists(folder / "started"));
  const std::string text = "VarnExecuteProgram: could not duplicate requested standard ";
  EXPECT_EQ((Lines{text + "input handle: ", text + "input handle: ", text + "output handle: "}),
            log.texts());
}

TEST(VarnProcess, ProgramsGetTheCallersMaskAndNoneOfItsDescriptors) {
  const FileLog log(1);
  sigset_t mask;
  sigset_t before;
  sigemptyset(&mask);
  sigaddset(&mask, SIGHUP);
  pthread_sigmask(SIG_SETMASK, &mask, &before);
  std::string masks;
  for (const std::string& line : linesOf("/proc/self/status")) {
    if (line.rfind("SigBlk", 0) == 0 || line.rfind("SigIgn", 0) == 0)
      masks += line + '\n';
  }
  EXPECT_EQ(masks, outputOf("exec grep -E '^Sig(Blk|Ign)' /proc/self/status"));
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  EXPECT_NE(std::string::npos, masks.find("SigBlk:\t0000000000000001"));
  EXPECT_EQ("", outputOf("ls -l /proc/self/fd | grep /test[0-9]"));
}

TEST(VarnProcess, WaitingGoesOnAfterASignal) {
  struct sigaction interrupting {};
  interrupting.sa_handler = [](int) {};
  sigaction(SIGWINCH, &interrupting, nullptr);
  EXPECT_EQ(3, statusOf("/bin/sh -c \"sleep 0.1; kill -WINCH $PPID; sleep 0.1; exit 3\""));
  signal(SIGWINCH, SIG_DFL);
}

TEST(VarnProcess, AThreadThatWaitsForAProgramCanBeKilled) {
  int toProgram[2];
  int fromProgram[2];
  ASSERT_EQ(0, pipe2(toProgram, O_CLOEXEC));
  ASSERT_EQ(0, pipe2(fromProgram, O_CLOEXEC));
  Task waiter([&] {
    return VarnExecuteProgramEx("/bin/cat", toProgram[0], fromProgram[1], true, nullptr, nullptr);
  });
  waiter.start();
  char byte = 'x';
  ASSERT_EQ(1, write(toProgram[1], &byte, 1));
  ASSERT_EQ(1, read(fromProgram[0], &byte, 1));
  killAndJoin(waiter);
  close(toProgram[1]);
  EXPECT_LT(0, wait(nullptr));
}
