// Telling observers of an event, each of which counts it; and observers that come and go.
#include <deque>

#include "Workload.h"

#ifdef PEER_POCO
#include <Poco/BasicEvent.h>
#include <Poco/Delegate.h>
#endif
#ifdef PEER_BOOST
#include <boost/signals2/signal.hpp>
#endif

namespace {

class OurObserver : public VarnSupport::VarnDependent {
 public:
  void handleNotification(VarnSupport::VarnCollaborator&,
                          const VarnSupport::VarnNotification& notification) override {
    m_nSum += notification.getId();
  }
  std::int64_t sum() const { return m_nSum; }

 private:
  std::int64_t m_nSum = 0;
};

struct Ours {
  explicit Ours(int count) : observers(static_cast<std::size_t>(count)) {
    for (OurObserver& observer : observers)
      source.addDependent(observer);
  }
  void notify() { source.notify(notification); }
  void add() { source.addDependent(observers.back()); }
  void removeLast() { source.removeDependent(observers.back()); }

  std::deque<OurObserver> observers;
  VarnSupport::VarnCollaborator source;
  const VarnSupport::VarnNotification notification{1};
};

class PeerObserver {
 public:
  void handle(int id) { m_nSum += id; }
  std::int64_t sum() const { return m_nSum; }

 private:
  std::int64_t m_nSum = 0;
};

#ifdef PEER_POCO
class PocoObserver : public PeerObserver {
 public:
  void handleConst(const int& id) { handle(id); }
};

struct WithPoco {
  explicit WithPoco(int count) : observers(static_cast<std::size_t>(count)) {
    for (PocoObserver& observer : observers)
      source += Poco::delegate(&observer, &PocoObserver::handleConst);
  }
  void notify() { source.notify(this, 1); }
  void add() { source += Poco::delegate(&observers.back(), &PocoObserver::handleConst); }
  void removeLast() { source -= Poco::delegate(&observers.back(), &PocoObserver::handleConst); }

  std::deque<PocoObserver> observers;
  Poco::BasicEvent<const int> source;
};
#endif

#ifdef PEER_BOOST
struct WithBoost {
  explicit WithBoost(int count) : observers(static_cast<std::size_t>(count)) {
    for (PeerObserver& observer : observers)
      last = source.connect([&observer](int id) { observer.handle(id); });
  }
  void notify() { source(1); }
  void add() {
    last = source.connect([&observer = observers.back()](int id) { observer.handle(id); });
  }
  void removeLast() { last.disconnect(); }

  std::deque<PeerObserver> observers;
  boost::signals2::signal<void(int)> source;
  boost::signals2::connection last;
};
#endif

template <typename Side>
void notifyAll(benchmark::State& state, int count) {
  Side side(count);
  for (auto _ : state)
    side.notify();
  state.SetItemsProcessed(state.iterations());
  for (const auto& observer : side.observers)
    Bench::require(state, observer.sum() == static_cast<std::int64_t>(state.iterations()));
}

// The last of `count` observers leaves and comes back, and is told once before the clock starts.
template <typename Side>
void removeAndAdd(benchmark::State& state, int count) {
  Side side(count);
  side.notify();
  side.removeLast();
  side.notify();
  Bench::require(state, side.observers.back().sum() == 1);
  for (auto _ : state) {
    side.add();
    side.removeLast();
  }
}

template <typename Side>
void add(const std::string& name) {
  for (const int count : {1, 10, 100, 1000, 10000}) {
    const std::string number = std::to_string(count);
    if (count <= 100)
      Bench::Workload("notify, observers: " + number)
          .alsoInVarnThread()
          .side(name, [count](benchmark::State& state) { notifyAll<Side>(state, count); });
    if (count > 1 && count <= 1000)
      Bench::Workload("growth of notify, per observer of " + number)
          .side(name, [count](benchmark::State& state) {
            notifyAll<Side>(state, count);
            state.SetItemsProcessed(state.iterations() * count);
          });
    if (count >= 100)
      Bench::Workload("growth of observers that come and go, each among " + number)
          .side(name, [count](benchmark::State& state) { removeAndAdd<Side>(state, count); });
  }
  Bench::Workload("notify, an observer added and removed among 10")
      .alsoInVarnThread()
      .side(name, [](benchmark::State& state) { removeAndAdd<Side>(state, 10); });
}

const bool g_bAdded = [] {
  add<Ours>("ours");
#ifdef PEER_POCO
  add<WithPoco>("POCO");
#endif
#ifdef PEER_BOOST
  add<WithBoost>("Boost");
#endif
  return true;
}();

}  // namespace
