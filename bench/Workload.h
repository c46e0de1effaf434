// What the benchmarks share: their names and clocks, the check before the clock starts, temporary
// folders.
//
// A benchmark is one side of a workload and is called "group, workload/side". A side whose name
// begins with "limit" is no peer: it does by hand the least that the contract or the machine
// leaves. The report (report.py) is made from these names.
#ifndef BENCH_WORKLOAD_H
#define BENCH_WORKLOAD_H

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "VarnSupport/VarnSupport.h"

namespace Bench {

using Body = std::function<void(benchmark::State&)>;

// Runs `body` in the body of a VarnThread, where it can be killed.
inline void runInVarnThread(const Body& body, benchmark::State& state) {
  class Thread : public VarnSupport::VarnThread {
   public:
    Thread(const Body& body, benchmark::State& state) : m_oBody(body), m_oState(state) {}
    int run() override {
      m_oBody(m_oState);
      return 0;
    }

   private:
    const Body& m_oBody;
    benchmark::State& m_oState;
  };
  Thread thread(body, state);
  thread.start();
  thread.waitForThreadExit();
}

// Times are of the processor and of one thread, unless the clock is another.
class Workload {
 public:
  using Clock = benchmark::internal::Benchmark* (benchmark::internal::Benchmark::*)();

  explicit Workload(std::string name) : m_sName(std::move(name)) {}

  Workload& realTime() { return with(&benchmark::internal::Benchmark::UseRealTime); }
  Workload& manualTime() { return with(&benchmark::internal::Benchmark::UseManualTime); }
  Workload& processTime() { return with(&benchmark::internal::Benchmark::MeasureProcessCPUTime); }
  // Also how many threads run the body.
  Workload& threads(int count) {
    m_nThreads = count;
    return realTime();
  }
  Workload& iterations(int count) {
    m_nIterations = count;
    return *this;
  }
  // Our sides run in the body of a VarnThread as well.
  Workload& alsoInVarnThread() {
    m_bAlsoInVarnThread = true;
    return *this;
  }

  const Workload& side(const std::string& name, const Body& body) const {
    add(name, body);
    if (m_bAlsoInVarnThread && name.rfind("ours", 0) == 0)
      add(name + ", in a VarnThread",
          [body](benchmark::State& state) { runInVarnThread(body, state); });
    return *this;
  }

 private:
  Workload& with(Clock clock) {
    m_pClock = clock;
    return *this;
  }
  void add(const std::string& side, const Body& body) const {
    auto* const made = benchmark::RegisterBenchmark((m_sName + "/" + side).c_str(), body);
    if (m_pClock != nullptr)
      (made->*m_pClock)();
    if (m_nThreads > 1)
      made->Threads(m_nThreads);
    if (m_nIterations > 0)
      made->Iterations(m_nIterations);
  }

  std::string m_sName;
  Clock m_pClock = nullptr;
  int m_nThreads = 1;
  int m_nIterations = 0;
  bool m_bAlsoInVarnThread = false;
};

inline void require(benchmark::State& state, bool correct) {
  if (!correct)
    state.SkipWithError("wrong result");
}

// Runs `operation` over and over, provided that it gives `expected`. Its time counts for `units`
// units of work.
template <typename Result, typename Operation>
void measure(benchmark::State& state, std::int64_t units, const Result& expected,
             Operation operation) {
  if (!(operation() == expected)) {
    state.SkipWithError("wrong result");
    return;
  }
  for (auto _ : state)
    benchmark::DoNotOptimize(operation());
  state.SetItemsProcessed(state.iterations() * units);
}

// The times of single operations, for the table of tails. The clock's own time is in them.
class Latencies {
 public:
  using Moment = std::chrono::steady_clock::time_point;
  static Moment now() { return std::chrono::steady_clock::now(); }
  // So many that several threads meet each other.
  static Workload workload(const std::string& name, int operations = 20000) {
    return Workload("tail, " + name).iterations(operations).realTime();
  }

  explicit Latencies(const benchmark::State& state) {
    m_vTimes.reserve(static_cast<std::size_t>(state.max_iterations));
  }
  void add(Moment begin, Moment end) {
    m_vTimes.push_back(std::chrono::duration<double, std::nano>(end - begin).count());
  }
  void report(benchmark::State& state) {
    for (const auto& [name, share] : {std::pair("median", 0.5), std::pair("tail", 0.999)}) {
      const auto place = m_vTimes.begin() +
                         static_cast<std::ptrdiff_t>(share * static_cast<double>(m_vTimes.size()));
      std::nth_element(m_vTimes.begin(), place, m_vTimes.end());
      state.counters[name] = benchmark::Counter(*place, benchmark::Counter::kAvgThreads);
    }
  }

 private:
  std::vector<double> m_vTimes;
};

template <typename Operation>
void measureTail(benchmark::State& state, Operation operation) {
  Latencies latencies(state);
  for (auto _ : state) {
    const Latencies::Moment begin = Latencies::now();
    operation();
    latencies.add(begin, Latencies::now());
  }
  latencies.report(state);
}

class TemporaryFolder {
 public:
  TemporaryFolder() {
    std::string pattern = (std::filesystem::temp_directory_path() / "vsupt-bench-XXXXXX").string();
    m_sPath = mkdtemp(pattern.data());
  }
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;
  ~TemporaryFolder() { std::filesystem::remove_all(m_sPath); }

  std::string operator/(const std::string& name) const { return m_sPath + "/" + name; }
  const std::string& path() const { return m_sPath; }

 private:
  std::string m_sPath;
};

inline std::string contentsOf(const std::string& file) {
  std::ifstream stream(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), {}};
}

}  // namespace Bench

#endif
