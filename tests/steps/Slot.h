// What the process in which an operation is done and the worker that steps it tell each other.
#ifndef TESTS_STEPS_SLOT_H
#define TESTS_STEPS_SLOT_H

#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <fstream>
#include <string>

// What is done while the thread stands at an instruction. With KILL and EXIT it goes on meanwhile;
// else when that is done, or has not come to its end for a while. EXIT_HELD is done when the exit
// handlers have run; the process then still takes a moment.
enum tMode { KILL, KILL_HELD, FORK, EXIT, EXIT_HELD, SIGNALS, SIGNALS_TO_PROCESS, kModes };
constexpr int TRACE = kModes;  // nothing: the instructions are noted

constexpr std::array<const char*, kModes> kModeNames{
    "kill", "kill-held", "fork", "exit", "exit-held", "signals", "signals-process"};

// Exit codes: the process has put the fault into the text; ptrace() is refused; what exit() is
// called with.
constexpr int kFaulty = 3;
constexpr int kNotAllowed = 4;
constexpr int kExitCode = 42;

// Lies in memory that both share, and begins as zeros.
struct Slot {
  enum tOrder { ASSIST = 1, ACT = 2 };
  enum tAction { UNDER_WAY = 1, DONE = 2 };

  std::atomic<bool> finished;  // the operation is
  std::atomic<int> orders;     // to the process, as bits
  std::atomic<int> action;
  int left;        // allocations, descriptors and threads, by a thread that is killed at rest
  char stage[64];  // what the process is about
  char text[160];
};

// Whether a thread sleeps until another wakes it.
inline bool sleepsForAnother(pid_t process, pid_t thread) {
  std::ifstream stream("/proc/" + std::to_string(process) + "/task/" + std::to_string(thread) +
                       "/syscall");
  std::string line;
  std::getline(stream, line);
  return line.starts_with(std::to_string(SYS_futex) + ' ');
}

#endif
