// Small programs that are each linked with one library alone: how long they take to start, and how
// much memory a task needs at its peak.
#ifndef BENCH_FOOTPRINT_FOOTPRINT_H
#define BENCH_FOOTPRINT_FOOTPRINT_H

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>

namespace Footprint {

// What a task gets is the folder for its files.
using Task = void (*)(const std::string& folder);

inline void require(bool correct) {
  if (!correct)
    throw std::runtime_error("wrong result");
}

inline std::string propertyFile(const std::string& folder) { return folder + "/properties"; }

// Letters, and at their end the digit that the pattern "[a-z]+9" wants.
inline std::string longText() {
  std::string text(1 << 20, 'a');
  text.back() = '9';
  return text;
}

inline std::string pathOf(int node) {
  return "key" + std::to_string(node / 500) + ".key" + std::to_string(node / 25 % 20) + ".key" +
         std::to_string(node % 25);
}
constexpr int kNodes = 10000;

inline void beIdle() { std::this_thread::sleep_for(std::chrono::milliseconds(20)); }

// Runs the task that the first argument names and prints the peak of memory in KiB. Without
// arguments the program only starts and ends.
inline int run(int argc, char** argv, const std::map<std::string_view, Task>& tasks) {
  if (argc < 3)
    return 0;
  tasks.at(argv[1])(argv[2]);
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("VmHWM:", 0) == 0)
      std::printf("%ld\n", std::atol(line.c_str() + 6));
  }
  return 0;
}

}  // namespace Footprint

#endif
