#include "VarnSupport/VarnCommand.h"

#include <dlfcn.h>

#include <cerrno>

#include "LibraryTools.h"

namespace {

using Result = VarnCommand::Result;
using std::chrono::milliseconds;

constexpr milliseconds kSoon = 200ms;
constexpr milliseconds kLong = 1min;
// Ignores SIGTERM, and says when it does.
const std::string kStubborn = "trap '' TERM; echo ready; while :; do sleep 1; done";

std::atomic<bool> hasHandles{true};

VarnCommand shell(const std::string& script) { return VarnCommand({"/bin/sh", "-c", script}); }

Result resultOfScript(const std::string& script) { return shell(script).run(); }

// Whether this process has children, ended ones included.
bool hasChildren() { return waitpid(-1, nullptr, WNOHANG) != -1 || errno != ECHILD; }

int descriptors() { return entriesIn("/proc/self/fd"); }
// The code of the exception that `call` throws, else 0.
template <typename Call>
int errorOf(Call call) {
  try {
    call();
    return 0;
  } catch (const VarnException& refusal) {
    return refusal.getCode();
  }
}

pid_t numberIn(const std::string& file) { return std::atoi(contentsOf(file).c_str()); }

// Whether the thread of all commands runs.
bool isThreadThere() {
  const fs::directory_iterator tasks("/proc/self/task");
  return std::any_of(begin(tasks), end(tasks), [](const auto& task) {
    return contentsOf(task.path() / "comm") == "vsupt-commands\n";
  });
}

// What is left of a command that this constructs, and that has been dealt with when it goes.
class NothingIsLeft {
 public:
  ~NothingIsLeft() {
    EXPECT_TRUE(eventually([] { return !isThreadThere(); }));
    EXPECT_EQ(m_nDescriptors, descriptors());
    EXPECT_FALSE(hasChildren());
  }

 private:
  const int m_nDescriptors = descriptors();
};

}  // namespace

extern "C" int pidfd_open(pid_t process, unsigned flags) noexcept {
  static const auto systems =
      reinterpret_cast<int (*)(pid_t, unsigned)>(dlsym(RTLD_NEXT, "pidfd_open"));
  if (hasHandles)
    return systems(process, flags);
  errno = ENOSYS;
  return -1;
}

TEST(VarnCommand, TellsWhatBecameOfTheProgram) {
  const NothingIsLeft atTheEnd;
  for (const bool handles : {true, false}) {
    hasHandles = handles;
    const std::tuple<const char*, VarnCommand::tOutcome, int, int, const char*> cases[] = {
        {"exit 0", VarnCommand::EXITED, 0, 0, "exited with 0"},
        {"exit 3", VarnCommand::EXITED, 3, 0, "exited with 3"},
        {"kill -KILL $$", VarnCommand::SIGNALLED, -1, 9, "was ended by signal 9 (Killed)"}};
    for (const auto& [script, outcome, code, signal, text] : cases) {
      const Result result = resultOfScript(script);
      EXPECT_EQ(outcome, result.getOutcome());
      EXPECT_EQ(code, result.getExitCode());
      EXPECT_EQ(code == 0, result.succeeded());
      EXPECT_EQ(signal, result.getSignal());
      EXPECT_EQ(text, result.getText());
    }
  }
  hasHandles = true;
  EXPECT_EQ("was never started", shell("").wait().getText());
}

