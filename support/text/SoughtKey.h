// Keys whose first bytes are compared as numbers: calls of memcmp() cost more than that.
#ifndef SUPPORT_TEXT_SOUGHTKEY_H
#define SUPPORT_TEXT_SOUGHTKEY_H

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

namespace VarnSupport {

constexpr std::size_t kKeyHead = sizeof(std::uint64_t);

// Bytes as a number, in the order in which texts compare: the first one counts most.
inline std::uint64_t eightAt(const char* at) {
  std::uint64_t bytes = 0;
  std::memcpy(&bytes, at, sizeof bytes);
  return std::endian::native == std::endian::little ? __builtin_bswap64(bytes) : bytes;
}
inline std::uint64_t fourAt(const char* at) {
  std::uint32_t bytes = 0;
  std::memcpy(&bytes, at, sizeof bytes);
  return std::endian::native == std::endian::little ? __builtin_bswap32(bytes) : bytes;
}

// The first bytes of a key; zeros stand behind a shorter one. Keys whose heads differ compare as
// these do.
inline std::uint64_t headOf(std::string_view key) {
  const char* const first = key.data();
  if (key.size() >= kKeyHead)
    return eightAt(first);
  if (key.size() >= 4)
    return fourAt(first) << 32 | fourAt(first + key.size() - 4) << 8 * (kKeyHead - key.size());
  std::uint64_t number = 0;
  for (std::size_t i = 0; i < key.size(); ++i)
    number |= static_cast<std::uint64_t>(static_cast<unsigned char>(first[i])) << (56 - 8 * i);
  return number;
}

// A key that is sought among others.
class SoughtKey {
 public:
  // Requires: the text outlives the object.
  explicit SoughtKey(std::string_view key) : m_sKey(key), m_nHead(headOf(key)) {}

  // As other.compare() of the key: -1 when the other one is less, 1 when it is greater, else 0.
  int compared(const std::string& other) const {
    const std::uint64_t head = headOf(other);
    if (head != m_nHead)
      return head < m_nHead ? -1 : 1;
    const std::size_t common = std::min(other.size(), m_sKey.size());
    if (common > kKeyHead) {
      if (const int order = comparedBehindHeads(other, common); order != 0)
        return order;
    }
    return signOf(other.size(), m_sKey.size());
  }

 private:
  template <typename Number>
  static int signOf(Number left, Number right) {
    return left < right ? -1 : left > right ? 1 : 0;
  }

  // Bytes that are known to be alike may be looked at again.
  int comparedBehindHeads(const std::string& other, std::size_t common) const {
    if (common <= 2 * kKeyHead) {
      const std::size_t last = common - kKeyHead;
      return signOf(eightAt(other.data() + last), eightAt(m_sKey.data() + last));
    }
    return signOf(std::memcmp(other.data() + kKeyHead, m_sKey.data() + kKeyHead, common - kKeyHead),
                  0);
  }

  std::string_view m_sKey;
  std::uint64_t m_nHead;
};

}  // namespace VarnSupport

#endif
