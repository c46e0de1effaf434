// A timer that is started and stopped again, as time-outs of connections are, among many that are
// active. The deadlines lie in random order.
//
// Ours are safe from any thread; the timers of the others belong to the thread of their loop, which
// is the one that measures, and are not locked.
#include <chrono>
#include <memory>
#include <random>
#include <vector>

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

// Timers that are started and stopped.
constexpr std::size_t kTried = 1024;

// Each side has start(timer, delay) and stop(timer) of one of its timers.

class OurTimers {
 public:
  explicit OurTimers(std::size_t count) {
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
  // The function of a timer that is stopped is called, too.
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
void startAndStop(benchmark::State& state, std::size_t active) {
  Timers timers(active + kTried);
  std::mt19937 random(7);
  std::vector<milliseconds> delays(kTried);
  for (milliseconds& delay : delays)
    delay = milliseconds(3600000 + random() % 3600000);
  for (std::size_t timer = 0; timer < active; ++timer)
    timers.start(kTried + timer, milliseconds(3600000 + random() % 3600000));
  std::size_t next = 0;
  for (auto _ : state) {
    timers.start(next, delays[next]);
    timers.stop(next);
    next = (next + 1) % kTried;
  }
  Bench::require(state, !timers.isActive(0) && timers.isActive(kTried + active / 2));
}

template <typename Timers>
void add(const std::string& side) {
  for (const auto& [active, name] :
       {std::pair<std::size_t, const char*>(100, "100"), {10000, "10,000"}, {100000, "100,000"}}) {
    Bench::Workload(std::string("timer, start and stop among ") + name)
        .side(side,
              [active = active](benchmark::State& state) { startAndStop<Timers>(state, active); });
  }
}

const bool g_bAdded = [] {
  add<OurTimers>("ours");
#ifdef PEER_LIBUV
  add<LibuvTimers>("libuv");
#endif
#ifdef PEER_BOOST
  add<AsioTimers>("Boost");
#endif
  return true;
}();

}  // namespace
