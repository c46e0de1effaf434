// How searches share the program of a pattern with whoever replaces it, without a lock.
//
// One atomic word holds the address of the program and, in the bits below it, how many searches
// have taken it. Taking is one addition; giving back is one subtraction, as long as the program is
// still the current one. Whoever replaces it leaves the takes that are still out to the program's
// own count. Those searches lower that instead, and who brings it to zero deletes the program. The
// method is the split reference count of Williams, C++ Concurrency in Action, 7.2.
#ifndef SUPPORT_SHAREDPROGRAM_H
#define SUPPORT_SHAREDPROGRAM_H

#include <atomic>
#include <cstdint>
#include <memory>
#include <new>

#include "PatternProgram.h"

namespace VarnSupport {

// The word is 0 until the first program; a program that was replaced never comes back.
template <typename StringType>
class SharedProgram {
 public:
  using Program = PatternProgram<StringType>;
  using Word = std::atomic<std::uint64_t>;

  // Takes the current program of `word` for as long as this object lives.
  explicit SharedProgram(Word& word) : m_oWord(word) {
    if (word.load(std::memory_order_relaxed) != 0)
      m_pProgram = programOf(word.fetch_add(1, std::memory_order_acquire));
  }
  SharedProgram(const SharedProgram&) = delete;
  SharedProgram& operator=(const SharedProgram&) = delete;
  ~SharedProgram() {
    if (m_pProgram == nullptr)
      return;
    std::uint64_t seen = m_oWord.load(std::memory_order_relaxed);
    while (programOf(seen) == m_pProgram) {
      if (m_oWord.compare_exchange_weak(seen, seen - 1, std::memory_order_release,
                                        std::memory_order_relaxed))
        return;
    }
    settle(m_pProgram, -1);
  }

  // Null when there is none.
  const Program* get() const { return m_pProgram; }
  const Program* operator->() const { return m_pProgram; }
  const Program& operator*() const { return *m_pProgram; }

  // Makes `program` the current one. The one before is deleted as soon as nobody uses it.
  static void replace(Word& word, std::unique_ptr<Program> program) {
    const auto address = std::uint64_t{reinterpret_cast<std::uintptr_t>(program.get())};
    if (address >> kAddressBits != 0)
      throw std::bad_alloc();
    drop(word.exchange(address << kShift, std::memory_order_acq_rel));
    static_cast<void>(program.release());
  }

  // Deletes the current program. Requires: nobody uses the word any more.
  static void clear(Word& word) { drop(word.exchange(0, std::memory_order_acq_rel)); }

 private:
  // The low bits of an address are free for the count, too: more takes than there can be threads.
  static constexpr int kAddressBits = 48;
  static constexpr int kShift = 64 - kAddressBits;
  static constexpr std::uint64_t kTakes = (std::uint64_t{alignof(Program)} << kShift) - 1;
  static_assert(kTakes >= 0xFFFFF);

  static Program* programOf(std::uint64_t word) {
    return reinterpret_cast<Program*>(static_cast<std::uintptr_t>((word & ~kTakes) >> kShift));
  }
  static void drop(std::uint64_t word) {
    if (Program* const program = programOf(word))
      settle(program, static_cast<std::int64_t>(word & kTakes));
  }
  // A count below zero means that takes were given back before they were left to the program.
  static void settle(Program* program, std::int64_t takes) {
    if (program->leftTakes.fetch_add(takes, std::memory_order_acq_rel) + takes == 0)
      delete program;
  }

  Word& m_oWord;
  Program* m_pProgram = nullptr;
};

}  // namespace VarnSupport

#endif
