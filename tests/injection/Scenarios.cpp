// Every n-th allocation, or every n-th call of the system, fails while a family is used. Each case
// runs in a process of its own: it must not crash, and afterwards another thread must find every
// object usable and every lock free.
#include "Failures.h"

#include <sys/prctl.h>

#include <deque>
#include <locale>
#include <new>

#include "LibraryTools.h"

namespace {

constexpr int kLargestStep = 200;
constexpr std::size_t kAtOnce = 128;

void require(bool holds, const char* rule) {
  if (holds)
    return;
  dprintf(STDERR_FILENO, "broken: %s\n", rule);
  _exit(2);
}

// Uses a family, first with failures, which may come out as these two kinds of exceptions, then on
// another thread without any. The process may split before it does so.
template <typename Scenario, bool kForks = false>
int useTwice(Failures::tKind kind, int every) {
  Scenario scenario;
  pid_t child = 0;
  try {
    const Failures failures(kind, every);
    if (kForks && (child = fork()) == 0)
      std::srand(2);  // opening a log empties its file: no name is to be the parent's
    scenario.use();
  } catch (const std::bad_alloc&) {
  } catch (const VarnException&) {
  }
  require(every > 1 || kind == Failures::SYSTEM || Failures::count() > 0, "allocations fail");
  std::thread([&] { scenario.use(); }).join();
  if constexpr (requires { scenario.check(); })
    scenario.check();
  if (!kForks)
    return 0;
  if (child == 0)
    _exit(0);  // the parent removes what both have used
  return child < 0 ? 0 : outcomeOf(child);
}

// Runs the cases of one scenario, several at once.
void runAll(const std::function<int(Failures::tKind, int)>& runCase) {
  const TempFolder folder;  // cases need not clear up
  std::deque<std::pair<std::string, pid_t>> running;
  const auto finishFirst = [&] {
    EXPECT_EQ(0, outcomeOf(running.front().second)) << running.front().first;
    running.pop_front();
  };
  for (const auto kind : {Failures::MEMORY, Failures::SYSTEM}) {
    for (int every = 1; every <= kLargestStep; ++every) {
      if (running.size() == kAtOnce)
        finishFirst();
      const std::string name =
          std::to_string(every) + (kind == Failures::MEMORY ? ". allocation" : ". system call");
      running.emplace_back(name, startBareChild([&] {
                             setenv("TMPDIR", folder.path().c_str(), 1);
                             return runCase(kind, every);
                           }));
    }
  }
  while (!running.empty())
    finishFirst();
}

struct Locks {
  void use() {
    const VarnCriticalSection guard(section, true);
    VarnCriticalSectionObject copy(section);
    const VarnCriticalSection again(copy, true);
    names.createLock("a");
    names.get("a").writeLock();
    names.get("a").writeUnLock();
    factory.add("made", [] { return static_cast<VarnObjectBase*>(new VarnWorkInformation); });
    require(factory.construct("made") != nullptr, "a class that was added can be created");
  }

  VarnCriticalSectionObject section;
  VarnLockFactory<std::string, VarnReadWriteLock> names;
  VarnObjectFactory factory;
};

struct Threads {
  struct Worker : VarnThread {
    ~Worker() override { waitForThreadExit(); }
    int run() override { return 7; }
  };

  void use() {
    Worker worker;
    worker.start();
    const int code = worker.isAlive() ? 7 : -1;
    require(worker.wait(20000) == 0, "the end of a thread is noticed");
    require(worker.getExitCode() == code, "a thread that ran has its result");
    std::vector<VarnEvent*> events{&event, &event};
    event.addDependent(dependent);
    VarnEvent::wait(events, true, 500);
    event.set();
    event.removeDependent(dependent);
    auto* const forgotten = new Worker;
    forgotten->setMarkForDeath();
    forgotten->start();
  }

  VarnEvent event;
  VarnDependent dependent;
};

struct Timers {
  void use() {
    VarnTimer passing(1000, true);
    passing.reset();
    timer.reset();
    passing.stop();
  }
  void check() {
    const int before = counter.calls;
    require(eventually([&] { return counter.calls > before + 1; }), "timers go on");
    timer.stopAndWait();
  }

