// Whole records under load, while targets and levels change.
#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <sstream>
#include <thread>
#include <vector>

#include "TestTools.h"

using namespace VarnSupport;
using namespace TestTools;

TEST(LogStress, RecordsOfManyThreadsAreWholeCompleteAndInOrder) {
  constexpr int kThreads = 8;
  const int records = kInstrumented ? 2000 : 12500;
  FileLog log(5);
  std::atomic<bool> stop{false};
  std::thread changer([&] {
    for (int i = 0; !stop; ++i) {
      log.log().setLogLevel("part", i % 2 == 0 ? 5 : 6);
      log.log().setLogLevel(i % 2 == 0 ? 5 : 9);
      log.log().setCurrentLevel("stray", 9);
      std::this_thread::yield();
    }
  });
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t, records] {
      for (int i = 0; i < records; ++i)
        VarnLogRecord("part", 5) << "thread " << t << " record " << i << " of " << records;
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  stop = true;
  changer.join();

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
    ASSERT_TRUE(text && text.eof()) << line;
    ASSERT_EQ(records, total) << line;
    ASSERT_EQ(next[thread]++, record) << line;
    ++count;
  }
  EXPECT_EQ(static_cast<std::size_t>(kThreads) * static_cast<std::size_t>(records), count);
}

TEST(LogStress, LogsComeAndGoWhileThreadsWriteRecords) {
  const auto end = Clock::now() + stressTime();
  std::atomic<bool> stop{false};
  std::vector<std::thread> threads;
  for (int t = 0; t < 3; ++t) {
    threads.emplace_back([&stop] {
      while (!stop)
        VarnLogRecord(9) << "text " << 1;
    });
  }
  while (Clock::now() < end) {
    VarnLogging log("unused", 0, 9);
    VarnLogging::setInstance(log);
    VarnCollaborator expiry;
    log.handleNotification(expiry, VarnNotification());
    std::this_thread::yield();
  }
  stop = true;
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(nullptr, VarnLogging::getInstance());
}
