#include "VarnSupport/VarnFileWatch.h"

#include <linux/capability.h>

#include "LoopTools.h"

namespace {

using Watch = VarnFileWatch;
using Change = Watch::Change;

// Keeps what it is told, as text: "MADE b.log".
class Told {
 public:
  Watch::Function function() {
    return [this](const Change& change) { note(change); };
  }
  void note(const Change& change) {
    static constexpr const char* names[] = {"FOUND", "MADE", "CHANGED", "CUT",
                                            "MOVED", "GONE", "LOST"};
    std::string text =
        std::string(names[change.what]) + ' ' + fs::path(change.path).filename().string();
    if (!change.newPath.empty())
      text += " to " + fs::path(change.newPath).filename().string();
    size = change.size;
    m_oNotes.add(text);
  }
  Lines texts() const { return m_oNotes.all(); }
  // Waits until these were told, in this order and since the last time, other changes apart.
  bool tells(const Lines& expected) {
    return eventually(
               [&] {
                 const Lines all = texts();
                 auto next = all.begin() + m_nSeen;
                 for (const std::string& text : expected) {
                   next = std::find(next, all.end(), text);
                   if (next == all.end())
                     return false;
                   ++next;
                 }
                 m_nSeen = next - all.begin();
                 return true;
               },
               10s) ||
           (ADD_FAILURE() << testing::PrintToString(texts()), false);
  }
  bool hasTold(const std::string& text) const {
    const Lines all = texts();
    return std::find(all.begin(), all.end(), text) != all.end();
  }

  std::atomic<std::uint64_t> size{0};

 private:
  Notes m_oNotes;
  std::ptrdiff_t m_nSeen = 0;
};

// Holds up the function that tells of a change.
class Gate {
 public:
  // The next one that tells of this name.
  void close(const char* name) { m_sName = name; }
  void pass(const Change& change) {
    if (change.what != Watch::CHANGED || fs::path(change.path).filename() != m_sName.load())
      return;
    m_sName = "";
    m_bHolds = true;
    EXPECT_TRUE(eventually([&] { return !m_bHolds; }));
  }
  void await() {
    EXPECT_TRUE(eventually([&] { return m_bHolds.load(); }));
  }
  void open() { m_bHolds = false; }

 private:
  std::atomic<const char*> m_sName{""};
  std::atomic<bool> m_bHolds{false};
};

// The process gets no descriptor as long as one exists.
class FullTable {
 public:
  FullTable() {
    for (int next = dup(0); next >= 0; next = dup(0))
      m_vDescriptors.push_back(next);
    EXPECT_EQ(EMFILE, errno);
  }
  FullTable(const FullTable&) = delete;
  FullTable& operator=(const FullTable&) = delete;
  ~FullTable() {
    for (const int descriptor : m_vDescriptors)
      close(descriptor);
  }

 private:
  std::vector<int> m_vDescriptors;
};

// What has no permission is refused to root, too, from here on.
void dropCapabilities() {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct none[2]{};
  EXPECT_EQ(0, syscall(SYS_capset, &header, none));
}

void append(const std::string& file, const std::string& text) {
  std::ofstream(file, std::ios::app) << text;
}

}  // namespace

TEST(VarnFileWatch, TellsWhatBecomesOfTheNamesThatMatch) {
  const TempFolder folder;
  writeFile(folder / "a.log", "old");
  writeFile(folder / "other.txt", "old");
  Told told;
  const Watch watch(folder / "?*.log", told.function());
  EXPECT_TRUE(told.tells({"FOUND a.log"}));
  writeFile(folder / "b.log", "");
  EXPECT_TRUE(told.tells({"MADE b.log"}));
  append(folder / "b.log", "text");
  append(folder / "other.txt", "text");
  EXPECT_TRUE(told.tells({"CHANGED b.log"}));
  fs::rename(folder / "a.log", folder / "c.log");
  EXPECT_TRUE(told.tells({"MOVED a.log to c.log", "MADE c.log"}));
  fs::rename(folder / "b.log", folder / "other.txt");
  EXPECT_TRUE(told.tells({"MOVED b.log to other.txt"}));
  fs::remove(folder / "c.log");
  EXPECT_TRUE(told.tells({"GONE c.log"}));
  for (const std::string& text : told.texts())
    EXPECT_FALSE(text.ends_with(" other.txt") && !contains(text, " to ")) << text;
}

