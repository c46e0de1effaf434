// Records on their way to a file.
#ifndef SUPPORT_LOG_RECORDBLOCK_H
#define SUPPORT_LOG_RECORDBLOCK_H

#include <cassert>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <string_view>

namespace VarnSupport {

// Keeps whole records, each behind its length, in memory of a fixed size. Not for several threads
// at once; clear() makes it good again in the child of a fork, whatever another thread was at.
class RecordBlock {
 public:
  explicit RecordBlock(std::size_t capacity)
      : m_pMemory(std::make_unique_for_overwrite<char[]>(capacity)), m_nCapacity(capacity) {}

  bool isEmpty() const { return m_nUsed == 0; }
  bool isHalfFull() const { return m_nUsed >= m_nCapacity / 2; }
  // Whether the record would fit if there were no other.
  bool hasEverRoomFor(std::string_view record) const {
    return record.size() <= std::numeric_limits<Length>::max() &&
           record.size() + sizeof(Length) <= m_nCapacity;
  }
  // False when there is no room for it.
  bool push(std::string_view record) {
    assert(hasEverRoomFor(record));
    if (record.size() + sizeof(Length) > m_nCapacity - m_nUsed)
      return false;
    const auto length = static_cast<Length>(record.size());
    std::memcpy(&m_pMemory[m_nUsed], &length, sizeof length);
    std::memcpy(&m_pMemory[m_nUsed + sizeof length], record.data(), record.size());
    m_nUsed += sizeof length + record.size();
    return true;
  }

  // Puts up to `limit` records into `records`, from `position` on, which it moves behind them.
  std::size_t read(std::size_t& position, std::string_view* records, std::size_t limit) const {
    assert(position <= m_nUsed);
    std::size_t count = 0;
    while (count < limit && position < m_nUsed) {
      Length length = 0;
      std::memcpy(&length, &m_pMemory[position], sizeof length);
      records[count++] = {&m_pMemory[position + sizeof length], length};
      position += sizeof length + length;
    }
    return count;
  }
  void clear() { m_nUsed = 0; }

 private:
  using Length = std::uint32_t;

  std::unique_ptr<char[]> m_pMemory;
  std::size_t m_nCapacity;
  std::size_t m_nUsed = 0;
};

}  // namespace VarnSupport

#endif
