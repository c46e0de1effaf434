// Look-ups of properties, which hand out a reference or a copy, by one thread and by several; and
// references in texts, expanded.
#include <mutex>
#include <numeric>
#include <shared_mutex>

#include "PropertySides.h"

namespace {

using Bench::fileOf;
using Bench::textFor;
using Bench::Workload;

template <typename Side>
struct ByReference {
  static const auto& get(const Side& side, const typename Side::Key& key) { return side.find(key); }
};
template <typename Side>
struct ByCopy {
  static auto get(const Side& side, const typename Side::Key& key) { return side.copy(key); }
};

// A set that locks nothing by itself, for threads that may change it any time.
template <typename Side, typename Mutex>
class Guarded : public Side {
 public:
  const auto& find(const typename Side::Key& key) const {
    const Hold hold(m_oMutex);
    return Side::find(key);
  }
  auto copy(const typename Side::Key& key) const {
    const Hold hold(m_oMutex);
    return Side::copy(key);
  }

 private:
  using Hold = std::conditional_t<std::is_same_v<Mutex, std::shared_mutex>, std::shared_lock<Mutex>,
                                  std::lock_guard<Mutex>>;

  mutable Mutex m_oMutex;
};

// All threads look up in one set, in an order that is drawn; all keys are there, or none.
template <typename Side, typename Way>
void lookUp(benchmark::State& state, int count, bool hit) {
  static std::mutex mutex;
  static std::map<int, std::weak_ptr<Side>> sets;
  const std::vector<Bench::Property>& properties = Bench::properties(count);
  std::unique_lock hold(mutex);
  std::shared_ptr<Side> set = sets[count].lock();
  if (set == nullptr) {
    set = std::make_shared<Side>();
    set->load(fileOf(count, Side::kGroup));
    sets[count] = set;
  }
  hold.unlock();
  const Side& side = *set;
  std::vector<std::size_t> order(static_cast<std::size_t>(count));
  std::iota(order.begin(), order.end(), 0U);
  Bench::Draw("look-ups").shuffle(order);
  order.resize(std::min<std::size_t>(order.size(), 10000));
  std::vector<typename Side::Key> keys;
  bool correct = true;
  for (const std::size_t place : order) {
    keys.push_back(textFor<Side>(properties[place].key + (hit ? "" : "x")));
    correct = correct && Way::get(side, keys.back()) ==
                             textFor<Side>(hit ? properties[place].value : std::string());
  }
  Bench::require(state, correct);
  std::size_t turn = 0;
  for (auto _ : state) {
    turn = turn + 1 == keys.size() ? 0 : turn + 1;
    benchmark::DoNotOptimize(Way::get(side, keys[turn]).size());
  }
}

constexpr int kKeys = 1000;

template <typename Side, template <typename> typename Way>
void addByThreads(const std::string& name, const std::string& what) {
  for (const int threads : {2, 4, 8}) {
    Workload("properties, look-up by " + std::to_string(threads) + " threads, " + what)
        .threads(threads)
        .side(name, [](benchmark::State& state) { lookUp<Side, Way<Side>>(state, kKeys, true); });
  }
}

template <typename Side, template <typename> typename Way>
void addLookUp(const std::string& name, const std::string& what) {
  Workload("properties, look-up, " + what)
      .alsoInVarnThread()
      .side(name, [](benchmark::State& state) { lookUp<Side, Way<Side>>(state, kKeys, true); });
  Workload("properties, look-up that fails, " + what).side(name, [](benchmark::State& state) {
    lookUp<Side, Way<Side>>(state, kKeys, false);
  });
  if constexpr (Side::kLocks) {
    addByThreads<Side, Way>(name, what);
  } else {
    addByThreads<Guarded<Side, std::mutex>, Way>(name + " and a mutex", what);
    addByThreads<Guarded<Side, std::shared_mutex>, Way>(name + " and a shared mutex", what);
  }
  if constexpr (std::is_same_v<Side, Bench::StandardMap>)
    addByThreads<Side, Way>("limit: " + name + " without a lock", what);
  for (const int count : {1000, 10000, 100000}) {
    Workload("growth of look-ups of " + what + ", each among " + std::to_string(count))
        .iterations(100000)
        .side(name,
              [count](benchmark::State& state) { lookUp<Side, Way<Side>>(state, count, true); });
  }
}

template <typename Side>
void addLookUps(const std::string& name) {
  if constexpr (requires(Side side, typename Side::Key key) { side.find(key); })
    addLookUp<Side, ByReference>(name, "a reference");
  addLookUp<Side, ByCopy>(name, "a copy");
}

// A text with one reference to each of the properties, per reference.
template <typename Side>
void expand(benchmark::State& state, int references) {
  Side side;
  side.load(fileOf(references, Side::kGroup));
  std::string text;
  std::string expanded;
  for (const auto& [key, value] : Bench::properties(references)) {
    text += "some text " + Side::referenceTo(key) + " ";
    expanded += "some text " + value + " ";
  }
  Bench::measure(state, references, expanded, [&] { return side.expand(text); });
}

template <typename Side>
void addExpansion(const std::string& name) {
  Workload("properties, 100 references expanded, per reference")
      .side(name, [](benchmark::State& state) { expand<Side>(state, 100); });
  for (const int references : {100, 1000, 10000}) {
    Workload("growth of expansion, per reference of " + std::to_string(references))
        .side(name, [references](benchmark::State& state) { expand<Side>(state, references); });
  }
}

const bool g_bAdded = [] {
  Bench::addPropertySides([](auto side, const char* name) {
    using Side = typename decltype(side)::type;
    addLookUps<Side>(name);
    if constexpr (requires(Side set) { set.expand(""); })
      addExpansion<Side>(name);
  });
  return true;
}();

}  // namespace
