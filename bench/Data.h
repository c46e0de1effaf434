// The data of the benchmarks: drawn anew for each run, of one of three shapes.
//
// A run has a seed, which the environment gives it, and the seed decides the shape. The figures of
// the report come from runs with successive seeds, so that they are of all shapes, and a change
// that suits the data of one does not show as a gain.
#ifndef BENCH_DATA_H
#define BENCH_DATA_H

#include <algorithm>
#include <cstdlib>
#include <map>
#include <mutex>
#include <random>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Bench {

inline unsigned int seed() {
  static const unsigned int value = [] {
    const char* const given = std::getenv("VSUPT_BENCH_SEED");
    return given == nullptr ? 0U : static_cast<unsigned int>(std::strtoul(given, nullptr, 10));
  }();
  return value;
}

// What `shapes` has for the shape of this run.
template <typename T>
const T& ofShape(const T (&shapes)[3]) {
  return shapes[seed() % 3];
}

// Random numbers, the same at each draw of one name in one run.
class Draw {
 public:
  explicit Draw(std::string_view name) {
    std::seed_seq sequence(name.begin(), name.end());
    std::vector<unsigned int> words(1);
    sequence.generate(words.begin(), words.end());
    m_oRandom.seed(words[0] + seed());
  }

  std::size_t below(std::size_t limit) { return m_oRandom() % limit; }
  template <typename Items>
  const auto& oneOf(const Items& items) {
    return items[below(std::size(items))];
  }
  std::string text(std::size_t shortest, std::size_t longest,
                   std::string_view letters = "abcdefghijklmnopqrstuvwxyz") {
    std::string made(shortest + below(longest - shortest + 1), ' ');
    for (char& letter : made)
      letter = oneOf(letters);
    return made;
  }
  template <typename Items>
  void shuffle(Items& items) {
    std::shuffle(items.begin(), items.end(), m_oRandom);
  }

 private:
  std::mt19937 m_oRandom;
};

inline std::string joined(std::initializer_list<std::string_view> parts) {
  std::string all;
  for (const std::string_view part : parts)
    all += part;
  return all;
}

struct Property {
  std::string key;
  std::string value;
};

// Properties with different keys: numbered in order, words in no order, or long paths.
inline const std::vector<Property>& properties(int count) {
  static std::mutex mutex;
  static std::map<int, std::vector<Property>> all;
  const std::lock_guard hold(mutex);
  std::vector<Property>& made = all[count];
  if (made.empty()) {
    Draw draw("properties");
    for (int i = 0; i < count; ++i) {
      const std::string number = std::to_string(1000000 + i);
      const std::string kind = draw.text(1, 1, "cdlt");
      const std::string word = draw.text(3, 16);
      const std::string keys[] = {joined({"Setting", number}), joined({word, number}),
                                  joined({"server_network_", kind, "_time_", number})};
      const std::string values[] = {joined({"value ", number}),
                                    joined({draw.text(1, 12), " ", draw.text(1, 50)}),
                                    joined({"/var/lib/", word, "/", number})};
      made.push_back({ofShape(keys), ofShape(values)});
    }
  }
  return made;
}

}  // namespace Bench

#endif