TEST(VarnFileWatch, FollowsANameThroughRotations) {
  const TempFolder folder;
  const std::string file = folder / "app.log";
  writeFile(file, "first line\n");
  Told told;
  const Watch watch(file, told.function());
  EXPECT_TRUE(told.tells({"FOUND app.log"}));
  for (int rotation = 0; rotation < 20; ++rotation) {
    fs::rename(file, folder / "app.log.1");
    writeFile(file, "second line of text\n");
    ASSERT_TRUE(told.tells({"MOVED app.log to app.log.1", "MADE app.log"}));
  }
  // By copy and cut.
  ASSERT_TRUE(eventually([&] { return told.size == 20; }));
  fs::copy_file(file, folder / "app.log.2");
  fs::resize_file(file, 0);
  EXPECT_TRUE(told.tells({"CUT app.log"}));
  append(file, "x");
  EXPECT_TRUE(told.tells({"CHANGED app.log"}));
  EXPECT_EQ(1U, told.size);
  // By a new file that takes the place, and by removal.
  writeFile(folder / "new", "n");
  fs::rename(folder / "new", file);
  EXPECT_TRUE(told.tells({"GONE app.log", "MADE app.log"}));
  fs::remove(file);
  writeFile(file, "");
  EXPECT_TRUE(told.tells({"GONE app.log", "MADE app.log"}));
}

TEST(VarnFileWatch, ANewNameIsOfTheFileThatWasToldOf) {
  const TempFolder folder;
  const std::string file = folder / "a.txt";
  writeFile(file, "1");
  Told told;
  Gate gate;
  const Watch watch(file, [&](const Change& change) {
    told.note(change);
    gate.pass(change);
  });
  const auto rotateTo = [&](const char* name) {
    fs::rename(file, folder / name);
    writeFile(file, "next");
  };
  const auto meanwhile = [&](const auto& rotate) {
    gate.close("a.txt");
    append(file, "2");
    gate.await();
    rotate();
    gate.open();
  };
  meanwhile([&] {
    for (const char* const name : {"a.1", "a.2", "a.3"})
      rotateTo(name);
  });
  EXPECT_TRUE(told.tells({"MOVED a.txt to a.1", "MADE a.txt"}));
  meanwhile([&] {
    rotateTo("a.1");
    fs::remove(folder / "a.1");
  });
  EXPECT_TRUE(told.tells({"MOVED a.txt", "MADE a.txt"}));
  meanwhile([&] {
    fs::create_hard_link(file, folder / "a.4");  // lest the number of the file is given again
    fs::remove(file);
    writeFile(file, "");
    rotateTo("a.5");
  });
  EXPECT_TRUE(told.tells({"GONE a.txt", "MADE a.txt"}));
}

TEST(VarnFileWatch, ALookBeforeTheEventOfAMoveTellsOfTheMove) {
  VarnCallbackPool pool(1);
  for (const bool isPooled : {false, true}) {
    const TempFolder folder;
    for (const char* const name : {"0", "a", "b"})
      writeFile(folder / name, "1");
    Told told;
    Gate gate;
    const auto function = [&](const Change& change) {
      told.note(change);
      gate.pass(change);
    };
    const Watch watch(folder / "?", function, isPooled ? &pool : nullptr);
    gate.close("0");
    append(folder / "0", "2");
    gate.await();
    append(folder / "a", "2");
    append(folder / "b", "2");
    gate.close("a");
    gate.open();
    gate.await();  // in a call that looks at "b" next
    fs::rename(folder / "b", folder / "b.1");
    gate.open();
    EXPECT_TRUE(told.tells({"MOVED b to b.1"}));
  }
}

TEST(VarnFileWatch, TheFolderMayBeMissingVanishBeMovedAndBeALink) {
  const TempFolder folder;
  const std::string inner = folder / "a/b";
  Told told;
  const Watch watch(inner + "/x.log", told.function());
  fs::create_directories(inner);
  writeFile(inner + "/x.log", "");
  EXPECT_TRUE(told.tells({"MADE x.log"}));
  fs::remove_all(folder / "a");
  EXPECT_TRUE(told.tells({"GONE x.log"}));
  fs::create_directories(inner);
  writeFile(inner + "/x.log", "");
  EXPECT_TRUE(told.tells({"MADE x.log"}));
  fs::rename(folder / "a", folder / "elsewhere");
  EXPECT_TRUE(told.tells({"GONE x.log"}));
  fs::create_directory_symlink(folder / "elsewhere", folder / "a");
  EXPECT_TRUE(told.tells({"MADE x.log"}));
  fs::create_directories(folder / "third/b");
  fs::create_directory_symlink(folder / "third", folder / "new");
  fs::rename(folder / "new", folder / "a");
  EXPECT_TRUE(told.tells({"GONE x.log"}));
  append(folder / "third/b/x.log", "");
  EXPECT_TRUE(told.tells({"MADE x.log"}));
}

