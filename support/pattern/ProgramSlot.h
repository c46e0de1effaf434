// How searches share the program of a pattern with whoever replaces it, without a lock.
//
// One atomic word holds the address of the program and, in the bits below it, how many searches
// have taken it. Taking is one addition; giving back is one subtraction, as long as the program is
// still the current one. Whoever replaces a program leaves the takes that are still out to the
// program's own count. Those searches lower that count instead, and who brings it to zero deletes
// the program. The method is the split reference count of Williams, C++ Concurrency in Action,
// 7.2.
#ifndef SUPPORT_PATTERN_PROGRAMSLOT_H
#define SUPPORT_PATTERN_PROGRAMSLOT_H

#include <atomic>
#include <cassert>
#include <cstdint>
#include <memory>
#include <new>

#include "pattern/PatternProgram.h"

namespace VarnSupport {

// The word of an expression, which must outlive the slot. It is 0 until the first program; a
// program that was replaced never comes back.
template <typename StringType>
class ProgramSlot {
 public:
  using Word = std::atomic<std::uint64_t>;

  // A program with the count of takes that were left to it. Made "for overwrite": a program has
  // much memory that need not be zeros.
  struct Entry {
    Entry() = default;
    explicit Entry(const PatternProgram<StringType>& source) : program(source) {}

    PatternProgram<StringType> program;
    std::atomic<std::int64_t> leftTakes{0};
  };

  explicit ProgramSlot(Word& word) : m_oWord(word) {}

  // Takes the current program; null when there is none.
  Entry* take() {
    if (m_oWord.load(std::memory_order_relaxed) == 0)
      return nullptr;
    const std::uint64_t before = m_oWord.fetch_add(1, std::memory_order_acquire);
    assert((before & kTakes) < kTakes);
    return entryOf(before);
  }

  // Requires: `entry` was taken from this slot's word.
  void giveBack(Entry* entry) {
    assert(entry != nullptr);
    std::uint64_t seen = m_oWord.load(std::memory_order_relaxed);
    while (entryOf(seen) == entry) {
      assert((seen & kTakes) > 0);
      if (m_oWord.compare_exchange_weak(seen, seen - 1, std::memory_order_release,
                                        std::memory_order_relaxed))
        return;
    }
    settle(entry, -1);
  }

  // Makes `entry` the current one. The one before is deleted as soon as nobody uses it.
  void replace(std::unique_ptr<Entry> entry) {
    const auto address = std::uint64_t{reinterpret_cast<std::uintptr_t>(entry.get())};
    if (address >> kAddressBits != 0)
      throw std::bad_alloc();
    assert(entryOf(address << kShift) == entry.get());
    drop(m_oWord.exchange(address << kShift, std::memory_order_acq_rel));
    static_cast<void>(entry.release());
  }

  // Deletes the current program. Requires: nobody uses the word any more. In the child of a fork
  // takes of vanished threads may be left; their program stays.
  void clear() { drop(m_oWord.exchange(0, std::memory_order_acq_rel)); }

 private:
  // The low bits of an address are free for the count, too: more takes than there can be threads.
  static constexpr int kAddressBits = 48;
  static constexpr int kShift = 64 - kAddressBits;
  static constexpr std::uint64_t kTakes = (std::uint64_t{alignof(Entry)} << kShift) - 1;
  static_assert(kTakes >= 0xFFFFF);

  static Entry* entryOf(std::uint64_t word) {
    return reinterpret_cast<Entry*>(static_cast<std::uintptr_t>((word & ~kTakes) >> kShift));
  }
  static void drop(std::uint64_t word) {
    if (Entry* const entry = entryOf(word))
      settle(entry, static_cast<std::int64_t>(word & kTakes));
  }
  // A count below zero means that takes were given back before they were left to the program.
  static void settle(Entry* entry, std::int64_t takes) {
    if (entry->leftTakes.fetch_add(takes, std::memory_order_acq_rel) + takes == 0)
      delete entry;
  }

  Word& m_oWord;
};

// One use of the program that was current when it began: the program stays for as long.
template <typename StringType>
class ProgramUse {
 public:
  using Program = PatternProgram<StringType>;
  using Slot = ProgramSlot<StringType>;

  explicit ProgramUse(typename Slot::Word& word) : m_oSlot(word), m_pEntry(m_oSlot.take()) {}
  ProgramUse(const ProgramUse&) = delete;
  ProgramUse& operator=(const ProgramUse&) = delete;
  ~ProgramUse() {
    if (m_pEntry != nullptr)
      m_oSlot.giveBack(m_pEntry);
  }

  bool isEmpty() const { return m_pEntry == nullptr; }
  // Requires: not empty.
  const Program* operator->() const { return &**this; }
  const Program& operator*() const {
    assert(!isEmpty());
    return m_pEntry->program;
  }

 private:
  Slot m_oSlot;
  typename Slot::Entry* m_pEntry;
};

}  // namespace VarnSupport

#endif
