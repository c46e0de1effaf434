// The buffer begins with room for a header, which buffer() fills in, and the unread bytes follow it
// at a fixed place: what is read moves the rest to the front. size() reads the end, and reset()
// moves it, without the lock.
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
  const BriefHold hold(source.m_oLock);
  m_pBuffer = duplicate(source.m_pBuffer, source.m_nCapacity);
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
  const BriefHold hold(m_oLock);
  std::swap(m_pBuffer, copy.m_pBuffer);
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
void VarnBufferStream::reset() { m_nEnd.store(m_nReadPosition, std::memory_order_relaxed); }

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
  const BriefHold hold(m_oLock);
  // One look at the end: reset() may move it meanwhile.
  const std::uint32_t end = m_nEnd.load(std::memory_order_relaxed);
  assert(end >= m_nReadPosition);
  const std::uint32_t unread = end - m_nReadPosition;
  if (wanted > kLargest || wanted == 0 || unread == 0)
    return 0;
  const auto moved = static_cast<std::uint32_t>(std::min<std::uint64_t>(wanted, unread));
  assert(isApart(data, moved, m_pBuffer, m_nCapacity));
  unsigned char* const front = m_pBuffer + m_nReadPosition;
  std::memcpy(data, front, moved);
  if (remove) {
    if (moved < unread)
      std::memmove(front, front + moved, unread - moved);
    m_nEnd.store(end - moved, std::memory_order_relaxed);
  }
  return moved;
}

// All of the bytes or none: what is there stays whole when there is no memory.
unsigned VarnBufferStream::append(const void* data, unsigned elementSize, unsigned count) {
  const std::uint64_t added = std::uint64_t{elementSize} * count;
  const BriefHold hold(m_oLock);
  const std::uint32_t end = m_nEnd.load(std::memory_order_relaxed);
  if (added > kLargest || (end + added > m_nCapacity && !growLocked(added, end + added)))
    return 0;
  assert(end + added <= m_nCapacity);
  if (added > 0)
    std::memcpy(m_pBuffer + end, data, added);
  m_nEnd.store(static_cast<std::uint32_t>(end + added), std::memory_order_relaxed);
  return static_cast<std::uint32_t>(added);
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
  m_nCapacity = static_cast<std::uint32_t>(capacity);
  return true;
}

unsigned VarnBufferStream::size() const {
  return m_nEnd.load(std::memory_order_relaxed) - m_nReadPosition;
}

void* VarnBufferStream::buffer() const {
  const std::uint32_t unread = size();
  if (m_pBuffer != nullptr)
    std::memcpy(m_pBuffer, &unread, sizeof unread);
  return m_pBuffer;
}

}  // namespace VarnSupport
