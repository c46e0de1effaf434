// Programs that start while everything else is under way.
#include "TestTools.h"

using namespace TestTools;

namespace {

constexpr int kStarters = 4;
constexpr int kProgramsEach = 125;

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
  if (kAddressSanitizer)
    return;
  EXPECT_EQ(0, runInBareChild([] {
              if (!kInstrumented)
                logALittle();
              sleepMs(30);
              return 0;
            }));
}

}  // namespace

TEST(VarnProcessStress, EveryProgramComesBackWhileOthersLogAllocateAndFork) {
  const FileLog log(9);
  std::atomic<int> right{0};
  {
    const std::jthread load[] = {repeating(logALittle), repeating(allocateALittle),
                                 repeating(forkALittle)};
    onThreads(kStarters, [&](int starter) {
      for (int i = 0; i < kProgramsEach; ++i) {
        const int code = 1 + (starter * kProgramsEach + i) % 255;
        const std::string command = "/bin/sh -c \"exit " + std::to_string(code) + '"';
        int status = -1;
        int child = -1;
        if (i % 5 != 0)
          VarnExecuteProgram(command, true, nullptr, &status);
        else if (VarnExecuteProgram(command, false, &child, nullptr))
          status = outcomeOf(child);
        right += status == code ? 1 : 0;
      }
    });
  }
  EXPECT_EQ(kStarters * kProgramsEach, right);
}
