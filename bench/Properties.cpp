// Property files of 100,000 lines, and in the growth rows fewer, loaded and saved.
#include "PropertySides.h"

namespace {

using Bench::fileOf;
using Bench::textFor;
using Bench::Workload;

template <typename Side>
void load(benchmark::State& state, int lines) {
  const std::string file = fileOf(lines, Side::kGroup);
  const Bench::Property& last = Bench::properties(lines).back();
  const auto key = textFor<Side>(last.key);
  const auto value = textFor<Side>(last.value);
  Bench::measure(state, lines, true, [&] {
    Side side;
    side.load(file);
    return side.copy(key) == value;
  });
}

template <typename Side>
void addLoad(const std::string& name) {
  Workload("properties, load, per line").side(name, [](benchmark::State& state) {
    load<Side>(state, 100000);
  });
  for (const int lines : {1000, 10000, 100000}) {
    Workload("growth of property load, per line of " + std::to_string(lines))
        .side(name, [lines](benchmark::State& state) { load<Side>(state, lines); });
  }
}

// Only makes the map that getProperties() hands out, of keys that are known and in order.
void copyMap(benchmark::State& state) {
  constexpr int kLines = 100000;
  VarnSupport::VarnProperties<std::string> set;
  set.loadProperties(fileOf(kLines, ""), '=');
  const auto map = set.getProperties();
  for (auto _ : state)
    benchmark::DoNotOptimize(std::map(map));
  state.SetItemsProcessed(state.iterations() * kLines);
}

template <typename Side>
void addSave(const std::string& name) {
  Workload("properties, save, per line").side(name, [](benchmark::State& state) {
    constexpr int kLines = 100000;
    const std::string out = Bench::folderOfProperties() / "saved";
    Side side;
    side.load(fileOf(kLines, Side::kGroup));
    side.save(out);
    const std::string saved = Bench::contentsOf(out);
    for (const std::size_t line : {0, kLines - 1}) {
      const auto& [key, value] = Bench::properties(kLines)[line];
      Bench::require(state, saved.find(key) != std::string::npos &&
                                saved.find(value + "\n") != std::string::npos);
    }
    for (auto _ : state)
      side.save(out);
    state.SetItemsProcessed(state.iterations() * kLines);
  });
}

const bool g_bAdded = [] {
  Bench::addPropertySides([](auto side, const char* name) {
    using Side = typename decltype(side)::type;
    addLoad<Side>(name);
    if constexpr (requires(Side set) { set.save(""); })
      addSave<Side>(name);
  });
  Workload("properties, load, per line").side("limit: map made", copyMap);
  return true;
}();

}  // namespace
