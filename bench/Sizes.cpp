// Bytes of the heap per lock, event, queue, thread and timer.
#include "Sizes.h"

#include <condition_variable>
#include <mutex>
#include <shared_mutex>

#ifdef PEER_POCO
#include <Poco/Event.h>
#include <Poco/Mutex.h>
#include <Poco/NotificationQueue.h>
#include <Poco/RWLock.h>
#include <Poco/Thread.h>
#endif
#ifdef PEER_BOOST
#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/thread/recursive_mutex.hpp>
#include <boost/thread/shared_mutex.hpp>
#endif
#ifdef PEER_LIBUV
#include <uv.h>
#endif

namespace {

using namespace VarnSupport;
using Bench::addSize;

constexpr auto kUnused = [](auto&) {};
constexpr auto kLockOnce = [](auto& lock) {
  lock.lock();
  lock.unlock();
};
constexpr auto kSetOnce = [](auto& event) { event.set(); };
constexpr std::chrono::hours kHour(1);

// What the binary interface lays down for a lock: copies share a state, to which each has a pointer
// in a block of its own.
template <typename State>
using SharedState = std::unique_ptr<std::unique_ptr<State>>;
template <typename State>
SharedState<State> makeState() {
  return std::make_unique<std::unique_ptr<State>>(std::make_unique<State>());
}
struct LeastLock {
  struct State {
    void* table;
    int references;
    pthread_mutex_t mutex;
    pthread_t owner;
    void* links[2];
    int count;
  };
  SharedState<State> state = makeState<State>();
  bool isRecursive;
};
struct LeastReadWriteLock {
  struct State {
    void* table;
    int references;
    pthread_rwlock_t lock;
  };
  void* table;
  SharedState<State> state = makeState<State>();
};

void addLocks() {
  const auto readOnce = [](auto& lock) {
    lock.readLock();
    lock.readUnLock();
  };
  addSize<VarnCriticalSectionObject>("lock", "ours", kLockOnce);
  addSize<LeastLock>("lock", "limit: its fields", kUnused);
  addSize<std::recursive_mutex>("lock", "std", kLockOnce);
  addSize<VarnReadWriteLock>("read-write lock", "ours", readOnce);
  addSize<LeastReadWriteLock>("read-write lock", "limit: its fields", kUnused);
  addSize<std::shared_mutex>("read-write lock", "std", kLockOnce);
#ifdef PEER_POCO
  addSize<Poco::Mutex>("lock", "POCO", kLockOnce);
  addSize<Poco::RWLock>("read-write lock", "POCO", [](auto& lock) {
    lock.readLock();
    lock.unlock();
  });
#endif
#ifdef PEER_BOOST
  addSize<boost::recursive_mutex>("lock", "Boost", kLockOnce);
  addSize<boost::shared_mutex>("read-write lock", "Boost", kLockOnce);
#endif
}

struct Condition {
  std::mutex mutex;
  std::condition_variable changed;
  bool isSet = false;
};

void addEvents() {
  addSize<VarnEvent>("event", "ours", kSetOnce);
  addSize<VarnLatchedEvent>("event", "ours, latched", kSetOnce);
  addSize<Condition>("event", "condition", [](Condition& event) { event.changed.notify_all(); });
  addSize<VarnQueue<int>>("queue, empty", "ours", [](auto& queue) {
    queue.give(1);
    queue.take();
  });
  addSize<VarnThread>("thread, not started", "ours", kUnused);
#ifdef PEER_POCO
  addSize<Poco::Event>("event", "POCO", kSetOnce);
  addSize<Poco::NotificationQueue>("queue, empty", "POCO", [](auto& queue) {
    queue.enqueueNotification(new Poco::Notification);
    const Poco::AutoPtr<Poco::Notification> item(queue.dequeueNotification());
  });
  addSize<Poco::Thread>("thread, not started", "POCO", kUnused);
#endif
}

#ifdef PEER_LIBUV
struct UvLoop {
  UvLoop() { uv_loop_init(&loop); }
  uv_loop_t loop{};
};
UvLoop& uvLoop() {
  static UvLoop loop;
  return loop;
}
struct UvTimer {
  UvTimer() { uv_timer_init(&uvLoop().loop, &timer); }
  UvTimer(const UvTimer&) = delete;
  UvTimer& operator=(const UvTimer&) = delete;
  ~UvTimer() {
    uv_timer_stop(&timer);
    uv_close(reinterpret_cast<uv_handle_t*>(&timer), nullptr);
    uv_run(&uvLoop().loop, UV_RUN_NOWAIT);
  }
  uv_timer_t timer{};
};
#endif

#ifdef PEER_BOOST
struct AsioTimer : boost::asio::steady_timer {
  AsioTimer() : boost::asio::steady_timer(loop()) {}
  static boost::asio::io_context& loop() {
    static boost::asio::io_context context;
    return context;
  }
};
#endif

struct MonotonicTimer : VarnMonotonicTimer {
  MonotonicTimer() : VarnMonotonicTimer(kHour, [] {}) {}
};

void addTimers() {
  addSize<MonotonicTimer>("timer, active", "ours", [](auto& timer) { timer.start(); });
  addSize<VarnTimer>("timer, active", "ours, VarnTimer",
                     [](auto& timer) { timer.start(3600, 0, true); });
#ifdef PEER_LIBUV
  addSize<UvTimer>("timer, active", "libuv", [](UvTimer& timer) {
    uv_timer_start(
        &timer.timer, [](uv_timer_t*) {}, 3600000, 0);
  });
#endif
#ifdef PEER_BOOST
  addSize<AsioTimer>("timer, active", "Boost", [](AsioTimer& timer) {
    timer.expires_after(kHour);
    timer.async_wait([](const boost::system::error_code&) {});
  });
#endif
}

const bool g_bAdded = [] {
  addLocks();
  addEvents();
  addTimers();
  return true;
}();

}  // namespace
