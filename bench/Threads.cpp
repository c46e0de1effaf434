// Starting and joining a thread, and two threads that wake each other in turn.
#include <pthread.h>
#include <semaphore.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <semaphore>
#include <thread>

#include "Workload.h"

#ifdef PEER_POCO
#include <Poco/Event.h>
#include <Poco/Thread.h>
#endif

namespace {

using Bench::Workload;

const Workload g_oStart("thread, start and join");
const Workload g_oPingPong("event, ping-pong of two threads");
const Workload g_oSet("event, set with nobody waiting");

std::atomic<std::int64_t> g_nRuns{0};

// In processor time of both threads: how long the system takes to begin with the new one is not
// ours.
template <typename StartAndJoin>
void addStart(const std::string& side, StartAndJoin startAndJoin) {
  g_oStart
      .side(side,
            [startAndJoin](benchmark::State& state) {
              g_nRuns = 0;
              for (auto _ : state)
                startAndJoin();
              Bench::require(state, g_nRuns == static_cast<std::int64_t>(state.iterations()));
            })
      ->MeasureProcessCPUTime();
}

// `Signal` has set(), which a wait() of the other thread takes. A turn is a set and a wait on
// either side.
template <typename Signal>
void addPingPong(const std::string& side) {
  g_oPingPong
      .side(side,
            [](benchmark::State& state) {
              Signal ping;
              Signal pong;
              std::int64_t answers = 0;
              std::atomic<bool> end{false};
              std::thread partner([&] {
                for (;;) {
                  ping.wait();
                  if (end)
                    return;
                  ++answers;
                  pong.set();
                }
              });
              for (auto _ : state) {
                ping.set();
                pong.wait();
              }
              end = true;
              ping.set();
              partner.join();
              Bench::require(state, answers == static_cast<std::int64_t>(state.iterations()));
            })
      ->UseRealTime();
}

// An event does not remember a set() that came between a look and the wait for it; a third thread
// repeats it.
class OurSignal {
 public:
  OurSignal() : m_oReminder([this] { remind(); }) {}
  OurSignal(const OurSignal&) = delete;
  OurSignal& operator=(const OurSignal&) = delete;
  ~OurSignal() {
    m_bEnd = true;
    m_oReminder.join();
  }

  void set() {
    m_bSet = true;
    m_oEvent.set();
  }
  void wait() {
    while (!m_bSet)
      m_oEvent.wait(-1);
    m_bSet = false;
  }

 private:
  void remind() {
    while (!m_bEnd) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
      if (m_bSet)
        m_oEvent.set();
    }
  }

  VarnSupport::VarnEvent m_oEvent;
  std::atomic<bool> m_bSet{false};
  std::atomic<bool> m_bEnd{false};
  std::thread m_oReminder;
};

class ConditionSignal {
 public:
  void set() {
    {
      const std::lock_guard hold(m_oMutex);
      m_bSet = true;
    }
    m_oChanged.notify_one();
  }
  void wait() {
    std::unique_lock hold(m_oMutex);
    m_oChanged.wait(hold, [this] { return m_bSet; });
    m_bSet = false;
  }

 private:
  std::mutex m_oMutex;
  std::condition_variable m_oChanged;
  bool m_bSet = false;  // guarded by m_oMutex
};

class PosixSemaphore {
 public:
  PosixSemaphore() { sem_init(&m_oSemaphore, 0, 0); }
  PosixSemaphore(const PosixSemaphore&) = delete;
  PosixSemaphore& operator=(const PosixSemaphore&) = delete;
  ~PosixSemaphore() { sem_destroy(&m_oSemaphore); }

  void set() { sem_post(&m_oSemaphore); }
  void wait() {
    while (sem_wait(&m_oSemaphore) != 0) {
    }
  }

 private:
  sem_t m_oSemaphore;
};

class StandardSemaphore {
 public:
  void set() { m_oSemaphore.release(); }
  void wait() { m_oSemaphore.acquire(); }

 private:
  std::counting_semaphore<> m_oSemaphore{0};
};

class EventDescriptor {
 public:
  EventDescriptor() = default;
  EventDescriptor(const EventDescriptor&) = delete;
  EventDescriptor& operator=(const EventDescriptor&) = delete;
  ~EventDescriptor() { close(m_nDescriptor); }

  void set() { eventfd_write(m_nDescriptor, 1); }
  void wait() {
    eventfd_t count = 0;
    while (eventfd_read(m_nDescriptor, &count) != 0) {
    }
  }

 private:
  int m_nDescriptor = eventfd(0, EFD_CLOEXEC);
};

class LockedFlag {
 public:
  void set() {
    const std::lock_guard hold(m_oMutex);
    m_bSet = true;
    benchmark::ClobberMemory();
  }

 private:
  std::mutex m_oMutex;
  bool m_bSet = false;  // guarded by m_oMutex
};

template <typename Signal>
void addSet(const std::string& side) {
  g_oSet.side(side, [](benchmark::State& state) {
    Signal signal;
    for (auto _ : state)
      signal.set();
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

  addPingPong<OurSignal>("ours");
  addPingPong<ConditionSignal>("condition");
  addPingPong<PosixSemaphore>("semaphore");
  addPingPong<StandardSemaphore>("std semaphore");
  addPingPong<EventDescriptor>("eventfd");

  addSet<VarnSupport::VarnEvent>("ours");
  addSet<LockedFlag>("locked flag");

#ifdef PEER_POCO
  addStart("POCO", [] {
    Poco::Thread thread;
    thread.startFunc([] { ++g_nRuns; });
    thread.join();
  });
  addPingPong<Poco::Event>("POCO");
  addSet<Poco::Event>("POCO");
#endif
  return true;
}();

}  // namespace
