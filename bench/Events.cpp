// Events: threads that wake each other in turn, a late wait, and an event that is set with nobody
// waiting.
#include <semaphore.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <ctime>
#include <mutex>
#include <semaphore>
#include <thread>

#include "Workload.h"

#ifdef PEER_POCO
#include <Poco/Event.h>
#endif

namespace {

using Bench::Workload;

// Each signal has set(), which a wait() of another thread takes.

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

class LatchedSignal {
 public:
  void set() { m_oEvent.set(); }
  void wait() {
    m_oEvent.wait();
    m_oEvent.reset();
  }

 private:
  VarnSupport::VarnLatchedEvent m_oEvent;
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

// A thread that answers every set() of `ping` by a set() of `pong`, `delay` later.
template <typename Signal>
class Partner {
 public:
  explicit Partner(std::chrono::microseconds delay = std::chrono::microseconds(0))
      : m_oDelay(delay), m_oThread([this] { answer(); }) {}
  Partner(const Partner&) = delete;
  Partner& operator=(const Partner&) = delete;
  ~Partner() {
    m_bEnd = true;
    ping.set();
    m_oThread.join();
  }
  std::int64_t answers() const { return m_nAnswers; }

  Signal ping;
  Signal pong;

 private:
  void answer() {
    for (ping.wait(); !m_bEnd; ping.wait()) {
      ++m_nAnswers;
      if (m_oDelay.count() > 0)
        std::this_thread::sleep_for(m_oDelay);
      pong.set();
    }
  }

  const std::chrono::microseconds m_oDelay;
  std::atomic<std::int64_t> m_nAnswers{0};
  std::atomic<bool> m_bEnd{false};
  std::thread m_oThread;
};

// A turn is a set and a wait on either side.
template <typename Signal>
void pingPong(benchmark::State& state) {
  Partner<Signal> partner;
  for (auto _ : state) {
    partner.ping.set();
    partner.pong.wait();
  }
  Bench::require(state, partner.answers() == static_cast<std::int64_t>(state.iterations()));
}

template <typename Signal>
void pingPongOnce(benchmark::State& state) {
  Partner<Signal> partner;
  Bench::measureTail(state, [&] {
    partner.ping.set();
    partner.pong.wait();
  });
}

double processorSeconds() {
  std::timespec time{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

// What a wait that sleeps takes of the processor: until it sleeps, and from when it is woken.
template <typename Signal>
void waitForLateSet(benchmark::State& state) {
  Partner<Signal> partner(std::chrono::microseconds(200));
  for (auto _ : state) {
    partner.ping.set();
    const double begin = processorSeconds();
    partner.pong.wait();
    state.SetIterationTime(processorSeconds() - begin);
  }
  Bench::require(state, partner.answers() == static_cast<std::int64_t>(state.iterations()));
}

template <typename Signal>
void setAlone(benchmark::State& state) {
  Signal signal;
  for (auto _ : state)
    signal.set();
}

template <typename Signal>
void add(const std::string& side) {
  Workload("event, ping-pong of two threads")
      .realTime()
      .alsoInVarnThread()
      .side(side, pingPong<Signal>);
  Workload("event, processor time of a late wait")
      .manualTime()
      .iterations(100)
      .alsoInVarnThread()
      .side(side, waitForLateSet<Signal>);
  Bench::Latencies::workload("event, ping-pong of two threads").side(side, pingPongOnce<Signal>);
}

template <typename Signal>
void addSet(const std::string& side) {
  Workload("event, set with nobody waiting").alsoInVarnThread().side(side, setAlone<Signal>);
}

const bool g_bAdded = [] {
  add<OurSignal>("ours");
  add<LatchedSignal>("ours, latched");
  add<ConditionSignal>("condition");
  add<PosixSemaphore>("semaphore");
  add<StandardSemaphore>("std semaphore");
  add<EventDescriptor>("eventfd");
  addSet<VarnSupport::VarnEvent>("ours");
  addSet<VarnSupport::VarnLatchedEvent>("ours, latched");
  addSet<LockedFlag>("locked flag");
#ifdef PEER_POCO
  add<Poco::Event>("POCO");
  addSet<Poco::Event>("POCO");
#endif
  return true;
}();

}  // namespace
