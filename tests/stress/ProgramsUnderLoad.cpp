// Programs that start while everything else is under way.
#include <gtest/gtest.h>

#include <atomic>

#include "TestTools.h"
#include "VarnSupport/VarnProcess.h"

using namespace VarnSupport;

namespace {

constexpr int kStarters = 4;
constexpr int kProgramsEach = 50;

// Runs `turn` over and over on a thread of its own.
class Load {
 public:
  explicit Load(void (*turn)())
      : m_oThread([this, turn] {
          while (!m_bDone)
            turn();
        }) {}
  ~Load() {
    m_bDone = true;
    m_oThread.join();
  }

 private:
  std::atomic<bool> m_bDone{false};
  std::thread m_oThread;
};

void logALittle() {
  for (int i = 0; i < 20; ++i)
    VarnLogRecord(5) << "load " << i << std::string(100, 'x');
}

void allocateALittle() {
  std::vector<std::string> texts;
  for (std::size_t i = 0; i < 200; ++i)
    texts.push_back(std::string(i, 'x') + VarnGetEnvironmentVariable("PATH"));
}

// A child that goes on with the library for a while, and keeps what it has inherited. The heap of
// AddressSanitizer stays locked in it, and ThreadSanitizer wants no threads there.
void forkALittle() {
  if (TestTools::kAddressSanitizer)
    return;
  const pid_t child = fork();
  if (child == 0) {
    if (!TestTools::kInstrumented)
      logALittle();
    TestTools::sleepMs(30);
    _exit(0);
  }
  EXPECT_EQ(0, TestTools::outcomeOf(child));
}

}  // namespace

TEST(VarnProcessStress, EveryProgramComesBackWhileOthersLogAllocateAndFork) {
  const TestTools::FileLog log(9);
  std::atomic<int> right{0};
  {
    const Load logging(logALittle);
    const Load allocating(allocateALittle);
    const Load forking(forkALittle);
    std::vector<std::thread> starters;
    for (int starter = 0; starter < kStarters; ++starter) {
      starters.emplace_back([&, starter] {
        for (int i = 0; i < kProgramsEach; ++i) {
          const int code = 1 + starter * kProgramsEach + i;
          const std::string command = "/bin/sh -c \"exit " + std::to_string(code) + '"';
          int status = -1;
          int child = -1;
          if (i % 5 != 0)
            VarnExecuteProgram(command, true, nullptr, &status);
          else if (VarnExecuteProgram(command, false, &child, nullptr))
            status = TestTools::outcomeOf(child);
          right += status == code ? 1 : 0;
        }
      });
    }
    for (std::thread& starter : starters)
      starter.join();
  }
  EXPECT_EQ(kStarters * kProgramsEach, right);
}
