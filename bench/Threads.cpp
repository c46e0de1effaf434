// Starting and joining a thread.
#include <pthread.h>

#include <atomic>
#include <thread>

#include "Workload.h"

#ifdef PEER_POCO
#include <Poco/Thread.h>
#endif

namespace {

std::atomic<std::int64_t> g_nRuns{0};

// In processor time of both threads: how long the system takes to begin with the new one is not
// ours.
template <typename StartAndJoin>
void addStart(const std::string& side, StartAndJoin startAndJoin) {
  Bench::Workload("thread, start and join")
      .processTime()
      .alsoInVarnThread()
      .side(side, [startAndJoin](benchmark::State& state) {
        g_nRuns = 0;
        for (auto _ : state)
          startAndJoin();
        Bench::require(state, g_nRuns == static_cast<std::int64_t>(state.iterations()));
      });
}

class OurThread : public VarnSupport::VarnThread {
 public:
  int run() override {
    ++g_nRuns;
    return 0;
  }
};

const bool g_bAdded = [] {
  addStart("ours", [] {
    OurThread thread;
    thread.start();
    thread.waitForThreadExit();
  });
  addStart("std", [] { std::thread([] { ++g_nRuns; }).join(); });
  addStart("pthread", [] {
    pthread_t thread{};
    const auto body = [](void*) -> void* {
      ++g_nRuns;
      return nullptr;
    };
    if (pthread_create(&thread, nullptr, body, nullptr) == 0)
      pthread_join(thread, nullptr);
  });
#ifdef PEER_POCO
  addStart("POCO", [] {
    Poco::Thread thread;
    thread.startFunc([] { ++g_nRuns; });
    thread.join();
  });
#endif
  return true;
}();

}  // namespace