TEST(VarnCommand, TellsWhyItCouldNotStart) {
  const NothingIsLeft atTheEnd;
  const TempFolder folder;
  const std::string nul("a\0b", 3);
  writeFile(folder / "text", "echo");
  chmod((folder / "text").c_str(), 0755);
  writeFile(folder / "script", "#!/no/such/interpreter\n");
  chmod((folder / "script").c_str(), 0755);
  writeFile(folder / "data", "");
  const std::tuple<std::vector<std::string>, int, std::string> cases[] = {
      {{"no-such-program"}, ENOENT, "no-such-program: No such file or directory"},
      {{""}, ENOENT, ": No such file or directory"},
      {{"data"}, EACCES, "data: Permission denied"},
      {{folder.path()}, EACCES, folder.path() + ": Permission denied"},
      {{"text"}, ENOEXEC, folder / "text: Exec format error"},
      {{"script"}, ENOENT, folder / "script: No such file or directory"},
      {{"true", nul}, EINVAL, "arguments: Invalid argument"},
      {{}, EINVAL, "arguments: Invalid argument"},
      {{"true", std::string(1 << 20, 'x')}, E2BIG, "/bin/true: Argument list too long"}};
  for (const auto& [arguments, error, text] : cases) {
    VarnCommand command(arguments);
    command.setVariable("PATH", folder.path() + ":/nowhere:/bin");
    const Result result = command.run();
    EXPECT_EQ(VarnCommand::NOT_STARTED, result.getOutcome());
    EXPECT_EQ(error, result.getError()) << text;
    EXPECT_EQ("could not be started: " + text, result.getText());
    std::string told;
    command.start([&](const Result& again) { told = again.getText(); });
    EXPECT_EQ(result.getText(), command.wait().getText());
    EXPECT_EQ(result.getText(), told);
  }
  for (const auto& [path, error] :
       {std::pair(folder / "none", ENOENT), {folder / "data", ENOTDIR}, {nul, EINVAL}}) {
    VarnCommand command({"true"});
    command.setFolder(path);
    EXPECT_EQ(error, command.run().getError());
  }
  for (const auto& [name, value] :
       {std::pair<std::string, std::string>("", "x"), {"a=b", "x"}, {"a", nul}}) {
    VarnCommand command({"true"});
    command.setVariable(name, value);
    EXPECT_EQ(EINVAL, command.run().getError());
  }
}

TEST(VarnCommand, GivesTheProgramWhatItIsTold) {
  const TempFolder folder;
  writeFile(folder / "tool", "#!/bin/sh\npwd; env; printf '<%s>' \"$@\"; cat; echo error >&2\n");
  chmod((folder / "tool").c_str(), 0755);
  VarnCommand command({"tool", "two words", "$HOME;'*", ""});
  command.setEnvironment({{"PATH", ":/bin:/usr/bin"}, {"A", "b=c"}});
  command.setFolder(folder.path());
  command.setInput("input");
  const Result result = command.run();
  const std::string output = result.getOutput();
  EXPECT_EQ(0U, output.find(folder.path() + '\n')) << result.getText() << result.getErrors();
  for (const char* const part :
       {"\nA=b=c\n", "\nPATH=:/bin:/usr/bin\n", "<two words><$HOME;'*><>input"})
    EXPECT_TRUE(contains(output, part)) << output;
  EXPECT_FALSE(contains(output, "HOME="));
  EXPECT_EQ("error\n", result.getErrors());

  setenv("VSUPT_KEPT", "kept", 1);
  command = shell("echo $VSUPT_KEPT $VSUPT_NEW; cat; echo second >&2; echo third");
  command.setVariable("VSUPT_NEW", "new");
  command.setErrors(VarnCommand::WITH_OUTPUT);
  EXPECT_EQ("kept new\nsecond\nthird\n", command.run().getOutput());
  command.unsetVariable("VSUPT_KEPT");
  EXPECT_EQ("new\nsecond\nthird\n", command.run().getOutput());
  command.setOutput(VarnCommand::DROPPED);
  EXPECT_EQ("", command.run().getOutput());
}