  VarnTimer timer{1000, false};
  const Observer counter{timer};
};

struct Log {
  void use() {
    log.setLogLevel("part", 5);
    log << "a record" << 1 << L" of several " << 2.5;
    log << endrecord;
    {
      VarnLogRecord outer("part", 4);
      outer << "outer " << std::string(600, 'x');
      VarnLogRecord(3) << "inner " << ci_string("text");
    }
    log.setTarget(0);
    log.setTarget(VarnLogging::kToFile);
  }
  void check() {
    VarnLogRecord(5) << "the log goes on";
    bool found = false;
    for (const auto& entry : fs::directory_iterator(folder.path()))
      found |= contains(contentsOf(entry.path().string()), "] the log goes on\n");
    require(found, "a record comes out");
  }

  TempFolder folder;
  VarnLogging log{folder / "test", VarnLogging::kToFile, 9};
  const bool registered = (VarnLogging::setInstance(log), true);
};

// What a process has when it goes to the background.
struct Daemon {
  Daemon() { timers.timer.reset(); }
  void use() {
    timers.use();
    log.use();
    threads.use();
  }
  void check() {
    timers.check();
    log.check();
  }

  Log log;
  Timers timers;
  Threads threads;
};

struct Properties {
  Properties() {
    writeFile(file, "port=80\nhost=alpha\nport=81\n");
    writeFile(folder / "messages_C.pro", "a=b\n");
  }
  void use() {
    set.loadProperties(file, '=');
    set.addProperty("name", "<host>:<port>");
    VarnExpandString("at <name>", set);
    VarnProperties<std::wstring> wide;
    wide.loadProperties(file, L'=');
    wide.saveProperties(folder / "wide");
    set.saveProperties(folder / "saved");
    const VarnProgramOptions options("-p 81 --verbose 'a file'", "p:", ":verbose:", false);
    const VarnMessageSet messages(folder / "messages", std::locale::classic());
  }
  void check() {
    for (const auto& [key, values] : set.getProperties())
      require(!key.empty() && !values.empty(), "no property is half there");
    require(set.getProperty("host") == "alpha" && set.size() == 3, "all properties are there");
  }

  TempFolder folder;
  const std::string file = folder / "messages.pro";
  VarnProperties<std::string> set;
};

struct Texts {
  void use() {
    std::string error;
    pattern.setPattern("[a-c]+x.*");
    const std::string found = pattern.match("abcxyz");
    require(found == "abcxyz", "a pattern that was set finds its text");
    pattern.replace("abcx abcx", "a longer text than that", pattern.ALL_OCCURRENCES);
    date.setDateTime("06/11/1994 08:49:37", error);
    date.modifyDate(VarnDateTime::Month, 1, error);
    date.toString(std::locale::classic());
    VarnVersion::createRangeVector("{1.0-2.0},3.beta");
    std::string cipher;
    encryption.encryptData("a key", "a text of some length", cipher);
    std::vector<std::string> words;
    VarnTokenizer(found + " and more words", " ", words);
  }

  VarnRegularExpression<std::string> pattern;
  VarnDateTime date;
  VarnEncryption encryption;
};

struct Streams {
  void use() {
    const unsigned before = stream.size();
    stream << 7 << std::string(1000, 'x') << L"wide";
    require(stream.size() >= before, "a write takes nothing away");
    stream = VarnBufferStream(stream);
    std::string read;
    stream >> read;
    std::vector<std::string> path{"a", "b", "c"};
    tree->add(new VarnTreeNode("leaf"), path);
    require(tree->getNode("a/b/c", "/") != nullptr, "a path that was added is there");
    VarnTreeNode copy(*tree);
    tree->erase("a");
  }

  VarnBufferStream stream;
  VarnSmartPointer<VarnTreeNode> tree = new VarnTreeNode;
};

struct Processes {
  void use() {
    int status = 7;
    if (VarnExecuteProgram("/bin/true", true, nullptr, &status))
      require(status == 0, "a program that was started has its result");
    else
      require(status == -1, "a program that was not started says so");
    VarnCreateDirectory(folder / "a/b/c");
    writeFile(folder / "a/b/c/file", "x");
    std::string error;
    int code = 0;
    VarnRemoveDirectoryImpl(folder / "a", true, error, code);
    for (VarnFindFile search(folder / "*"); search.hasMore();)
      search.next();
  }

