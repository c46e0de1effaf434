// The example daemon, as its users run it.
#include <sys/prctl.h>

#include <regex>

#include "TestTools.h"

namespace {

struct Outcome {
  int exitCode;
  std::string output;
};

// Runs hostwatch with what the shell makes of `arguments`, both outputs in one.
Outcome hostwatch(const std::string& arguments, const std::string& environment = "",
                  const std::string& program = VSUPT_HOSTWATCH) {
  const std::string command = environment + ' ' + program + ' ' + arguments;
  const TempFolder folder;
  const int status = std::system((command + " >" + (folder / "output") + " 2>&1").c_str());
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, contentsOf(folder / "output")};
}

// The only log file of `folder` whose name begins with "log", once it holds `text`.
std::string logWith(const TempFolder& folder, const std::string& text) {
  std::string log;
  eventually([&] {
    for (const auto& entry : std::filesystem::directory_iterator(folder.path())) {
      if (entry.path().filename().string().starts_with("log"))
        log = contentsOf(entry.path());
    }
    return contains(log, text);
  });
  return log;
}

}  // namespace

TEST(Hostwatch, WrongUseGivesOneLineAndExitCode2) {
  const TempFolder folder;
  const std::array<std::string, 3> rows[] = {
      {"probe=LoadProbe", "--bogus", "Unrecognized option: --bogus"},
      {"probe=LoadProbe", "-z", "Unrecognized option: -z"},
      {"probe=LoadProbe", "--once --log", "--log needs a value"},
      {"probe=LoadProbe", "--once -i", "option data not available for: -i"},
      {"probe=LoadProbe", "--once --interval=", "--interval needs a value"},
      {"probe=LoadProbe", "--once --interval 0", "interval=0 is not a number from 1 to 86400"},
      {"probe=LoadProbe", "--once more", "there is no use for 'more'"},
      {"probe=LoadProbe", "--daemon", "--daemon needs --log"},
      {"probe=LoadProbe", "--daemon --log /no/such/log", "cannot write a log to /no/such"},
      {"probe=LoadProbe", "--json", "--json needs --once"},
      {"probe=LoadProbe", "--once --plugin=/no/such.so", "/no/such.so"},
      {"", "--once", "names no probe"},
      {"probe=LoadProbe\nrequires={0.1-0.9}", "--once", "excludes this version"},
      {"probe=LoadProbe", "--once --config /no/such.conf", "/no/such.conf: cannot be read"},
      {"", "--check --config=/dev/null", "/dev/null: is not a regular file"}};
  for (const auto& [configuration, arguments, said] : rows) {
    writeFile(folder / "conf", configuration);
    const Outcome outcome = hostwatch("--config=" + (folder / "conf") + " " + arguments);
    EXPECT_EQ(2, outcome.exitCode) << arguments;
    EXPECT_EQ(1, std::count(outcome.output.begin(), outcome.output.end(), '\n')) << outcome.output;
    EXPECT_TRUE(contains(outcome.output, said)) << outcome.output;
  }
}

TEST(Hostwatch, OnceTellsByItsExitCodeWhetherALimitIsCrossed) {
  const TempFolder folder;
  for (const auto& [limit, exitCode] : {std::pair("1e9", 0), std::pair("-1", 1)}) {
    writeFile(folder / "conf",
              "probe=LoadProbe\nprobe=UptimeProbe\ntitle=of <USER_OF_TEST>\n"
              "limit.load=" +
                  std::string(limit) + '\n');
    const Outcome outcome = hostwatch("-o -c " + (folder / "conf"), "USER_OF_TEST=someone");
    EXPECT_EQ(exitCode, outcome.exitCode);
    EXPECT_TRUE(std::regex_match(outcome.output, std::regex("of someone\n"
                                                            "probe +value +limit\n"
                                                            "load .*\\[[#-]{20}\\]( over)?\n"
                                                            "uptime .*h +-  \\[[#-]{20}\\]\n")))
        << outcome.output;
  }
}

