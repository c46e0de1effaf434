// Where a number stands in a table.
#ifndef SUPPORT_RUNTIME_HASHEDPLACE_H
#define SUPPORT_RUNTIME_HASHEDPLACE_H

#include <cassert>
#include <cstddef>
#include <cstdint>

namespace VarnSupport {

// 2^64 divided by the golden ratio: a product with it spreads numbers that are alike.
constexpr std::uint64_t kGoldenRatio = 0x9e3779b97f4a7c15;

// One of 2^bits places, by Fibonacci hashing (Knuth, The Art of Computer Programming, volume 3,
// section 6.4).
inline std::size_t hashedPlace(std::uint64_t number, unsigned bits) {
  assert(bits > 0 && bits < 64);
  return static_cast<std::size_t>(number * kGoldenRatio >> (64 - bits));
}
inline std::size_t hashedPlace(const void* address, unsigned bits) {
  return hashedPlace(std::uint64_t{reinterpret_cast<std::uintptr_t>(address)}, bits);
}

}  // namespace VarnSupport

#endif
