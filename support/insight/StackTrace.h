// The calls that a thread is inside of, as addresses, and what these are addresses of.
#ifndef SUPPORT_INSIGHT_STACKTRACE_H
#define SUPPORT_INSIGHT_STACKTRACE_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "insight/PlainText.h"

namespace VarnSupport {

// Has the platform make now what it makes when a stack is looked at for the first time.
void warmUpStackTraces();

// Stores the places of the calls that the caller of this is inside of, the innermost first, and how
// many they are as it goes on: should the walk crash, those are there. A place is an address of the
// call itself, not that at which it goes on. With `start` it begins at the frame that is there.
void walkStack(std::span<std::uintptr_t> places, volatile std::size_t& count, std::uintptr_t start);

// Writes "0x7f0000001234 in /usr/lib/libx.so.1 0x1234", whose last two words are what addr2line -e
// takes; without a file that is mapped there, the address alone. Async-signal-safe.
void putPlace(PlainText& text, std::uintptr_t address);

// The same for all words on the stack from `pointer` that are addresses of code, at most `most`:
// where a stack cannot be walked, some of them are the calls.
void putPossiblePlaces(PlainText& text, std::uintptr_t pointer, int most);

// Trivial, as tables of them are made of zeros.
template <std::size_t depth>
class StackTrace {
 public:
  // Of the caller of this.
  void take() { walkStack(m_aPlaces, m_nCount, 0); }
  std::span<const std::uintptr_t> places() const {
    const std::size_t count = m_nCount;
    return std::span<const std::uintptr_t>(m_aPlaces).first(count);
  }

 private:
  std::size_t m_nCount;
  std::array<std::uintptr_t, depth> m_aPlaces;
};

}  // namespace VarnSupport

#endif
