// Whole records under load, while targets and levels change.
#include <map>
#include <sstream>

#include "LibraryTools.h"

TEST(LogStress, RecordsOfManyThreadsAreWholeCompleteAndInOrder) {
  constexpr int kThreads = 8;
  const int records = kInstrumented ? 2000 : 12500;
  FileLog log(5);
  {
    const auto changer = repeating([&, even = false]() mutable {
      even = !even;
      log.log().setLogLevel("part", even ? 5 : 6);
      log.log().setLogLevel(even ? 5 : 9);
      log.log().setCurrentLevel("stray", 9);
      std::this_thread::yield();
    });
    onThreads(kThreads, [&](int t) {
      for (int i = 0; i < records; ++i)
        VarnLogRecord("part", 5) << "thread " << t << " record " << i << " of " << records;
    });
  }

  std::map<int, int> next;
  std::size_t count = 0;
  for (const std::string& line : log.lines()) {
    ASSERT_NE(std::string::npos, line.find(" 5 part       [")) << line;
    std::istringstream text(line.substr(line.find("] ") + 2));
    std::string word;
    int thread = 0;
    int record = 0;
    int total = 0;
    text >> word >> thread >> word >> record >> word >> total;
    ASSERT_TRUE(text) << line;
    ASSERT_TRUE(text.eof()) << line;
    ASSERT_EQ(records, total) << line;
    ASSERT_EQ(next[thread]++, record) << line;
    ++count;
  }
  EXPECT_EQ(static_cast<std::size_t>(kThreads) * static_cast<std::size_t>(records), count);
}

TEST(LogStress, RecordsOfBothFormsInsideEachOtherAreWhole) {
  constexpr int kThreads = 4;
  const int records = kInstrumented ? 500 : 5000;
  FileLog log(5);
  onThreads(kThreads, [&](int) {
    const auto useOlderForm = [&] {
      log.log() << setloglevel("older", 3) << "inside " << 1 << endrecord;
      return "value";
    };
    for (int i = 0; i < records; ++i)
      VarnLogRecord("whole", 2) << "begun, " << useOlderForm() << ", ended";
  });
  std::map<std::string, int> counts;
  for (const std::string& line : log.lines())
    ++counts[line.substr(18, 13) + line.substr(line.find("] "))];
  const int all = kThreads * records;
  EXPECT_EQ((std::map<std::string, int>{{"3 older      ] inside 1", all},
                                        {"2 whole      ] begun, value, ended", all}}),
            counts);
}

TEST(LogStress, LogsComeAndGoWhileThreadsWriteRecords) {
  const auto end = Clock::now() + stressTime();
  const auto write = [] { VarnLogRecord(9) << "text " << 1; };
  const std::jthread writers[] = {repeating(write), repeating(write), repeating(write)};
  while (Clock::now() < end) {
    VarnLogging log("unused", 0, 9);
    VarnLogging::setInstance(log);
    VarnCollaborator expiry;
    log.handleNotification(expiry, VarnNotification());
    std::this_thread::yield();
  }
  EXPECT_EQ(nullptr, VarnLogging::getInstance());
}
