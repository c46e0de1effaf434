// A counted copy and its release: by one thread, and by several, of one object or of one each.
#include <memory>
#include <mutex>

#include "Workload.h"

#ifdef PEER_POCO
#include <Poco/AutoPtr.h>
#include <Poco/RefCountedObject.h>
#endif
#ifdef PEER_BOOST
#include <boost/smart_ptr/intrusive_ptr.hpp>
#include <boost/smart_ptr/intrusive_ref_counter.hpp>
#endif

namespace {

using Bench::Workload;

template <typename Pointer>
void copyAndRelease(benchmark::State& state, const Pointer& pointer) {
  for (auto _ : state) {
    const Pointer copy(pointer);
    benchmark::DoNotOptimize(&copy);
  }
  Bench::require(state, Pointer(pointer) == pointer);
}

// `make` returns a pointer to a new object.
template <typename Make>
void add(const std::string& side, Make make) {
  const auto copyOfOne = [shared = make()](benchmark::State& state) {
    copyAndRelease(state, shared);
  };
  Workload("object, smart pointer copy and release").alsoInVarnThread().side(side, copyOfOne);
  for (const int threads : {2, 4, 8}) {
    const std::string by = std::to_string(threads) + " threads";
    Workload("object, one copied by " + by)
        .threads(threads)
        .alsoInVarnThread()
        .side(side, copyOfOne);
    Workload("object, one each copied by " + by)
        .threads(threads)
        .alsoInVarnThread()
        .side(side, [make](benchmark::State& state) { copyAndRelease(state, make()); });
  }
}

#ifdef PEER_POCO
class PocoObject : public Poco::RefCountedObject {};
#endif
#ifdef PEER_BOOST
class BoostObject : public boost::intrusive_ref_counter<BoostObject> {};
#endif

void changeUnderMutex(benchmark::State& state) {
  static std::mutex mutex;
  int count = 0;
  for (auto _ : state) {
    for (const int by : {1, -1}) {
      const std::lock_guard hold(mutex);
      count += by;
      benchmark::DoNotOptimize(count);
    }
  }
  Bench::require(state, count == 0);
}

const bool g_bAdded = [] {
  using VarnSupport::VarnObjectBase;
  add("ours", [] { return VarnSupport::VarnSmartPointer<VarnObjectBase>(new VarnObjectBase); });
  add("std", [] { return std::make_shared<int>(0); });
#ifdef PEER_POCO
  add("POCO", [] { return Poco::AutoPtr<PocoObject>(new PocoObject); });
#endif
#ifdef PEER_BOOST
  add("Boost", [] { return boost::intrusive_ptr<BoostObject>(new BoostObject); });
#endif
  Workload("object, smart pointer copy and release")
      .side("limit: one mutex, locked twice", changeUnderMutex);
  return true;
}();

}  // namespace