  TempFolder folder;
};

struct Service : VarnService {
  explicit Service(bool isDaemon) : stopsItself(isDaemon) {}
  // The signals of a daemon are routed by now.
  bool onStart(const std::string&) override { return !stopsItself || raise(SIGTERM) == 0; }
  void onStop() override { ++stops; }

  const bool stopsItself;
  int stops = 0;
};

// Sends SIGTERM once a service in the foreground has routed it.
void stopWhenRouted() {
  struct sigaction action {};
  while (sigaction(SIGTERM, nullptr, &action) == 0 && action.sa_handler == SIG_DFL)
    sleepMs(1);
  kill(getpid(), SIGTERM);
}

// Every process that comes of it has to end, by itself and after one stop.
int runService(bool daemonize, Failures::tKind kind, int every) {
  prctl(PR_SET_CHILD_SUBREAPER, 1);
  startBareChild([&] {
    Service service(daemonize);
    if (!daemonize)
      std::thread(stopWhenRouted).detach();
    const Failures failures(kind, every);
    const bool started = service.start("", daemonize);
    return service.stops == (started ? 1 : 0) ? 0 : 2;
  });
  int status = 0;
  while (wait(&status) > 0)
    require(WIFEXITED(status) && WEXITSTATUS(status) != 2, "a service ends after one stop");
  return 0;
}

}  // namespace

TEST(FailureInjection, LeavesLocksAndObjectsUsable) { runAll(useTwice<Locks>); }
TEST(FailureInjection, LeavesThreadsAndEventsUsable) { runAll(useTwice<Threads>); }
TEST(FailureInjection, LeavesTimersFiring) { runAll(useTwice<Timers>); }
TEST(FailureInjection, LeavesTheLogWriting) { runAll(useTwice<Log>); }
TEST(FailureInjection, LeavesPropertiesAndOptionsWhole) { runAll(useTwice<Properties>); }
TEST(FailureInjection, LeavesPatternsAndTextsUsable) { runAll(useTwice<Texts>); }
TEST(FailureInjection, LeavesStreamsAndTreesUsable) { runAll(useTwice<Streams>); }
TEST(FailureInjection, LeavesProcessesStartable) { runAll(useTwice<Processes>); }
TEST(FailureInjection, LeavesBothSidesOfAForkUsable) { runAll(useTwice<Daemon, true>); }

TEST(FailureInjection, LeavesAServiceThatStops) {
  for (const bool daemonize : {false, true})
    runAll([=](Failures::tKind kind, int every) { return runService(daemonize, kind, every); });
}

TEST(FailureInjection, AStartThatIsRefusedEndsTheWaitsForTheThread) {
  expectInChild([] {
    static std::atomic<bool> isAsked{false};
    VarnThread refused;
    const std::jthread waiter([&] {
      while (!isAsked)
        sleepMs(1);
      refused.wait(-1);
    });
    Failures::beforeThreadFails = [] {
      isAsked = true;
      sleepMs(50);  // the waiter comes meanwhile
    };
    {
      const Failures failures(Failures::SYSTEM, 1);
      refused.start();
    }
    EXPECT_FALSE(refused.isAlive());
  });
}

TEST(FailureInjection, AWatchOfFilesTellsLaterWhatItHadNoMemoryFor) {
  expectInChild([] {
    const TempFolder folder;
    static Failures* failures = nullptr;
    static std::atomic<bool> isTold{false};
    const std::string names[] = {folder / "1", folder / "2", folder / "3"};
    const VarnFileWatch watch(folder / "*", [&](const VarnFileWatch::Change& change) {
      if (change.path == names[0] && change.what == VarnFileWatch::MADE) {
        writeFile(names[1], "");  // both are told of by the next call
        writeFile(names[2], "");
      } else if (change.path == names[1] && failures == nullptr) {
        failures = new Failures(Failures::MEMORY, 1);
      }
      isTold = isTold || change.path == names[2];
    });
    close(creat(names[0].c_str(), 0600));  // as this thread may have no memory from then on
    while (Failures::count() == 0)
      sleepMs(1);
    delete failures;
    EXPECT_TRUE(eventually([] { return isTold.load(); }));
  });
}