TEST(VarnCommand, ProgramsHaveThreeStreamsTheCallersMaskAndDefaultSignals) {
  expectInChild([] {
    dup2(STDERR_FILENO, 99);
    signal(SIGHUP, SIG_IGN);
    signal(SIGTERM, [](int) {});
    signal(SIGPIPE, SIG_IGN);
    sigset_t mask;
    sigemptyset(&mask);
    sigaddset(&mask, SIGWINCH);
    pthread_sigmask(SIG_SETMASK, &mask, nullptr);
    // The platform lets its programs ignore two signals that only it uses.
    VarnCommand grep(
        {"grep", "-cE", "^SigBlk:\t0{8}08000000|^SigIgn:.*[08]0000001$", "/proc/self/status"});
    EXPECT_EQ("2\n", grep.run().getOutput());
    // One that is started in a `done` has them, too.
    VarnCommand first = shell("");
    first.start([&](const Result&) { grep.start(); });
    first.wait();
    EXPECT_EQ("2\n", grep.wait().getOutput());
    EXPECT_EQ("0\n1\n2\n3\n", VarnCommand({"ls", "/proc/self/fd"}).run().getOutput());
  });
}

TEST(VarnCommand, ClosedStreamsOfTheCallerHarmNobody) {
  expectInBareChild([] {
    for (int stream = 0; stream <= 2; ++stream)
      close(stream);
    VarnCommand command = shell("cat; echo out; echo err >&2");
    command.setInput("in\n");
    const Result result = command.run();
    EXPECT_EQ("in\nout\n", result.getOutput());
    EXPECT_EQ("err\n", result.getErrors());
    VarnCommand inheriting = shell("ls -l /proc/self/fd | grep -c /dev/null >/dev/full");
    inheriting.inheritInput();
    inheriting.setOutput(VarnCommand::INHERITED);
    inheriting.setErrors(VarnCommand::INHERITED);
    EXPECT_EQ(VarnCommand::EXITED, inheriting.run().getOutcome());
    EXPECT_TRUE(resultOfScript("test ! -t 0").succeeded());
    EXPECT_EQ(-1, fcntl(0, F_GETFD));
    EXPECT_EQ(-1, fcntl(1, F_GETFD));
  });
}

TEST(VarnCommand, CapturesUpToTheLimitAndDropsTheRestWithoutBlocking) {
  VarnCommand command = shell("head -c 3000000 /dev/zero; head -c 10 /dev/zero >&2");
  command.setOutput(VarnCommand::CAPTURED, 70000);
  command.setErrors(VarnCommand::CAPTURED, 10);
  const Result result = command.run();
  EXPECT_TRUE(result.succeeded());
  EXPECT_EQ(70000U, result.getOutput().size());
  EXPECT_EQ(3000000U - 70000U, result.getDroppedOutput());
  EXPECT_EQ(std::string(10, '\0'), result.getErrors());
  EXPECT_EQ(0U, result.getDroppedErrors());
}

TEST(VarnCommand, InputThatNobodyReadsIsNoTrouble) {
  const std::string input(5000000, 'x');
  VarnCommand command = shell("exec true");
  command.setInput(input);
  EXPECT_TRUE(command.run().succeeded());
  command = VarnCommand({"wc", "-c"});
  command.setInput(input);
  EXPECT_EQ("5000000\n", command.run().getOutput());
  expectInBareChild([&] {
    const rlimit small{1000, RLIM_INFINITY};
    setrlimit(RLIMIT_FSIZE, &small);
    EXPECT_EQ(EFBIG, command.run().getError());
  });
}

