// What it costs to start a program that is linked with a library, and how much memory tasks need:
// by the small programs in footprint/, each of which uses one library alone.
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <vector>

#include "Footprint.h"
#include "Workload.h"

namespace {

using Bench::Workload;

const Bench::TemporaryFolder g_oFolder;

std::string programOf(const std::string& side) {
  return std::string(VSUPT_BENCH_FOOTPRINTS "/footprint_") + side;
}

struct Outcome {
  std::string output;  // "failed" when the program ended badly
  double processorSeconds = 0;
};

double secondsOf(const timeval& time) {
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

// Runs a program to its end.
Outcome run(const std::vector<std::string>& words) {
  std::vector<char*> arguments;
  for (const std::string& word : words)
    arguments.push_back(const_cast<char*>(word.c_str()));
  arguments.push_back(nullptr);
  std::array<int, 2> ends{};
  if (pipe(ends.data()) != 0)
    return {"failed"};
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
  posix_spawn_file_actions_addclose(&actions, ends[0]);
  posix_spawn_file_actions_addclose(&actions, ends[1]);
  pid_t child = 0;
  const int error = posix_spawn(&child, arguments[0], &actions, nullptr, arguments.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  close(ends[1]);
  std::string output(32, '\0');
  const ssize_t length = error == 0 ? read(ends[0], output.data(), output.size()) : 0;
  close(ends[0]);
  int status = -1;
  rusage usage{};
  if (error != 0 || wait4(child, &status, 0, &usage) != child || status != 0)
    return {"failed"};
  output.resize(static_cast<std::size_t>(std::max<ssize_t>(length, 0)));
  return {output, secondsOf(usage.ru_utime) + secondsOf(usage.ru_stime)};
}

void addStart(const std::string& side, const std::string& program) {
  Workload("start-up, small program").manualTime().side(side, [program](benchmark::State& state) {
    for (auto _ : state) {
      const Outcome outcome = run({program});
      state.SetIterationTime(outcome.processorSeconds);
      Bench::require(state, outcome.output.empty());
    }
  });
}

// The properties of all tasks, with a group as some sides need one.
void writeProperties() {
  const std::string name = Footprint::propertyFile(g_oFolder.path());
  if (std::filesystem::exists(name))
    return;
  std::ofstream file(name);
  file << "[all]\n";
  for (int i = 0; i < 100000; ++i)
    file << "Setting" << 1000000 + i << "=value " << i * 7 << '\n';
}

void addPeak(const std::string& workload, const std::string& task, const std::string& side,
             const std::string& program) {
  Workload("memory, " + workload)
      .iterations(1)
      .side(side, [task, program](benchmark::State& state) {
        writeProperties();
        std::string peak;
        for (auto _ : state)
          peak = run({program, task, g_oFolder.path()}).output;
        Bench::require(state, std::atol(peak.c_str()) > 0);
        state.counters["KiB"] = static_cast<double>(std::atol(peak.c_str()));
      });
}

void add(const std::string& side, const std::vector<std::string>& tasks) {
  const std::string program = programOf(side);
  addStart(side == "empty" ? "limit: empty program" : side, program);
  for (const std::string& task : tasks) {
    const std::string name = side == "empty" ? "std" : side;
    if (task == "properties")
      addPeak("property set of 100000 lines", task, name, program);
    else if (task == "find")
      addPeak("find over 1 MiB", task, name, program);
    else if (task == "tree")
      addPeak("tree of 10000 leaves", task, name, program);
    else
      addPeak("idle with a timer and a log", task, name, program);
  }
}

const bool g_bAdded = [] {
  add("ours", {"properties", "find", "tree", "idle"});
  add("empty", {"properties"});
  addStart("limit: the locale read", programOf("locale"));
#ifdef PEER_GLIB
  add("GLib", {"properties"});
#endif
#ifdef PEER_POCO
  add("POCO", {"properties", "idle"});
#endif
#ifdef PEER_BOOST
  add("Boost", {"properties", "tree"});
#endif
#ifdef PEER_PCRE2
  add("PCRE2", {"find"});
#endif
#ifdef PEER_RE2
  add("RE2", {"find"});
#endif
#ifdef PEER_LOG4CPLUS
  add("log4cplus", {});
#endif
  return true;
}();

}  // namespace
