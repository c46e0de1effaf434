// Bytes of the heap that objects take, with what they have made for themselves by their first use.
#ifndef BENCH_SIZES_H
#define BENCH_SIZES_H

#include <malloc.h>

#include <memory>

#include "Workload.h"

namespace Bench {

inline std::size_t bytesInUse() {
  const auto info = mallinfo2();
  return info.uordblks + info.hblkhd;
}

// `fill` makes `count` of them, in what `make` returns.
template <typename Make, typename Fill>
void addSizeOfFilled(const std::string& what, const std::string& side, int count, Make make,
                     Fill fill) {
  const auto measure = [make, fill, count](benchmark::State& state) {
    auto all = make();
    const std::size_t before = bytesInUse();
    for (auto _ : state)
      fill(all, count);
    const auto bytes = static_cast<double>(bytesInUse() - before);
    require(state, bytes > 0);
    state.counters["B"] = bytes / count;
  };
  Workload("size, " + what).iterations(1).side(side, measure);
}

// Objects of a type, each of which `use` uses once.
template <typename T, typename Use>
void addSize(const std::string& what, const std::string& side, Use use) {
  constexpr int kObjects = 1000;
  addSizeOfFilled(
      what, side, kObjects,
      [] {
        std::vector<std::unique_ptr<T>> all;
        all.reserve(kObjects);
        return all;
      },
      [use](auto& all, int count) {
        for (int i = 0; i < count; ++i) {
          all.push_back(std::make_unique<T>());
          use(*all.back());
        }
      });
}

}  // namespace Bench

#endif