TEST(VarnCommand, TheTimeLimitEndsTheWholeGroup) {
  const NothingIsLeft atTheEnd;
  for (const bool handles : {true, false}) {
    hasHandles = handles;
    const TempFolder folder;
    const std::string tell = "echo $! >" + (folder / "id") + "; ";
    const std::tuple<std::string, milliseconds, int> cases[] = {
        {"sleep 60 & " + tell + "wait", kLong, SIGTERM},
        {"(" + kStubborn + ") & " + tell + "wait", kSoon, SIGTERM},
        {"sleep 60 & " + tell + kStubborn, kSoon, SIGKILL},
        {kStubborn + " & " + tell + kStubborn, milliseconds(0), SIGKILL},
        {"sleep 60 & " + tell + "kill -STOP $$", kLong, SIGTERM}};
    for (const auto& [script, grace, signal] : cases) {
      VarnCommand command = shell(script);
      command.setTimeLimit(kSoon, grace);
      const auto begin = Clock::now();
      const Result result = command.run();
      EXPECT_LE(kSoon, Clock::now() - begin);
      EXPECT_TRUE(result.isTimedOut());
      EXPECT_FALSE(result.isKilled());
      EXPECT_EQ(signal, result.getSignal()) << script;
      EXPECT_TRUE(eventually([&] { return isGone(numberIn(folder / "id")); })) << script;
    }
  }
  hasHandles = true;
  VarnCommand quick = shell("exit 7");
  quick.setTimeLimit(milliseconds::max(), milliseconds::max());
  EXPECT_EQ("exited with 7", quick.run().getText());
  VarnCommand graceful =
      shell("trap 'echo bye; exit 5' TERM; echo ready; while :; do sleep 0.1; done");
  graceful.setTimeLimit(kSoon, kLong);
  const Result result = graceful.run();
  EXPECT_EQ("exited with 5, as its time was over", result.getText());
  EXPECT_EQ("ready\nbye\n", result.getOutput());
}

TEST(VarnCommand, NeitherWaitsForWhoHoldsAnOutputNorEndsWithItsOutputs) {
  const TempFolder folder;
  const Result left = resultOfScript("sleep 60 & echo $!");
  EXPECT_EQ("exited with 0", left.getText());
  const pid_t sleeper = std::atoi(left.getOutput().c_str());
  EXPECT_FALSE(isGone(sleeper));
  kill(sleeper, SIGKILL);
  const Result closed =
      resultOfScript("exec >&- 2>&-; sleep 0.2; echo >" + (folder / "late") + "; exit 4");
  EXPECT_EQ(4, closed.getExitCode());
  EXPECT_TRUE(fs::exists(folder / "late"));
}

TEST(VarnCommand, ThousandCommandsFiftyAtATimeLeaveNothing) {
  constexpr int kCommands = kInstrumented ? 300 : 1000;
  const NothingIsLeft atTheEnd;
  std::atomic<int> started{50};
  std::atomic<int> right{0};
  std::vector<VarnCommand> commands;
  for (int i = 0; i < 50; ++i)
    commands.push_back(VarnCommand({"echo", std::to_string(i)}));
  // Each end starts the command anew.
  const std::function<void(std::size_t)> start = [&](std::size_t i) {
    commands[i].start([&, i](const Result& result) {
      right += result.succeeded() && result.getOutput() == std::to_string(i) + '\n' ? 1 : 0;
      if (started++ < kCommands)
        start(i);
    });
  };
  for (std::size_t i = 0; i < 50; ++i)
    start(i);
  EXPECT_TRUE(eventually([&] { return right == kCommands; }));
}

TEST(VarnCommand, KillEndsARunOfAnotherThread) {
  const NothingIsLeft atTheEnd;
  VarnCommand command = shell(kStubborn);
  command.setTimeLimit(0ms, kSoon);
  const std::jthread killer([&] {
    EXPECT_TRUE(eventually([&] { return command.isRunning(); }));
    EXPECT_EQ(0, kill(command.getProcessId(), 0));
    command.kill();
  });
  const Result result = command.run();
  EXPECT_TRUE(result.isKilled());
  EXPECT_FALSE(result.isTimedOut());
  EXPECT_EQ(-1, command.getProcessId());
}

