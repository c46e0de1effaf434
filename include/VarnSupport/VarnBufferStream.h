// An object stream over a growable first-in first-out buffer in memory, which can be handed on as a
// whole and rebuilt elsewhere.
//
// read(), peek() and write() each hold the stream's lock: one thread may write while another reads,
// value by value (a string is two values, its length and its characters). reset() and size() take
// no lock and are safe as well, but a transfer that is under way may undo a reset; buffer() is not
// safe while another thread uses the stream. Reading costs what it moves, however much is left,
// until buffer() has handed the bytes out: from then on each read moves the rest to the front,
// where whoever has the address finds it.
#ifndef VARNSUPPORT_VARNBUFFERSTREAM_H
#define VARNSUPPORT_VARNBUFFERSTREAM_H

#include <atomic>
#include <cstdint>

#include "VarnSupport/VarnCriticalSection.h"
#include "VarnSupport/VarnExport.h"
#include "VarnSupport/VarnObjectStream.h"

namespace VarnSupport {

class VSUPT_EXPORT VarnBufferStream : public VarnInputObjectStream, public VarnOutputObjectStream {
 public:
  VarnBufferStream() = default;
  // The buffer grows by multiples of `growthStep` bytes: its low 32 bits, where 0 means 512.
  explicit VarnBufferStream(unsigned long growthStep);
  // A copy of `size` bytes as buffer() hands them out. The header is skipped, not checked: `size`
  // alone counts. Null and fewer bytes than a header make an empty stream.
  VarnBufferStream(const void* bytes, unsigned int size);
  // A copy has its own buffer and its own lock. The source is locked meanwhile; throws
  // std::bad_alloc.
  VarnBufferStream(const VarnBufferStream& source);
  VarnBufferStream& operator=(const VarnBufferStream& source) VSUPT_UNCHECKED;
  ~VarnBufferStream() override;

  void reset() override;
  // All three return the number of bytes moved. Sizes whose product does not fit in 32 bits move
  // none. Requires: `data` has room for, or holds, that many bytes and lies outside this stream.
  // read() and peek() move what there is when that is less.
  unsigned read(void* data, unsigned elementSize, unsigned count) override;
  // All or nothing: nothing when the buffer cannot grow, by lack of memory or beyond 32 bits.
  unsigned write(const void* data, unsigned elementSize, unsigned count) override;
  // Reads without taking anything out.
  virtual unsigned peek(void* data, unsigned elementSize, unsigned count);

  // The number of unread bytes.
  unsigned size() const;
  // The whole buffer: size() in its first four bytes, in the host's byte order, then the unread
  // bytes. The stream owns it; it moves when a write makes it grow, and until then the bytes that
  // are unread stand at this place. Null while nothing was ever written.
  void* buffer() const VSUPT_UNCHECKED;

 private:
  static constexpr std::uint32_t kHeaderSize = 4;
  static constexpr std::uint32_t kDefaultGrowthStep = 512;
  // In place of a read position: somebody has the address, so that the bytes stay behind the
  // header.
  static constexpr std::uint32_t kHandedOut = 0;

  unsigned copyOut(void* data, unsigned elementSize, unsigned count, bool remove);
  unsigned append(const void* data, unsigned elementSize, unsigned count);
  bool growLocked(std::uint64_t added, std::uint64_t needed) VSUPT_REQUIRES(m_oLock);
  VSUPT_LOCAL std::uint32_t front() const VSUPT_REQUIRES(m_oLock);
  VSUPT_LOCAL void moveToFront(std::uint32_t unread) const VSUPT_REQUIRES(m_oLock);
  VSUPT_LOCAL bool makeRoom(std::uint32_t unread, std::uint64_t added) VSUPT_REQUIRES(m_oLock);

  unsigned char* m_pBuffer VSUPT_GUARDED_BY(m_oLock) = nullptr;  // from malloc
  // Where the unread bytes begin, or kHandedOut.
  mutable std::uint32_t m_nReadPosition VSUPT_GUARDED_BY(m_oLock) = kHeaderSize;
  // Where they would end if they began behind the header; also read and reset unlocked.
  std::atomic<std::uint32_t> m_nEnd{kHeaderSize};
  std::uint32_t m_nGrowthStep VSUPT_GUARDED_BY(m_oLock) = kDefaultGrowthStep;
  std::uint32_t m_nCapacity VSUPT_GUARDED_BY(m_oLock) = 0;
  mutable VarnCriticalSectionObject m_oLock;
};

}  // namespace VarnSupport

#endif
