// What the benchmarks share: their names, the check before the clock starts, temporary folders.
//
// A benchmark is one side of a workload and is called "group, workload/side". A side whose name
// begins with "limit" is no peer: it shows how far the machine itself lets one go. The report
// (report.py) is made from these names.
#ifndef BENCH_WORKLOAD_H
#define BENCH_WORKLOAD_H

#include <benchmark/benchmark.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>

#include "VarnSupport/VarnSupport.h"

namespace Bench {

class Workload {
 public:
  explicit Workload(std::string name) : m_sName(std::move(name)) {}

  // Times are of the processor; call UseRealTime() on the result where several threads work.
  template <typename Body>
  benchmark::internal::Benchmark* side(const std::string& name, Body body) const {
    return benchmark::RegisterBenchmark((m_sName + "/" + name).c_str(), body);
  }

 private:
  std::string m_sName;
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
