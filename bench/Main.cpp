// Runs all benchmarks, in a process that has a second thread as every daemon has: with a single one
// the platform's locks and counts take short cuts.
#include <condition_variable>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>

#include "Data.h"
#include "Workload.h"

namespace {

class IdleThread {
 public:
  IdleThread() : m_oThread([this] { waitForEnd(); }) {}
  IdleThread(const IdleThread&) = delete;
  IdleThread& operator=(const IdleThread&) = delete;
  ~IdleThread() {
    {
      const std::lock_guard hold(m_oMutex);
      m_bEnd = true;
    }
    m_oChanged.notify_all();
    m_oThread.join();
  }

 private:
  void waitForEnd() {
    std::unique_lock hold(m_oMutex);
    m_oChanged.wait(hold, [this] { return m_bEnd; });
  }

  std::mutex m_oMutex;
  std::condition_variable m_oChanged;
  bool m_bEnd = false;  // guarded by m_oMutex
  std::thread m_oThread;
};

std::string processorName() {
  std::ifstream description("/proc/cpuinfo");
  for (std::string line; std::getline(description, line);) {
    if (line.rfind("model name", 0) == 0)
      return line.substr(line.find(": ") + 2);
  }
  return "unknown";
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::AddCustomContext("processor", processorName());
  benchmark::AddCustomContext("compiler", "GCC-compatible " __VERSION__);
  benchmark::AddCustomContext("seed", std::to_string(Bench::seed()));
  benchmark::AddCustomContext("peers", VSUPT_BENCH_PEERS);
  benchmark::AddCustomContext("missing peers", VSUPT_BENCH_MISSING_PEERS);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv))
    return 2;
  const IdleThread idleThread;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
}