TEST(VarnCommand, AnEventOrTheStopOfTheThreadEndsARunAndLetsNoneBegin) {
  const NothingIsLeft atTheEnd;
  VarnLatchedEvent stop;
  EXPECT_TRUE(shell("exit 0").run(stop).succeeded());
  VarnCommand sleeping = shell("exec sleep 60");
  {
    VarnFunctionThread runner("runner", [&](VarnFunctionThread& thread) {
      EXPECT_TRUE(sleeping.run(thread.stopEvent()).isKilled());
      const Result late = sleeping.run(stop);
      EXPECT_EQ(VarnCommand::NOT_STARTED, late.getOutcome());
      EXPECT_EQ(ECANCELED, late.getError());
    });
    EXPECT_TRUE(eventually([&] { return sleeping.isRunning(); }));
    EXPECT_EQ(EBUSY, errorOf([&] { sleeping.run(stop); }));
    EXPECT_TRUE(sleeping.isRunning());
  }
  const std::jthread setter([&] {
    EXPECT_TRUE(eventually([&] { return sleeping.isRunning(); }));
    pthread_cancel(pthread_self());  // which waits for a cancellation point
    stop.set();
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
  });
  EXPECT_TRUE(sleeping.run(stop).isKilled());
  EXPECT_EQ("could not be started: /bin/sh: Operation canceled", sleeping.run(stop).getText());
  // Where it is the thread of all commands that runs one.
  stop.reset();
  VarnCommand outer = shell("exit 0");
  outer.start([&](const Result&) {
    const std::jthread later([&] { stop.set(); });
    EXPECT_FALSE(sleeping.run(stop).succeeded());
  });
  outer.wait();
}

TEST(VarnCommand, ADestroyedCommandEndsItsProgramAndWaitsForDone) {
  const NothingIsLeft atTheEnd;
  std::atomic<int> calls{0};
  std::string texts;
  {
    std::vector<VarnCommand> commands;
    for (int i = 0; i < 3; ++i) {
      commands.push_back(shell("exec sleep 60"));
      commands.back().start([&](const Result& result) {
        sleepMs(20);
        texts += result.getText() + '\n';
        ++calls;
      });
    }
    EXPECT_EQ(EBUSY, errorOf([&] { commands[0].start(); }));
    EXPECT_EQ(EBUSY, errorOf([&] { commands[1].run(); }));
    commands[1] = shell("");
    EXPECT_EQ(1, calls);
  }
  EXPECT_EQ(3, calls);
  const std::string killed = "was ended by signal 15 (Terminated), as it was killed\n";
  EXPECT_EQ(killed + killed + killed, texts);
}

TEST(VarnCommand, WhatAFailingDoneHoldsIsGoneBeforeTheCommand) {
  const NothingIsLeft atTheEnd;
  std::atomic<bool> isOver{false};
  std::shared_ptr<int> held(new int(0), [&](const int* number) {
    sleepMs(20);
    EXPECT_FALSE(isOver);
    delete number;
  });
  {
    VarnCommand command = shell("");
    command.start([held = std::move(held)](const Result&) { throw 1; });
  }
  isOver = true;
}

TEST(VarnCommand, DoneMayDoEverything) {
  const NothingIsLeft atTheEnd;
  const FileLog log(1);
  std::atomic<int> steps{0};
  auto self = std::make_shared<VarnCommand>(Lines{"true"});
  auto other = std::make_unique<VarnCommand>(shell("exec sleep 60"));
  other->start([&](const Result& result) { steps += result.isKilled() ? 1 : 0; });
  self->start([&, self](const Result&) {
    steps += self->wait().succeeded() ? 1 : 0;  // its own end
    steps += shell("exit 3").run().getExitCode() == 3 ? 1 : 0;
    self->start([&, self](const Result&) {
      other.reset();
      steps += 1;  // the last owner of the command goes with this function
      throw std::runtime_error("dropped");
    });
  });
  self.reset();
  EXPECT_TRUE(eventually([&] { return steps == 4; }));
  EXPECT_TRUE(eventually([&] { return log.texts().size() == 1; }));

  VarnCommand restarting({"true"});
  std::atomic<bool> refused{false};
  {
    VarnCommand closing({"true"});
    std::atomic<bool> isCalled{false};
    closing.start([&](const Result&) {
      isCalled = true;
      sleepMs(50);
      refused = errorOf([&] { closing.start(); }) == ECANCELED;
    });
    EXPECT_TRUE(eventually([&] { return isCalled.load(); }));
  }
  EXPECT_TRUE(refused);
  restarting.start([](const Result&) { pthread_exit(nullptr); });
  restarting.wait();
  restarting.start();
  EXPECT_TRUE(restarting.wait().succeeded());
}

