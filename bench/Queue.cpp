// Items handed from one or more threads to others; every item is counted at its end.
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

// Threads that take items until each has got the end, and add them up.
template <typename Queue>
class Consumers {
 public:
  explicit Consumers(int count) {
    for (int i = 0; i < count; ++i)
      m_vThreads.emplace_back([this] { consume(); });
  }
  Consumers(const Consumers&) = delete;
  Consumers& operator=(const Consumers&) = delete;
  ~Consumers() { end(); }

  // Waits until `count` items were taken, and begins anew.
  void waitFor(int count) {
    for (int now = m_nTaken; now != count; now = m_nTaken)
      m_nTaken.wait(now);
    m_nTaken = 0;
  }
  void end() {
    for (std::size_t i = 0; i < m_vThreads.size(); ++i)
      queue.push(kEnd);
    for (std::thread& thread : m_vThreads)
      thread.join();
    m_vThreads.clear();
  }
  std::int64_t sum() const { return m_nSum; }

  Queue queue;

 private:
  void consume() {
    for (int item = queue.pop(); item != kEnd; item = queue.pop()) {
      m_nSum.fetch_add(item, std::memory_order_relaxed);
      if ((m_nTaken.fetch_add(1, std::memory_order_acq_rel) + 1) % kItems == 0)
        m_nTaken.notify_one();
    }
  }

  std::atomic<std::int64_t> m_nSum{0};
  std::atomic<int> m_nTaken{0};
  std::vector<std::thread> m_vThreads;
};

template <typename Queue>
void handOver(benchmark::State& state, int producers, int consumers) {
  Consumers<Queue> all(consumers);
  const auto produce = [&all] {
    for (int item = 0; item < kItems; ++item)
      all.queue.push(item);
  };
  for (auto _ : state) {
    std::vector<std::thread> others;
    for (int i = 1; i < producers; ++i)
      others.emplace_back(produce);
    produce();
    for (std::thread& other : others)
      other.join();
    all.waitFor(kItems * producers);
  }
  all.end();
  const std::int64_t items = state.iterations() * producers;
  state.SetItemsProcessed(items * kItems);
  Bench::require(state, all.sum() == items * kItems * (kItems - 1) / 2);
}

// From before an item goes in until after another thread has taken it and told so.
template <typename Queue>
void handOverOnce(benchmark::State& state) {
  Queue there;
  Queue back;
  std::thread partner([&] {
    for (int item = there.pop(); item != kEnd; item = there.pop())
      back.push(item);
  });
  int item = 0;
  bool correct = true;
  Bench::measureTail(state, [&] {
    there.push(++item);
    correct = back.pop() == item && correct;
  });
  there.push(kEnd);
  partner.join();
  Bench::require(state, correct);
}

template <typename Queue>
void add(const std::string& side) {
  constexpr std::pair<int, int> kThreads[] = {{1, 1}, {1, 2}, {2, 2}, {4, 4}};
  for (const auto& [producers, consumers] : kThreads) {
    Bench::Workload("queue, per item, " + std::to_string(producers) + " to " +
                    std::to_string(consumers))
        .realTime()
        .side(side, [producers = producers, consumers = consumers](benchmark::State& state) {
          handOver<Queue>(state, producers, consumers);
        });
  }
  Bench::Latencies::workload("queue, an item there and back").side(side, handOverOnce<Queue>);
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
