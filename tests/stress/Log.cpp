// Whole records under load, while targets and levels change.

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

  std::map<std::string, int> next;  // by thread
  const Lines lines = log.lines();
  for (const std::string& line : lines) {
    const std::string thread = line.substr(line.find("] ") + 2, 8);
    ASSERT_TRUE(contains(line, " 5 part       [")) << line;
    ASSERT_TRUE(line.ends_with("] " + thread + " record " + std::to_string(next[thread]++) +
                               " of " + std::to_string(records)))
        << line;
  }
  EXPECT_EQ(static_cast<std::size_t>(kThreads), next.size());
  EXPECT_EQ(static_cast<std::size_t>(kThreads * records), lines.size());
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