TEST(VarnCommand, AKilledThreadKillsWhatItRuns) {
  const NothingIsLeft atTheEnd;
  VarnCommand command = shell("exec sleep 60");
  VarnLatchedEvent never;
  for (const bool stoppable : {false, true}) {
    Task runner([&] { stoppable ? command.run(never) : command.run(); });
    runner.start();
    EXPECT_TRUE(eventually([&] { return command.isRunning(); }));
    const pid_t process = command.getProcessId();
    killAndJoin(*startTask([&] { command.wait(); }));
    EXPECT_TRUE(command.isRunning());
    killAndJoin(runner);
    EXPECT_TRUE(isGone(process));
    EXPECT_TRUE(command.wait().isKilled());
  }
}

TEST(VarnCommand, AStatusThatOthersHaveTakenIsUnknown) {
  for (const bool handles : {true, false}) {
    expectInBareChild([&] {
      hasHandles = handles;
      signal(SIGCHLD, SIG_IGN);
      const Result result = resultOfScript("echo out; exit 3");
      EXPECT_EQ(VarnCommand::UNKNOWN, result.getOutcome());
      EXPECT_EQ("out\n", result.getOutput());
      VarnCommand stubborn = shell("sleep 60 & echo $!; " + kStubborn);
      stubborn.setTimeLimit(kSoon, kSoon);
      const Result killed = stubborn.run();
      EXPECT_TRUE(killed.isTimedOut());
      EXPECT_TRUE(eventually([&] { return isGone(std::stoi(killed.getOutput())); }));
    });
  }
}

TEST(VarnCommand, AShortageOfDescriptorsIsAResultOrAnError) {
  if (kAddressSanitizer)
    GTEST_SKIP() << "the sanitizer itself needs descriptors";
  expectInBareChild([] {
    const int first = descriptors() - 1;
    int works = 0;
    for (int spare = 0; spare < 10; ++spare) {
      const rlimit limit{static_cast<rlim_t>(first + spare), 4096};
      setrlimit(RLIMIT_NOFILE, &limit);
      VarnCommand command({"true"});
      const Result result = command.run();
      works += result.succeeded() ? 1 : 0;
      EXPECT_TRUE(result.succeeded() || result.getError() == EMFILE);
      const int error = errorOf([&] { command.start(); });
      EXPECT_TRUE(error == EMFILE || command.wait().succeeded() ||
                  command.wait().getError() == EMFILE);
    }
    EXPECT_LT(1, works);
  });
}

TEST(VarnCommand, AChildOfAForkHasNone) {
  VarnCommand command = shell("exec sleep 60");
  std::atomic<int> calls{0};
  command.start([&](const Result&) { ++calls; });
  const int before = descriptors();
  expectInBareChild([&] {
    EXPECT_FALSE(command.isRunning());
    EXPECT_EQ(-1, command.getProcessId());
    EXPECT_EQ(before - 4, descriptors());
    command.kill();
    command = shell("exit 3");
    command.start([&](const Result& result) { calls += result.getExitCode(); });
    command.wait();
    EXPECT_EQ(3, calls);
  });
  EXPECT_TRUE(command.isRunning());
  EXPECT_EQ(0, calls);
}

TEST(VarnCommand, ExitEndsCommandsThatStaticObjectsOwn) {
  const TempFolder folder;
  const auto begin = Clock::now();
  EXPECT_EQ(5, runInChild([&] {
              static VarnCommand command = shell("echo $$ >" + (folder / "id") + "; " + kStubborn);
              static VarnCommand other = shell("exec sleep 60");
              command.start();
              other.start([&](const Result&) { sleepMs(60000); });
              eventually([&] { return numberIn(folder / "id") != 0; });
              VarnCommand({"true"}).run();
              return 5;
            }));
  EXPECT_GT(kGenerous, Clock::now() - begin);
  EXPECT_TRUE(eventually([&] { return isGone(numberIn(folder / "id")); }));
}