TEST(VarnFileWatch, NoticesThatAFolderIsMovedThatMayBePassedButNotRead) {
  expectInChild([] {
    dropCapabilities();
    const TempFolder folder;
    const fs::path home = folder / "home";
    fs::create_directories(home / "app");
    writeFile(home / "app/x.log", "");
    fs::permissions(home, fs::perms::owner_write | fs::perms::owner_exec);
    ASSERT_EQ(-1, open(home.c_str(), O_RDONLY | O_CLOEXEC));
    Told told;
    const Watch watch(home / "app/*.log", told.function());
    EXPECT_TRUE(told.tells({"FOUND x.log"}));
    fs::rename(home, folder / "old");
    EXPECT_TRUE(told.tells({"GONE x.log"}));
    fs::create_directories(home / "app");
    writeFile(home / "app/y.log", "");
    EXPECT_TRUE(told.tells({"MADE y.log"}));
    append(home / "app/y.log", "text");
    EXPECT_TRUE(told.tells({"CHANGED y.log"}));
    fs::permissions(folder / "old", fs::perms::owner_all);
  });
}

TEST(VarnFileWatch, ALinkStandsForItsFile) {
  const TempFolder folder;
  fs::create_directory(folder / "data");
  writeFile(folder / "data/one", "1");
  fs::create_symlink("data/one", folder / "current");
  fs::create_symlink("data/none", folder / "dangling");
  Told told;
  const Watch watch(folder / "*", told.function());
  EXPECT_TRUE(told.tells({"FOUND current"}));
  append(folder / "data/one", "2");
  EXPECT_TRUE(told.tells({"CHANGED current"}));
  fs::rename(folder / "data/one", folder / "data/two");
  writeFile(folder / "data/one", "3");
  EXPECT_TRUE(told.tells({"MOVED current", "MADE current"}));
  fs::create_symlink("data/two", folder / "next");
  fs::rename(folder / "next", folder / "current");
  EXPECT_TRUE(told.tells({"GONE current", "MADE current"}));
  append(folder / "data/two", "4");
  EXPECT_TRUE(told.tells({"CHANGED current"}));
  EXPECT_FALSE(told.hasTold("FOUND dangling"));
  writeFile(folder / "data/none", "");
  EXPECT_TRUE(told.tells({"MADE dangling"}));
}

TEST(VarnFileWatch, ALinkStandsForAFileThatMayNotBeReadToo) {
  expectInChild([] {
    dropCapabilities();
    const TempFolder folder;
    fs::create_directory(folder / "data");
    writeFile(folder / "data/secret", "1");
    fs::permissions(folder / "data/secret", fs::perms::owner_write);
    fs::create_symlink("data/secret", folder / "current");
    Told told;
    const Watch watch(folder / "*", told.function());
    EXPECT_TRUE(told.tells({"FOUND current"}));
    for (int i = 0; i < 3; ++i) {
      append(folder / "data/secret", "2");
      EXPECT_TRUE(told.tells({"CHANGED current"}));
    }
  });
}

// As configuration is switched as a whole.
TEST(VarnFileWatch, ALinkMayLeadThroughAnother) {
  const TempFolder folder;
  for (const std::string version : {"one", "two"}) {
    fs::create_directory(folder / version);
    writeFile(folder / (version + "/settings"), version);
  }
  fs::create_symlink("one", folder / "..data");
  fs::create_symlink("..data/settings", folder / "settings");
  Told told;
  const Watch watch(folder / "settings", told.function());
  EXPECT_TRUE(told.tells({"FOUND settings"}));
  fs::create_symlink("two", folder / "..new");
  fs::rename(folder / "..new", folder / "..data");
  EXPECT_TRUE(told.tells({"GONE settings", "MADE settings"}));
  append(folder / "two/settings", "!");
  EXPECT_TRUE(told.tells({"CHANGED settings"}));
}

TEST(VarnFileWatch, TellsLaterWhatThereWasNoDescriptorToReadTheFolderFor) {
  if (kAddressSanitizer)
    GTEST_SKIP() << "the sanitizer itself needs descriptors";
  expectInChild([] {
    const TempFolder folder;
    const auto make = [&](const char* name) {
      EXPECT_EQ(0, mknod((folder / name).c_str(), S_IFREG | 0600, 0));
    };
    for (const char* const name : {"now", "next"})
      fs::create_directory(folder / name);
    make("now/a");
    make("next/z");
    fs::create_hard_link(folder / "now/a", folder / "next/a");
    const rlimit limit{100, 100};
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &limit));
    const Watch other(folder / "none", [](const Change&) {});  // the loop has what it needs
    Told told;
    std::optional<FullTable> full(std::in_place);
    const Watch watch(folder / "now/?", told.function());
    make("now/b");
    EXPECT_TRUE(told.tells({"MADE b"}));
    full.reset();
    EXPECT_TRUE(told.tells({"FOUND a"}));
    full.emplace();
    fs::rename(folder / "now/b", folder / "now/elsewhere");
    make("now/c");
    EXPECT_TRUE(told.tells({"MADE c"}));
    full.reset();
    EXPECT_TRUE(told.tells({"MOVED b to elsewhere"}));
    full.emplace();
    fs::rename(folder / "now", folder / "before");
    fs::rename(folder / "next", folder / "now");
    fs::resize_file(folder / "now/a", 1);
    EXPECT_TRUE(told.tells({"CHANGED a"}));
    full.reset();
    EXPECT_TRUE(told.tells({"GONE c", "MADE z"}));
  });
}