TEST(Hostwatch, CheckSaysEveryFaultWithItsLine) {
  const TempFolder folder;
  const std::string file = folder / "conf";
  writeFile(file,
            "# all wrong\nlimit.load=nan\njunk\nprobe=X\ninterval=1.5\na=<a>\nrequires={9\n"
            "limit.laod=1\ninterval=2\ntitle=<no_such>\nalert.command=/no/such <name>\n");
  const std::string at = "hostwatch: " + file + ':';
  const Outcome outcome = hostwatch("--check -L 77 --config=" + file);
  EXPECT_EQ(2, outcome.exitCode);
  EXPECT_EQ(
      "hostwatch: log.level=77 is not a number from -1 to 9\n" + at +
          "2: limit.load=nan is not a number\n" + at + "3: 'junk' is not NAME=VALUE\n" + at +
          "4: there is no probe X\n" + at + "5: interval=1.5 is not a number from 1 to 86400\n" +
          at + "6: a refers to itself\n" + at +
          "7: VarnVersion::createRangeVector: Invalid range specification: {9\n" + at +
          "8: there is no setting 'limit.laod'\n" + at +
          "9: 'interval=2' is not the first of its kind\n" + at +
          "10: title refers to no_such, which is not set\n" + at + "11: cannot run /no/such\n",
      outcome.output);
  writeFile(file, "probe=LoadProbe\nprobe=DiskProbe\ndisk.path=<at>/such\nat=/no\n");
  EXPECT_EQ(at + "2: cannot look at the file system of /no/such\n",
            hostwatch("--check --config=" + file).output);
  EXPECT_EQ(0, hostwatch("--check").exitCode);
  // A daemon works in "/", and so does the check.
  writeFile(file, "probe=DiskProbe\ndisk.path=.//conf\n");
  EXPECT_EQ(at + "1: cannot look at the file system of .//conf\n",
            hostwatch("--check --config=" + file, "cd " + folder.path() + " &&").output);
}

TEST(Hostwatch, TellsMachinesInJson) {
  const TempFolder folder;
  writeFile(folder / "conf",
            "probe=DiskProbe\nprobe=LoadProbe\nlimit.load=-1\ndisk.path=/no/\"such\"\n");
  const Outcome outcome = hostwatch("--once --json -c " + (folder / "conf"));
  EXPECT_EQ(1, outcome.exitCode);
  EXPECT_TRUE(std::regex_match(
      outcome.output,
      std::regex("\\{\"host\": \".+\", \"samples\": \\[\\{\"name\": \"disk\", \"unit\": \"%\", "
                 "\"error\": \"cannot look at the file system of /no/.u0022such.u0022\", "
                 "\"over\": false\\}, \\{\"name\": \"load\", \"unit\": \"\", \"value\": [0-9.]+, "
                 "\"limit\": -1, \"over\": true\\}\\]\\}\n")))
      << outcome.output;
}

TEST(Hostwatch, ListsTheProbesOfAPlugInInTheLanguageOfTheUser) {
  const TempFolder locales;
  std::filesystem::copy("/usr/lib/locale/C.utf8", locales / "de_DE.UTF-8",
                        std::filesystem::copy_options::recursive);
  for (const std::string environment : {"LANG=de_DE.UTF-8", "LANG=de_DE.UTF-8 LC_TIME=C.UTF-8"})
    EXPECT_EQ(
        "Sonden\n  eingebaut\n    DiskProbe\n    LoadProbe\n    MemoryProbe\n    ProcessProbe\n"
        "    UptimeProbe\n  aus Erweiterungen\n    LineProbe\n",
        hostwatch("--list --plugin=" VSUPT_HOSTWATCH_PLUGIN,
                  // The C library never frees what it reads from LOCPATH.
                  "ASAN_OPTIONS=detect_leaks=0 LOCPATH=" + locales.path() + ' ' + environment)
            .output);
}

