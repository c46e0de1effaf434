// Items handed from one thread to one or two others; every item is counted at its end.
#include <atomic>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <queue>
#include <thread>
#include <vector>

#include "Workload.h"

#ifdef PEER_POCO
#include <Poco/Notification.h>
#include <Poco/NotificationQueue.h>
#endif
#ifdef PEER_GLIB
#include <glib.h>
#endif

namespace {

constexpr int kItems = 20000;
constexpr int kEnd = -1;

// Each side has push(item) and pop(), which waits; kEnd stops the consumer that takes it.

class OurQueue : private VarnSupport::VarnBaseSynchronizedQueue {
 public:
  void push(int item) {
    m_oRendezvous.lockSyncMutex();
    {
      const VarnSupport::VarnCriticalSection hold(getLock());
      m_vItems.push_back(item);
    }
    m_oRendezvous.setSyncEvent();
    m_oRendezvous.unlockSyncMutex();
  }
  int pop() {
    m_oRendezvous.lockSyncMutex();
    while (m_vItems.empty() && !m_oRendezvous.isSentinel())
      m_oRendezvous.waitForSyncEvent();
    int item = kEnd;
    {
      const VarnSupport::VarnCriticalSection hold(getLock());
      item = m_vItems.front();
      m_vItems.pop_front();
    }
    m_oRendezvous.unlockSyncMutex();
    return item;
  }

 private:
  void clear() override { m_vItems.clear(); }

  std::deque<int> m_vItems;
  VarnSupport::VarnBaseProducerConsumer m_oRendezvous{*this};
};

class KitQueue {
 public:
  void push(int item) { m_oItems.give(item); }
  int pop() { return m_oItems.take().value_or(kEnd); }

 private:
  VarnSupport::VarnQueue<int> m_oItems;
};

class StandardQueue {
 public:
  void push(int item) {
    {
      const std::lock_guard hold(m_oMutex);
      m_vItems.push(item);
    }
    m_oChanged.notify_one();
  }
  int pop() {
    std::unique_lock hold(m_oMutex);
    m_oChanged.wait(hold, [this] { return !m_vItems.empty(); });
    const int item = m_vItems.front();
    m_vItems.pop();
    return item;
  }

 private:
  std::mutex m_oMutex;
  std::condition_variable m_oChanged;
  std::queue<int> m_vItems;  // guarded by m_oMutex
};

#ifdef PEER_POCO
class PocoQueue {
 public:
  void push(int item) { m_oQueue.enqueueNotification(new Item(item)); }
  int pop() {
    const Poco::AutoPtr<Poco::Notification> item(m_oQueue.waitDequeueNotification());
    return static_cast<const Item*>(item.get())->value;
  }

 private:
  struct Item : Poco::Notification {
    explicit Item(int itsValue) : value(itsValue) {}
    const int value;
  };

  Poco::NotificationQueue m_oQueue;
};
#endif

#ifdef PEER_GLIB
class GLibQueue {
 public:
  GLibQueue() = default;
  GLibQueue(const GLibQueue&) = delete;
  GLibQueue& operator=(const GLibQueue&) = delete;
  ~GLibQueue() { g_async_queue_unref(m_pQueue); }

  // Null cannot be queued.
  void push(int item) { g_async_queue_push(m_pQueue, GINT_TO_POINTER(item + 2)); }
  int pop() { return GPOINTER_TO_INT(g_async_queue_pop(m_pQueue)) - 2; }

 private:
  GAsyncQueue* m_pQueue = g_async_queue_new();
};
#endif

template <typename Queue>
void handOver(benchmark::State& state, int consumers) {
  Queue queue;
  std::atomic<std::int64_t> sum{0};
  std::atomic<int> taken{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < consumers; ++i) {
    threads.emplace_back([&] {
      for (int item = queue.pop(); item != kEnd; item = queue.pop()) {
        sum.fetch_add(item, std::memory_order_relaxed);
        if (taken.fetch_add(1, std::memory_order_acq_rel) + 1 == kItems)
          taken.notify_one();
      }
    });
  }
  std::int64_t expected = 0;
  for (auto _ : state) {
    taken = 0;
    for (int item = 0; item < kItems; ++item)
      queue.push(item);
    for (int now = taken; now != kItems; now = taken)
      taken.wait(now);
    expected += static_cast<std::int64_t>(kItems) * (kItems - 1) / 2;
  }
  for (int i = 0; i < consumers; ++i)
    queue.push(kEnd);
  for (std::thread& thread : threads)
    thread.join();
  state.SetItemsProcessed(state.iterations() * kItems);
  Bench::require(state, sum == expected);
}

template <typename Queue>
void add(const std::string& side) {
  for (const int consumers : {1, 2}) {
    Bench::Workload("queue, per item, 1 to " + std::to_string(consumers))
        .side(side, [consumers](benchmark::State& state) { handOver<Queue>(state, consumers); })
        ->UseRealTime();
  }
}

const bool g_bAdded = [] {
  add<OurQueue>("ours");
  add<KitQueue>("ours, VarnQueue");
  add<StandardQueue>("std");
#ifdef PEER_POCO
  add<PocoQueue>("POCO");
#endif
#ifdef PEER_GLIB
  add<GLibQueue>("GLib");
#endif
  return true;
}();

}  // namespace
