// Heaps of entries that can be found, and taken out, wherever they are.
#ifndef SUPPORT_RUNTIME_INDEXEDHEAP_H
#define SUPPORT_RUNTIME_INDEXEDHEAP_H

#include <algorithm>
#include <cassert>
#include <cstddef>
#include <vector>

namespace VarnSupport {

// Keeps a vector of entries in the order of their isBefore(), each with up to kFan entries below
// it. `note` is called with each entry that gets another place, and with the place: whoever has the
// heap writes down there where its entries are. Nothing allocates.
template <std::size_t kFan>
struct IndexedHeap {
  // Moves one entry, up or down, to where it belongs.
  template <typename Entry, typename Note>
  static void sift(std::vector<Entry>& entries, std::size_t index, const Note& note) {
    assert(index < entries.size());
    const Entry moving = entries[index];
    const auto put = [&](const Entry& entry) {
      entries[index] = entry;
      note(entry, index);
    };
    if (index > 0 && moving.isBefore(entries[(index - 1) / kFan])) {
      do {
        put(entries[(index - 1) / kFan]);
        index = (index - 1) / kFan;
      } while (index > 0 && moving.isBefore(entries[(index - 1) / kFan]));
    } else {
      const std::size_t size = entries.size();
      for (std::size_t child = kFan * index + 1; child < size; child = kFan * index + 1) {
        const std::size_t end = std::min(child + kFan, size);
        std::size_t least = child;
        while (++child < end) {
          if (entries[child].isBefore(entries[least]))
            least = child;
        }
        if (!entries[least].isBefore(moving))
          break;
        put(entries[least]);
        index = least;
      }
    }
    put(moving);
  }

  // The last entry takes the place of the one that leaves.
  template <typename Entry, typename Note>
  static Entry take(std::vector<Entry>& entries, std::size_t index, const Note& note) {
    assert(index < entries.size());
    const Entry taken = entries[index];
    entries[index] = entries.back();
    entries.pop_back();
    if (index < entries.size())
      sift(entries, index, note);
    return taken;
  }
};

}  // namespace VarnSupport

#endif