TEST(Hostwatch, SaysWhyItCannotStartOrGoOn) {
  const TempFolder folder;
  std::filesystem::copy(VSUPT_HOSTWATCH, folder / "hostwatch");
  std::filesystem::create_directory(folder / "messages");
  for (const std::string file : {"messages/hostwatch.pro", "messages/hostwatch_C.pro"})
    writeFile(folder / file, "column.probe=probe\n");
  const Outcome speechless = hostwatch("--check", "LC_ALL=C", folder / "hostwatch");
  EXPECT_EQ(2, speechless.exitCode);
  EXPECT_TRUE(contains(speechless.output, "column.value")) << speechless.output;
  const std::tuple<std::string, std::string, int, std::string> rows[] = {
      {"starve", "", 1, "hostwatch: the system refuses a thread"},
      {"nothing", "--log=" + (folder / std::string(255, 'x')), 1,
       "hostwatch: cannot write the log /"},
      {"throw", "", 1, "stopping, as a thread has failed"},
      {"complain", "--once", 0, "odd cannot be measured: at <reason> and <name>"}};
  for (const auto& [trouble, mode, exitCode, said] : rows) {
    writeFile(folder / "conf", "probe=OddProbe\ninterval=1\nodd.does=" + trouble + '\n');
    const Outcome outcome = hostwatch(
        "-p " VSUPT_ODD_PLUGIN " -c " + (folder / "conf") + ' ' + mode, "timeout -k 1 20");
    EXPECT_EQ(exitCode, outcome.exitCode) << trouble;
    EXPECT_TRUE(contains(outcome.output, said)) << outcome.output;
  }
}

// Whether a process has a handler for SIGTERM.
bool catchesTermination(pid_t process) {
  const std::string status = contentsOf("/proc/" + std::to_string(process) + "/status");
  return (std::stoul(status.substr(status.find("SigCgt:") + 7), nullptr, 16) >> (SIGTERM - 1) &
          1) != 0;
}

TEST(Hostwatch, StopsInOrderWhenItsTerminalIsClosed) {
  const TempFolder folder;
  const pid_t child = startBareChild([&] {
    return execl(VSUPT_HOSTWATCH, "hostwatch", "--log", (folder / "log").c_str(), nullptr);
  });
  logWith(folder, "watching");
  EXPECT_TRUE(eventually([&] { return catchesTermination(child); }));
  kill(child, SIGHUP);
  EXPECT_EQ(0, outcomeOf(child));
  EXPECT_TRUE(contains(logWith(folder, "stopped"), "stopped"));
}

TEST(Hostwatch, RunsAsADaemonUntilItIsTerminated) {
  const TempFolder folder;
  writeFile(folder / "lines", "one\ntwo\none and two\n");
  writeFile(
      folder / "conf",
      "probe=MemoryProbe\nprobe=LineProbe\nlines.files=" + (folder / "li*") +
          "\nlines.pattern=one\nlimit.lines=1\nlimit.memory=-1\nalert.command=/usr/bin/touch " +
          (folder / "<name>-<value>") + '\n');
  prctl(PR_SET_CHILD_SUBREAPER, 1);  // the daemon becomes this process's child
  // What a starter may leave to its children.
  sigset_t blocked;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGTERM);
  sigprocmask(SIG_BLOCK, &blocked, nullptr);
  const Outcome start = hostwatch("-d -i 1 -L 5 -p " VSUPT_HOSTWATCH_PLUGIN " -c " +
                                  (folder / "conf") + " -l " + (folder / "./log") + " 9>&1 <&-");
  ASSERT_EQ(0, start.exitCode) << start.output;
  const std::string children = "/proc/self/task/" + std::to_string(getpid()) + "/children";
  const pid_t daemon = std::atoi(contentsOf(children).c_str());
  ASSERT_GT(daemon, 0);
  EXPECT_FALSE(std::filesystem::exists("/proc/" + std::to_string(daemon) + "/fd/9"));
  kill(daemon, SIGHUP);
  EXPECT_TRUE(contains(logWith(folder, "memory is"), "watching 2 probes every 1 seconds"));
  EXPECT_TRUE(eventually([&] { return std::filesystem::exists(folder / "lines-2.00"); }));
  // Another round, in which the limit is still crossed.
  writeFile(folder / "lines", "one\none\none\n");
  logWith(folder, "lines is 3.00");
  kill(daemon, SIGTERM);
  EXPECT_EQ(0, outcomeOf(daemon));
  const std::string log = logWith(folder, "stopped");
  EXPECT_TRUE(std::regex_search(log, std::regex(" 1 hostwatch  \\[-?[0-9]+\\] stopped\n$"))) << log;
  EXPECT_FALSE(contains(log, "lines is 3.00, over its limit"));
  for (const auto& entry : std::filesystem::directory_iterator(folder.path())) {
    const std::string name = entry.path().filename();
    EXPECT_TRUE(!name.starts_with("memory") || name.ends_with('%')) << name;
    EXPECT_EQ(0, static_cast<int>(entry.status().permissions()) & 022) << name;
  }
}
