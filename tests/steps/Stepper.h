// Steps one thread of a process of its own to an instruction, and sees how that process ends.
#ifndef TESTS_STEPS_STEPPER_H
#define TESTS_STEPS_STEPPER_H

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "Slot.h"

// The instructions of an operation, and what a thread that is killed after it leaves.
struct Trace {
  static constexpr std::size_t kMost = 100000;
  std::size_t count;
  int left;
  std::uint64_t addresses[kMost];
};

// One at a time in a process, which must be single-threaded.
class Stepper {
 public:
  enum tVerdict { GOOD, FAULTY, MISSED, NOT_ALLOWED };
  struct Result {
    tVerdict verdict = GOOD;
    bool wasLetGo = false;  // held no longer, as the action did not come to its end
    std::uint64_t address = 0;
    std::string text;
  };

  // The processes work in the folder.
  Stepper(const std::string& folder, bool quiet);

  Result trace(std::size_t operation, Trace& trace);
  // The mode's action while the thread stands before an instruction. With `stack`, that becomes
  // the words at the top of the thread's stack.
  Result run(std::size_t operation, int mode, const Trace& trace, std::size_t number,
             std::vector<std::uint64_t>* stack = nullptr);

 private:
  enum tStop { STOPPED, FINISHED, ENDED, HUNG };

  bool launch(std::size_t operation, int mode, int left);
  tStop proceed(int request, int limitMs);
  tStop step();
  bool setBreakpoint(std::uint64_t address) const;
  tStop goTo(const Trace& trace, std::size_t number);
  std::uint64_t registerAt(std::size_t offset) const;
  void readStack(std::vector<std::uint64_t>& stack) const;
  void release(int mode, std::size_t number, Result& result);
  void judge(int mode, tStop stop, Result& result);

  std::string m_sSlotFile;
  bool m_bQuiet;
  Slot* m_pSlot;
  pid_t m_nProcess = 0;
  pid_t m_nThread = 0;  // once it is traced
  int m_nStatus = 0;    // how the process ended
};

#endif
