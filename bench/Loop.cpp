// A timer that is started and stopped again, as time-outs of connections are, or started anew,
// among many that are active. The deadlines lie in random order.
//
// Ours are safe from any thread; the timers of the others belong to the thread of their loop, which
// is the one that measures, and are not locked.
#include <atomic>
#include <chrono>
#include <memory>
#include <thread>
#include <vector>

#include "Data.h"
#include "Workload.h"

#ifdef PEER_LIBUV
#include <uv.h>
#endif
#ifdef PEER_BOOST
#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#endif

namespace {

using std::chrono::milliseconds;

// Timers that are started, and stopped.
constexpr std::size_t kTried = 1024;
// How often, as each try to find that out would make all timers anew.
constexpr int kTurns = 50000;

// Each side has start(timer, delay) and stop(timer) of one of its timers.

class MonotonicTimers {
 public:
  explicit MonotonicTimers(std::size_t count) {
    while (m_vTimers.size() < count)
      m_vTimers.push_back(
          std::make_unique<VarnSupport::VarnMonotonicTimer>(std::chrono::hours(1), [] {}));
  }
  void start(std::size_t timer, milliseconds delay) { m_vTimers[timer]->startOnce(delay); }
  void stop(std::size_t timer) { m_vTimers[timer]->stop(); }
  bool isActive(std::size_t timer) const { return m_vTimers[timer]->isActive(); }

 private:
  std::vector<std::unique_ptr<VarnSupport::VarnMonotonicTimer>> m_vTimers;
};

class SecondTimers {
 public:
  explicit SecondTimers(std::size_t count) {
    while (m_vTimers.size() < count)
      m_vTimers.push_back(std::make_unique<VarnSupport::VarnTimer>(3600, 0, true));
  }
  void start(std::size_t timer, milliseconds delay) {
    m_vTimers[timer]->start(static_cast<long>(delay.count()), true);
  }
  void stop(std::size_t timer) { m_vTimers[timer]->stop(); }
  // A VarnTimer does not tell whether it is active: of two that are due, the one that was stopped
  // is not set. Takes a second, and is found out once.
  static bool work() {
    static const bool works = [] {
      Counter counters[2];
      VarnSupport::VarnTimer timers[2];
      for (const int i : {0, 1}) {
        timers[i].addDependent(counters[i]);
        timers[i].start(1, true);
        if (i == 0)
          timers[i].stop();
      }
      for (int waited = 0; counters[1].count == 0 && waited < 10000; ++waited)
        std::this_thread::sleep_for(milliseconds(1));
      return counters[0].count == 0 && counters[1].count == 1;
    }();
    return works;
  }

 private:
  struct Counter : VarnSupport::VarnDependent {
    void handleNotification(VarnSupport::VarnCollaborator&,
                            const VarnSupport::VarnNotification&) override {
      ++count;
    }
    std::atomic<int> count{0};
  };

  std::vector<std::unique_ptr<VarnSupport::VarnTimer>> m_vTimers;
};

#ifdef PEER_LIBUV
class LibuvTimers {
 public:
  explicit LibuvTimers(std::size_t count) : m_vTimers(count) {
    uv_loop_init(&m_oLoop);
    for (uv_timer_t& timer : m_vTimers)
      uv_timer_init(&m_oLoop, &timer);
  }
  LibuvTimers(const LibuvTimers&) = delete;
  LibuvTimers& operator=(const LibuvTimers&) = delete;
  ~LibuvTimers() {
    for (uv_timer_t& timer : m_vTimers)
      uv_close(reinterpret_cast<uv_handle_t*>(&timer), nullptr);
    uv_run(&m_oLoop, UV_RUN_DEFAULT);
    uv_loop_close(&m_oLoop);
  }
  // Like the others, with the time of this moment.
  void start(std::size_t timer, milliseconds delay) {
    uv_update_time(&m_oLoop);
    uv_timer_start(
        &m_vTimers[timer], [](uv_timer_t*) {}, static_cast<std::uint64_t>(delay.count()), 0);
  }
  void stop(std::size_t timer) { uv_timer_stop(&m_vTimers[timer]); }
  bool isActive(std::size_t timer) const {
    return uv_is_active(reinterpret_cast<const uv_handle_t*>(&m_vTimers[timer])) != 0;
  }

