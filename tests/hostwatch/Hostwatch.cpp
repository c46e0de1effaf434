// The example daemon, as its users run it.
#include <sys/prctl.h>

#include <regex>
#include <utility>

#include "ServiceManagerTools.h"

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

// The log in `folder`, once it holds `text`.
std::string logWith(const TempFolder& folder, const std::string& text) {
  eventually([&] { return contains(contentsOf(folder / "log"), text); });
  return contentsOf(folder / "log");
}

}  // namespace

TEST(Hostwatch, WrongUseGivesOneLineAndExitCode2) {
  const TempFolder folder;
  const std::array<std::string, 3> rows[] = {
      {"probe=LoadProbe", "--bogus", "unknown option --bogus"},
      {"probe=LoadProbe", "--once --interval=", "--interval needs a value"},
      {"probe=LoadProbe", "--daemon", "--daemon needs --log"},
      {"probe=LoadProbe", "--daemon --log /no/such/log", "cannot write a log to /no/such"},
      {"probe=LoadProbe", "--json", "--json needs --once"},
      {"probe=LoadProbe", "--once --plugin=/no/such.so", "/no/such.so"},
      {"", "--once", "probe: is missing"},
      {"probe=LoadProbe\nprobe=LoadProbe", "--once", ":2: probe: LoadProbe is there already"},
      {"probe=LoadProbe\nrequires={0.1-0.9}", "--once", "excludes this version"},
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
  EXPECT_EQ("hostwatch: command line: log-level: '77' is no whole number from -1 to 9\n" + at +
                "2: limit.load: 'nan' is no number\n" + at + "3: junk: there is no such setting\n" +
                at + "4: probe: there is no probe X\n" + at +
                "5: interval: '1.5' is no whole number from 1 to 86400\n" + at +
                "6: a: refers to 'a', which leads back to itself\n" + at +
                "7: requires: VarnVersion::createRangeVector: Invalid range specification: {9\n" +
                at + "8: limit.laod: there is no such setting; the nearest is limit.load\n" + at +
                "9: interval: stands in line 5 already\n" + at +
                "10: title: refers to 'no_such', which is not set\n" + at +
                "11: alert.command: cannot run /no/such\n",
            outcome.output);
  writeFile(file, "probe=LoadProbe\nprobe=DiskProbe\ndisk.path=<at>/such\nat=/no\n");
  EXPECT_EQ(at + "2: probe: cannot look at the file system of /no/such\n",
            hostwatch("--check --config=" + file).output);
  EXPECT_EQ(0, hostwatch("--check").exitCode);
  // A daemon works in "/", and so does the check.
  writeFile(file, "probe=DiskProbe\ndisk.path=.//conf\n");
  EXPECT_EQ(at + "1: probe: cannot look at the file system of .//conf\n",
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
  fs::copy("/usr/lib/locale/C.utf8", locales / "de_DE.UTF-8", fs::copy_options::recursive);
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
  fs::copy(VSUPT_HOSTWATCH, folder / "hostwatch");
  fs::create_directory(folder / "messages");
  for (const std::string file : {"messages/hostwatch.pro", "messages/hostwatch_C.pro"})
    writeFile(folder / file, "column.probe=probe\n");
  const Outcome speechless = hostwatch("--check", "LC_ALL=C", folder / "hostwatch");
  EXPECT_EQ(2, speechless.exitCode);
  EXPECT_TRUE(contains(speechless.output, "column.value")) << speechless.output;
  const std::tuple<std::string, std::string, int, std::string> rows[] = {
      {"starve", "", 1, "the system refuses a thread"},
      {"nothing", "--log=" + (folder / std::string(256, 'x')), 1,
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

// A hostwatch in the background, which ends with this object.
class Daemon {
 public:
  Daemon(const std::string& configuration, const std::string& arguments) {
    writeFile(conf, configuration);
    prctl(PR_SET_CHILD_SUBREAPER, 1);  // the daemon becomes this process's child
    const Outcome start = hostwatch(command() + arguments);
    EXPECT_EQ(0, start.exitCode) << start.output;
    process = std::atoi(contentsOf(folder / "pid").c_str());
    EXPECT_GT(process, 0);
  }
  ~Daemon() {
    if (process > 0)
      kill(process, SIGKILL);
  }

  std::string command() const {
    return "-d -c " + conf + " -l " + (folder / "./log") + " -P " + (folder / "pid ");
  }
  int stop() { return end(SIGTERM); }
  int end(int signal) {
    kill(process, signal);
    return outcomeOf(std::exchange(process, 0));
  }
  std::string logWith(const std::string& text) const { return ::logWith(folder, text); }

  const TempFolder folder;
  const std::string conf = folder / "conf";
  pid_t process = 0;
};

// Whether a process has a handler for a signal.
bool catches(pid_t process, int signal) {
  const std::string status = contentsOf("/proc/" + std::to_string(process) + "/status");
  const std::size_t at = status.find("SigCgt:");
  return at != status.npos && (std::stoul(status.substr(at + 7), nullptr, 16) >> (signal - 1) & 1);
}

TEST(Hostwatch, StopsInOrderWhenItsTerminalIsClosedAndReloadsBefore) {
  const TempFolder folder;
  const int terminal = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
  ASSERT_TRUE(grantpt(terminal) == 0 && unlockpt(terminal) == 0);
  const std::string name = ptsname(terminal);
  const pid_t child = startBareChild([&] {
    setsid();
    open(name.c_str(), O_RDWR);  // which makes it the terminal of the session
    return execl(VSUPT_HOSTWATCH, "hostwatch", "--log", (folder / "log").c_str(), nullptr);
  });
  EXPECT_TRUE(eventually([&] { return catches(child, SIGHUP) && catches(child, SIGTERM); }));
  fs::rename(folder / "log", folder / "old");
  kill(child, SIGHUP);
  logWith(folder, "watching");
  close(terminal);
  EXPECT_EQ(0, outcomeOf(child));
  EXPECT_TRUE(contains(logWith(folder, "stopped"), "stopped"));
}

TEST(Hostwatch, RunsAsADaemonUntilItIsTerminated) {
  const TempFolder files;
  writeFile(files / "lines", "one\ntwo\none and two\n");
  // What a starter may leave to its children.
  sigset_t blocked;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGTERM);
  sigprocmask(SIG_BLOCK, &blocked, nullptr);
  Daemon daemon("probe=MemoryProbe\nprobe=LineProbe\nlines.files=" + (files / "li*") +
                    "\nlines.pattern=one\nlimit.lines=1\nlimit.memory=-1\n"
                    "alert.command=/usr/bin/touch " +
                    (files / "<name>-<value>") + '\n',
                "-i 1 -L 5 -p " VSUPT_HOSTWATCH_PLUGIN " <&- 9>" + (files / "open"));
  const std::string descriptors = "/proc/" + std::to_string(daemon.process) + "/fd";
  for (const auto& descriptor : fs::directory_iterator(descriptors)) {
    std::error_code closed;  // as the daemon opens and closes others
    EXPECT_NE(files / "open", fs::read_symlink(descriptor, closed).string());
  }
  EXPECT_TRUE(contains(daemon.logWith("memory is"), "watching 2 probes every 1 seconds"));
  EXPECT_TRUE(eventually([&] { return fs::exists(files / "lines-2.00"); }));
  // Another round, in which the limit is still crossed.
  writeFile(files / "lines", "one\none\none\n");
  daemon.logWith("lines is 3.00");
  const Outcome second = hostwatch(daemon.command() + "-p " VSUPT_HOSTWATCH_PLUGIN);
  EXPECT_EQ(1, second.exitCode);
  EXPECT_TRUE(contains(second.output, "is held by process ")) << second.output;
  EXPECT_EQ(0, daemon.stop());
  EXPECT_FALSE(fs::exists(daemon.folder / "pid"));
  const std::string log = daemon.logWith("stopped");
  EXPECT_TRUE(std::regex_search(log, std::regex(" 1 hostwatch  \\[-?[0-9]+\\] stopped\n$"))) << log;
  EXPECT_FALSE(contains(log, "lines is 3.00, over its limit"));
  for (const auto& entry : fs::directory_iterator(files.path())) {
    const std::string name = entry.path().filename();
    EXPECT_TRUE(!name.starts_with("memory") || name.ends_with('%')) << name;
    EXPECT_EQ(0, static_cast<int>(entry.status().permissions()) & 022) << name;
  }
}

TEST(Hostwatch, ReadsItsConfigurationAndOpensItsLogAgainAtHangUp) {
  Daemon daemon("probe=LoadProbe\ninterval=3600\n", "");
  writeFile(daemon.conf, "probe=LoadProbe\nprobe=NoProbe\ninterval=0\n");
  kill(daemon.process, SIGHUP);
  const std::string faults = daemon.logWith("is no whole number");
  EXPECT_TRUE(contains(faults, "stays as it was: " + daemon.conf + ":2: probe: there is no probe"));
  EXPECT_TRUE(contains(faults, daemon.conf + ":3: interval: '0' is no whole number")) << faults;
  // The old log keeps what was written to it.
  fs::rename(daemon.folder / "log", daemon.folder / "old");
  writeFile(daemon.conf, "probe=DiskProbe\nprobe=LoadProbe\ninterval=1\nlog.level=5\n");
  kill(daemon.process, SIGHUP);
  const std::string log = daemon.logWith("disk is");
  EXPECT_TRUE(contains(log, "watching 2 probes every 1 seconds")) << log;
  EXPECT_FALSE(contains(contentsOf(daemon.folder / "old"), "disk"));
  EXPECT_EQ(0, daemon.stop());
}

TEST(Hostwatch, EndsAlertCommandsThatHangInTimeOrWithItself) {
  const TempFolder files;
  writeFile(files / "hang",
            "#!/bin/sh\necho $$ >\"$0.pid\"\ntrap '' TERM\necho \"$1\"\nsleep 600\n");
  fs::permissions(files / "hang", fs::perms::owner_all);
  const std::string configuration =
      "probe=LoadProbe\nlimit.load=-1\nalert.command=" + (files / "hang") +
      " \"two words\"\nalert.timeout=";
  const auto sleeper = [&] {
    eventually([&] { return !contentsOf(files / "hang.pid").empty(); });
    return std::atoi(contentsOf(files / "hang.pid").c_str());
  };
  Daemon impatient(configuration + "1s\n", "");
  const pid_t timedOut = sleeper();
  EXPECT_TRUE(contains(impatient.logWith("as its time was over"),
                       "load was ended by signal 9 (Killed), as its time was over, its output: "
                       "\"two words"));
  EXPECT_TRUE(isGone(timedOut));
  EXPECT_EQ(0, impatient.stop());
  fs::remove(files / "hang.pid");
  Daemon patient(configuration + "1h\n", "");
  const pid_t killed = sleeper();
  kill(patient.process, SIGTERM);
  EXPECT_TRUE(eventually([&] { return !catches(patient.process, SIGHUP); }));
  EXPECT_EQ(0, patient.end(SIGQUIT));
  EXPECT_TRUE(isGone(killed));
  const std::string log = patient.logWith("stopped");
  EXPECT_TRUE(contains(log, "as it was killed")) << log;
  EXPECT_TRUE(contains(log, " threads\n") && !contains(log, "holds section")) << log;
}

TEST(Hostwatch, TellsItsManagerHowItGoes) {
  const TempFolder folder;
  Manager manager(folder / "notify");
  const auto isTold = [&](const std::string& wanted) {
    std::string told;
    while (told != "none" && !contains(told, wanted))
      told = manager.next();
    return told != "none";
  };
  const pid_t child = startBareChild([&] {
    setsid();
    setenv("WATCHDOG_USEC", "200000", 1);
    return execl(VSUPT_HOSTWATCH, "hostwatch", nullptr);
  });
  EXPECT_TRUE(isTold("READY=1"));
  EXPECT_TRUE(isTold("WATCHDOG=1"));
  kill(child, SIGHUP);
  EXPECT_TRUE(isTold("RELOADING=1"));
  EXPECT_TRUE(isTold("READY=1"));
  kill(child, SIGTERM);
  EXPECT_TRUE(isTold("STOPPING=1"));
  EXPECT_EQ(0, outcomeOf(child));
}
