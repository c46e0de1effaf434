// A counted copy and its release.
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

const Bench::Workload g_oCopy("object, smart pointer copy and release");

template <typename Pointer>
void add(const std::string& side, const Pointer& pointer) {
  g_oCopy.side(side, [pointer](benchmark::State& state) {
    for (auto _ : state) {
      const Pointer copy(pointer);
      benchmark::DoNotOptimize(&copy);
    }
    Bench::require(state, Pointer(pointer) == pointer);
  });
}

#ifdef PEER_POCO
class PocoObject : public Poco::RefCountedObject {};
#endif
#ifdef PEER_BOOST
class BoostObject : public boost::intrusive_ref_counter<BoostObject> {};
#endif

const bool g_bAdded = [] {
  using VarnSupport::VarnObjectBase;
  add("ours", VarnSupport::VarnSmartPointer<VarnObjectBase>(new VarnObjectBase));
  add("std", std::make_shared<int>(0));
#ifdef PEER_POCO
  add("POCO", Poco::AutoPtr<PocoObject>(new PocoObject));
#endif
#ifdef PEER_BOOST
  add("Boost", boost::intrusive_ptr<BoostObject>(new BoostObject));
#endif
  g_oCopy.side("limit: plain mutex twice", [](benchmark::State& state) {
    std::mutex mutex;
    int count = 0;
    for (auto _ : state) {
      for (const int by : {1, -1}) {
        const std::lock_guard hold(mutex);
        count += by;
        benchmark::DoNotOptimize(count);
      }
    }
    Bench::require(state, count == 0);
  });
  return true;
}();

}  // namespace