 private:
  uv_loop_t m_oLoop{};
  std::vector<uv_timer_t> m_vTimers;
};
#endif

#ifdef PEER_BOOST
class AsioTimers {
 public:
  explicit AsioTimers(std::size_t count) {
    while (m_vTimers.size() < count)
      m_vTimers.emplace_back(m_oLoop);
  }
  void start(std::size_t timer, milliseconds delay) {
    m_vTimers[timer].expires_after(delay);
    m_vTimers[timer].async_wait([](const boost::system::error_code&) {});
  }
  // The function of a timer that is stopped, or started anew, is called, too.
  void restart(std::size_t timer, milliseconds delay) {
    start(timer, delay);
    m_oLoop.poll();
  }
  void stop(std::size_t timer) {
    m_vTimers[timer].cancel();
    m_oLoop.poll();
  }
  bool isActive(std::size_t timer) { return m_vTimers[timer].cancel() > 0; }

 private:
  boost::asio::io_context m_oLoop;
  std::vector<boost::asio::steady_timer> m_vTimers;
};
#endif

template <typename Timers>
bool work(Timers& timers) {
  if constexpr (requires { Timers::work(); }) {
    return Timers::work();
  } else {
    timers.start(0, milliseconds(3600000));
    timers.start(1, milliseconds(3600000));
    timers.stop(0);
    return !timers.isActive(0) && timers.isActive(1);
  }
}

// Timers beside many that are active, and the next one of them with a delay of its own.
template <typename Timers>
class Many {
 public:
  explicit Many(std::size_t active) : timers(active + kTried) {
    for (milliseconds& delay : m_vDelays)
      delay = draw();
    for (std::size_t timer = 0; timer < active; ++timer)
      timers.start(kTried + timer, draw());
  }
  milliseconds delay() const { return m_vDelays[next]; }
  void step() { next = (next + 1) % kTried; }

  Timers timers;
  std::size_t next = 0;

 private:
  // From an hour on: evenly, mostly short, or in few steps as time-outs of a kind are.
  milliseconds draw() {
    const std::size_t wide = m_oDraw.below(3600000);
    const std::size_t kinds[] = {wide, wide * m_oDraw.below(1000) / 1000, wide / 900000 * 900000};
    return milliseconds(3600000 + Bench::ofShape(kinds));
  }

  Bench::Draw m_oDraw{"delays"};
  std::vector<milliseconds> m_vDelays = std::vector<milliseconds>(kTried);
};

template <typename Timers>
void startAndStop(benchmark::State& state, std::size_t active) {
  Many<Timers> many(active);
  Bench::require(state, work(many.timers));
  for (auto _ : state) {
    many.timers.start(many.next, many.delay());
    many.timers.stop(many.next);
    many.step();
  }
}

template <typename Timers>
void restart(benchmark::State& state, std::size_t active) {
  Many<Timers> many(active);
  Bench::require(state, work(many.timers));
  for (auto _ : state) {
    if constexpr (requires { many.timers.restart(0, many.delay()); })
      many.timers.restart(many.next, many.delay());
    else
      many.timers.start(many.next, many.delay());
    many.step();
  }
}

template <typename Timers>
void add(const std::string& side) {
  for (const auto& [active, name] :
       {std::pair<std::size_t, const char*>(100, "100"), {10000, "10,000"}, {100000, "100,000"}}) {
    Bench::Workload(std::string("timer, start and stop among ") + name)
        .iterations(kTurns)
        .alsoInVarnThread()
        .side(side,
              [active = active](benchmark::State& state) { startAndStop<Timers>(state, active); });
    Bench::Workload(std::string("timer, restart among ") + name)
        .iterations(kTurns)
        .side(side, [active = active](benchmark::State& state) { restart<Timers>(state, active); });
  }
}

const bool g_bAdded = [] {
  add<MonotonicTimers>("ours");
  add<SecondTimers>("ours, VarnTimer");
#ifdef PEER_LIBUV
  add<LibuvTimers>("libuv");
#endif
#ifdef PEER_BOOST
  add<AsioTimers>("Boost");
#endif
  return true;
}();

}  // namespace