// The queue of the system takes so many events; a call that blocks the loop lets it run over.
TEST(VarnFileWatch, LostEventsAreToldAndMadeGood) {
  const int most = std::atoi(contentsOf("/proc/sys/fs/inotify/max_queued_events").c_str());
  ASSERT_GT(most, 0);
  const TempFolder folder;
  const TempFolder noise;
  writeFile(folder / "kept", "");
  writeFile(folder / "gone", "");
  Told told;
  std::atomic<bool> isBlocking{false};
  std::atomic<bool> isFlooded{false};
  const Watch watch(folder / "*", [&](const Change& change) {
    told.note(change);
    if (fs::path(change.path).filename() == "block") {
      isBlocking = true;
      eventually([&] { return isFlooded.load(); });
    }
  });
  const Watch flooded(noise / "none", [](const Change&) {});
  EXPECT_TRUE(told.tells({"FOUND gone"}));
  writeFile(folder / "block", "");
  ASSERT_TRUE(eventually([&] { return isBlocking.load(); }));
  for (int i = 0; i < most / 2 + 10; ++i) {
    const std::string name = noise / std::to_string(i % 2);
    writeFile(name, "");
    fs::remove(name);
  }
  fs::remove(folder / "gone");
  writeFile(folder / "made", "");
  isFlooded = true;
  EXPECT_TRUE(told.tells({"LOST *"}));
  EXPECT_TRUE(eventually([&] { return told.hasTold("GONE gone") && told.hasTold("MADE made"); }));
  append(folder / "kept", "x");
  EXPECT_TRUE(told.tells({"CHANGED kept"}));
}

TEST(VarnFileWatch, IsDestroyedWhileItFires) {
  const TempFolder folder;
  const auto writer = repeating([&] {
    writeFile(folder / "a", "x");
    fs::remove(folder / "a");
  });
  destroyWhileTheyCall([&](const auto& called, VarnCallbackPool* pool) {
    return std::make_unique<Watch>(
        folder / "*", [called](const Change&) { called(); }, pool);
  });
}

TEST(VarnFileWatch, AChildOfAForkLeavesTheParentsAlone) {
  const TempFolder folder;
  Told told;
  auto watch = std::make_unique<Watch>(folder / "*", told.function());
  writeFile(folder / "a", "");
  ASSERT_TRUE(told.tells({"MADE a"}));
  expectInBareChild([&] {
    leaksCanBeFound = false;
    watch.reset();
    Told mine;
    const Watch another(folder / "*", mine.function());
    EXPECT_TRUE(mine.tells({"FOUND a"}));
    writeFile(folder / "b", "");
    EXPECT_TRUE(mine.tells({"MADE b"}));
  });
  EXPECT_TRUE(told.tells({"MADE b"}));
  append(folder / "a", "x");
  EXPECT_TRUE(told.tells({"CHANGED a"}));
}

TEST(VarnFileWatch, RefusesWhatIsNoPath) {
  EXPECT_TRUE(contains(resultOf([] { Watch("", [](const Change&) {}); }), "no path"));
  EXPECT_TRUE(contains(resultOf([] { Watch("x", Watch::Function()); }), "no function"));
  EXPECT_THROW(Watch(std::string("x\0y", 3), [](const Change&) {}), VarnException);
}

// The link that the second folder is reached by would need a watch more.
TEST(VarnFileWatch, RefusesAFolderWhoseMovesTheSystemHasNoWatchFor) {
  expectInChild([] {
    const TempFolder folder;
    fs::create_directory(folder / "real");
    fs::create_symlink("real", folder / "link");
    if (unshare(CLONE_NEWUSER) != 0)
      return;  // without a limit of its own
    const Watch first(folder / "real/*", [](const Change&) {});
    writeFile("/proc/sys/user/max_inotify_watches", "0");
    const Watch shared(folder / "real/*", [](const Change&) {});
    try {
      const Watch second(folder / "link/*", [](const Change&) {});
      ADD_FAILURE();
    } catch (const VarnException& refusal) {
      EXPECT_EQ(ENOSPC, refusal.getCode());
    }
  });
}
