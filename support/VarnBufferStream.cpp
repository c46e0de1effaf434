// The buffer begins with room for a header, which buffer() fills in. The unread bytes follow it
// once somebody has the address of the buffer. Until then reading leaves them where they are, and a
// write moves them to the front when it lacks room and reading has freed a quarter of what it
// moves: each byte that is read pays for four. size() reads the end, and reset() moves it, without
// the lock: the end therefore says how many bytes there are, wherever they begin.
#include "VarnSupport/VarnBufferStream.h"

#include <algorithm>
#include <cassert>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>
#include <utility>

#include "locks/BriefHold.h"
#include "runtime/Cancellation.h"

namespace VarnSupport {

namespace {

constexpr std::uint64_t kLargest = std::numeric_limits<std::uint32_t>::max();
// Unread bytes are moved when reading has freed the room of this part of them.
constexpr std::uint32_t kWorthMoving = 4;

unsigned char* duplicate(const void* bytes, std::uint32_t size) {
  if (size == 0)
    return nullptr;
  void* const copy = std::malloc(size);
  if (copy == nullptr)
    throw std::bad_alloc();
  std::memcpy(copy, bytes, size);
  return static_cast<unsigned char*>(copy);
}

// Whether bytes that a caller hands over lie apart from the buffer, which may move under them.
[[maybe_unused]] bool isApart(const void* data, std::uint64_t size, const unsigned char* buffer,
                              std::uint32_t capacity) {
  const auto first = reinterpret_cast<std::uintptr_t>(data);
  const auto begin = reinterpret_cast<std::uintptr_t>(buffer);
  return first >= begin + capacity || first + size <= begin;
}

// The sizes of numbers go without a call.
void copyBytes(void* to, const void* from, std::size_t size) {
  switch (size) {
    case 4:
      std::memcpy(to, from, 4);
      break;
    case 8:
      std::memcpy(to, from, 8);
      break;
    default:
      std::memcpy(to, from, size);
  }
}

}  // namespace

VarnBufferStream::VarnBufferStream(unsigned long growthStep)
    : m_nGrowthStep(static_cast<std::uint32_t>(growthStep)) {
  if (m_nGrowthStep == 0)
    m_nGrowthStep = kDefaultGrowthStep;
}

// Bytes that are too few for a header make an empty stream.
VarnBufferStream::VarnBufferStream(const void* bytes, unsigned int size) : VarnBufferStream(size) {
  const CancellationGuard closed;
  if (bytes == nullptr || size < kHeaderSize)
    return;
  m_pBuffer = duplicate(bytes, size);
  m_nEnd = size;
  m_nCapacity = size;
}

VarnBufferStream::VarnBufferStream(const VarnBufferStream& source)
    : VarnInputObjectStream(source), VarnOutputObjectStream(source) {
  const CancellationGuard closed;
  const WholeHold hold(source.m_oLock);
  m_pBuffer = duplicate(source.m_pBuffer, source.m_nCapacity);
  m_nReadPosition = source.front();
  m_nEnd = source.m_nEnd.load();
  m_nGrowthStep = source.m_nGrowthStep;
  m_nCapacity = source.m_nCapacity;
}

// The copy locks the source, and only then this stream is locked: two streams may be assigned to
// each other at the same time.
VarnBufferStream& VarnBufferStream::operator=(const VarnBufferStream& source) {
  if (this == &source)
    return *this;
  const CancellationGuard closed;
  VarnBufferStream copy(source);
  const WholeHold hold(m_oLock);
  std::swap(m_pBuffer, copy.m_pBuffer);
  m_nReadPosition = copy.m_nReadPosition;
  m_nEnd = copy.m_nEnd.load();
  m_nGrowthStep = copy.m_nGrowthStep;
  m_nCapacity = copy.m_nCapacity;
  return *this;
}

VarnBufferStream::~VarnBufferStream() {
  const QuietCancellationGuard closed;
  std::free(m_pBuffer);
}

// The buffer is kept for what comes next.
void VarnBufferStream::reset() { m_nEnd.store(kHeaderSize, std::memory_order_relaxed); }

unsigned VarnBufferStream::read(void* data, unsigned elementSize, unsigned count) {
  const CancellationGuard closed;
  return copyOut(data, elementSize, count, true);
}

unsigned VarnBufferStream::write(const void* data, unsigned elementSize, unsigned count) {
  const CancellationGuard closed;
  return append(data, elementSize, count);
}

unsigned VarnBufferStream::peek(void* data, unsigned elementSize, unsigned count) {
  const CancellationGuard closed;
  return copyOut(data, elementSize, count, false);
}

unsigned VarnBufferStream::copyOut(void* data, unsigned elementSize, unsigned count, bool remove) {
  const std::uint64_t wanted = std::uint64_t{elementSize} * count;
  const WholeHold hold(m_oLock);
  // One look at the end: reset() may move it meanwhile.
  const std::uint32_t unread = m_nEnd.load(std::memory_order_relaxed) - kHeaderSize;
  if (wanted > kLargest || wanted == 0 || unread == 0)
    return 0;
  const auto moved = static_cast<std::uint32_t>(std::min<std::uint64_t>(wanted, unread));
  assert(isApart(data, moved, m_pBuffer, m_nCapacity));
  const std::uint32_t left = unread - moved;
  unsigned char* const first = m_pBuffer + front();
  copyBytes(data, first, moved);
  if (remove) {
    if (m_nReadPosition != kHandedOut) [[likely]]
      m_nReadPosition = left > 0 ? m_nReadPosition + moved : kHeaderSize;
    else if (left > 0)
      std::memmove(first, first + moved, left);
    m_nEnd.store(kHeaderSize + left, std::memory_order_relaxed);
  }
  return moved;
}

// All of the bytes or none: what is there stays whole when there is no memory.
unsigned VarnBufferStream::append(const void* data, unsigned elementSize, unsigned count) {
  const std::uint64_t added = std::uint64_t{elementSize} * count;
  const WholeHold hold(m_oLock);
  const std::uint32_t unread = m_nEnd.load(std::memory_order_relaxed) - kHeaderSize;
  std::uint64_t end = std::uint64_t{front()} + unread;
  if (added > kLargest)
    return 0;
  if (end + added > m_nCapacity) [[unlikely]] {
    if (!makeRoom(unread, added))
      return 0;
    end = front() + unread;
  }
  assert(end + added <= m_nCapacity);
  if (added > 0)
    copyBytes(m_pBuffer + end, data, added);
  m_nEnd.store(static_cast<std::uint32_t>(kHeaderSize + unread + added), std::memory_order_relaxed);
  return static_cast<std::uint32_t>(added);
}

inline std::uint32_t VarnBufferStream::front() const {
  if (m_nReadPosition == kHandedOut) [[unlikely]]
    return kHeaderSize;
  return m_nReadPosition;
}

inline void VarnBufferStream::moveToFront(std::uint32_t unread) const {
  if (m_nReadPosition <= kHeaderSize)
    return;
  if (unread > 0)
    std::memmove(m_pBuffer + kHeaderSize, m_pBuffer + m_nReadPosition, unread);
  m_nReadPosition = kHeaderSize;
}

// Where too little was read for a move the buffer grows, by so much that a move pays next time.
// Without memory for that the bytes move all the same.
[[gnu::noinline]] bool VarnBufferStream::makeRoom(std::uint32_t unread, std::uint64_t added) {
  const std::uint32_t worth = unread / kWorthMoving;
  const std::uint32_t freed = front() - kHeaderSize;
  if (freed > 0 && freed < worth &&
      growLocked(std::max<std::uint64_t>(added, worth), front() + unread + added))
    return true;
  moveToFront(unread);
  const std::uint64_t needed = kHeaderSize + unread + added;
  return needed <= m_nCapacity || growLocked(added, needed);
}

// A whole number of steps, and more of them than the data alone needs: the first write also makes
// room for the header.
bool VarnBufferStream::growLocked(std::uint64_t added, std::uint64_t needed) {
  assert(needed > m_nCapacity && m_nGrowthStep > 0);
  const std::uint64_t step = m_nGrowthStep;
  std::uint64_t capacity = m_nCapacity + (added / step + 1) * step;
  if (capacity < needed)
    capacity += (needed - capacity + step - 1) / step * step;
  if (capacity > kLargest)
    return false;
  void* const grown = std::realloc(m_pBuffer, capacity);
  if (grown == nullptr)
    return false;
  m_pBuffer = static_cast<unsigned char*>(grown);
  m_nReadPosition = front();  // nobody has the new address
  m_nCapacity = static_cast<std::uint32_t>(capacity);
  return true;
}

unsigned VarnBufferStream::size() const {
  return m_nEnd.load(std::memory_order_relaxed) - kHeaderSize;
}

void* VarnBufferStream::buffer() const {
  const std::uint32_t unread = size();
  if (m_pBuffer == nullptr)
    return nullptr;
  moveToFront(unread);
  m_nReadPosition = kHandedOut;
  std::memcpy(m_pBuffer, &unread, sizeof unread);
  return m_pBuffer;
}

}  // namespace VarnSupport