TEST(FailureInjection, AWatchOfFilesThatHasNoMemoryLeavesNothingInTheSystem) {
  expectInChild([] {
    const auto make = [](const TempFolder& folder) {
      return VarnFileWatch(folder / "*", [](const VarnFileWatch::Change&) {});
    };
    const auto inSystem = [] {
      int count = 0;
      for (const auto& entry : fs::directory_iterator("/proc/self/fdinfo")) {
        for (const std::string& line : linesOf(entry.path()))
          count += line.starts_with("inotify wd") ? 1 : 0;
      }
      return count;
    };
    const std::deque<TempFolder> folders(60);
    const VarnFileWatch watch = make(folders[0]);
    const int before = inSystem();
    for (std::size_t every = 1; every < folders.size(); ++every) {
      try {
        const Failures failures(Failures::MEMORY, static_cast<int>(every));
        make(folders[every]);
      } catch (const std::bad_alloc&) {
      }
    }
    EXPECT_TRUE(eventually([&] { return inSystem() == before; }));
  });
}

TEST(FailureInjection, StalledCallsThatThereIsNoMemoryToTellOfEndNothing) {
  expectInChild([] {
    static std::atomic<int> calls{0};
    const FileLog log(1);
    std::atomic<bool> isTold{false};
    VarnMonotonicTimer timer(std::chrono::milliseconds(1), [&] {
      if (++calls > 1) {
        isTold = eventually([&] { return contains(contentsOf(log.file()), "for more than"); });
        return;
      }
      const Failures failures(Failures::MEMORY, 1);
      while (Failures::count() == 0)
        sleepMs(1);
    });
    timer.start();
    while (calls < 2)
      sleepMs(1);
    EXPECT_TRUE(eventually([&] { return isTold.load(); }));
  });
}

TEST(FailureInjection, ACommandsThreadThatCannotBeReplacedIsReplacedByTheNext) {
  expectInChild([] {
    std::thread([] { pthread_exit(nullptr); }).join();  // loads what unwinds
    static Failures* failures = nullptr;
    VarnCommand waiting({"sleep", "0.2"});
    VarnCommand ending({"true"});
    waiting.start();
    ending.start([](const VarnCommand::Result&) {
      failures = new Failures(Failures::MEMORY, 1);
      pthread_exit(nullptr);
    });
    while (Failures::count() == 0)
      sleepMs(1);
    delete failures;
    VarnCommand next({"true"});
    next.start();
    EXPECT_TRUE(next.wait().succeeded());
    EXPECT_TRUE(waiting.wait().succeeded());
  });
}

TEST(FailureInjection, ARunThatIsStoppedBeforeItBeginsNeedsNoMemory) {
  expectInChild([] {
    VarnLatchedEvent stop;
    stop.set();
    VarnCommand command({std::string(100, 'x')});
    for (int every = 1; every < 10; ++every) {
      try {
        const Failures failures(Failures::MEMORY, every);
        command.run(stop);
      } catch (const std::bad_alloc&) {
      }
    }
    EXPECT_EQ(ECANCELED, command.run(stop).getError());
  });
}

TEST(FailureInjection, AFullDiskDoesNotStopOtherTargets) {
  TempFolder folder;
  expectInChild([&] {
    // What a log without a file, or on a full disk, writes goes to standard output too.
    static VarnLogging log(folder / "none" + "/log", VarnLogging::kToFile, 5);
    const int output = ::open((folder / "output").c_str(), O_WRONLY | O_CREAT, 0600);
    dup2(output, STDOUT_FILENO);
    VarnLogging::setInstance(log);
    log.setTarget(VarnLogging::kToFile | VarnLogging::kToStandardOutput);
    VarnLogRecord(5) << "without a file";
    dup2(::open("/dev/full", O_WRONLY), STDOUT_FILENO);
    VarnLogRecord(5) << "to a full disk";
    dup2(output, STDOUT_FILENO);
    VarnLogRecord(5) << "after it";
  });
  EXPECT_EQ((Lines{"without a file", "after it"}), textsOf(folder / "output"));
}
