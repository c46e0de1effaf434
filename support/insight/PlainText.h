// Text that is put together, files that are read and descriptors that are written without the heap,
// a lock or a stream: in the handler of a crash, or while everything else hangs.
// All of it is async-signal-safe, but for PlainText::append().
#ifndef SUPPORT_INSIGHT_PLAINTEXT_H
#define SUPPORT_INSIGHT_PLAINTEXT_H

#include <array>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "runtime/Descriptor.h"
#include "runtime/WithoutWriteSignals.h"

namespace VarnSupport {

struct Hex {
  explicit Hex(std::uintptr_t value) : number(value) {}
  explicit Hex(const void* address) : number(reinterpret_cast<std::uintptr_t>(address)) {}

  std::uintptr_t number;
};

// Nanoseconds, written as seconds with three places.
struct Seconds {
  std::int64_t nanoseconds;
};

// A time of the system's clock, in nanoseconds, written as "2026-01-31T08:30:00.123456789Z".
struct UtcTime {
  std::int64_t nanoseconds;
};

// Gathers text in a buffer of its own and hands it on to a sink; what follows after a sink that
// fails is dropped.
class PlainText {
 public:
  // False when nothing more can be taken.
  using Sink = bool (*)(void* to, const char* bytes, std::size_t count);

  // The sink for a std::string.
  static bool append(void* string, const char* bytes, std::size_t count);

  PlainText(Sink sink, void* to) : m_pSink(sink), m_pTo(to) {}
  PlainText(const PlainText&) = delete;
  PlainText& operator=(const PlainText&) = delete;

  // Hands on what is left. The owner's last call: a destructor could not tell of memory that is
  // out.
  void flush();

  PlainText& operator<<(std::string_view text);
  PlainText& operator<<(Hex hex);
  PlainText& operator<<(Seconds seconds);
  PlainText& operator<<(UtcTime time);
  template <std::integral Number>
  PlainText& operator<<(Number number) {
    if constexpr (std::signed_integral<Number>) {
      if (number < 0)
        return *this << "-" << (0 - static_cast<std::uint64_t>(number));
    }
    return putNumber(static_cast<std::uint64_t>(number), 10, 1);
  }

 private:
  PlainText& putNumber(std::uint64_t number, unsigned base, int digits);

  const Sink m_pSink;
  void* const m_pTo;
  std::size_t m_nUsed = 0;
  bool m_bEnded = false;
  std::array<char, 512> m_aBuffer;
};

// Writes to a descriptor, and gives up when it fails, or takes nothing for two seconds. A pipe that
// nobody reads does not end the process.
class DescriptorOutput {
 public:
  explicit DescriptorOutput(int descriptor) : m_nDescriptor(descriptor) {}

  // The sink.
  static bool put(void* output, const char* bytes, std::size_t count);

 private:
  const int m_nDescriptor;
  const WithoutWriteSignals m_oQuiet;
};

// The path of a file of /proc/self: the folder, a number, the rest.
class ProcPath {
 public:
  ProcPath(std::string_view folder, long number, std::string_view rest = "");
  const char* get() const { return m_aPath.data(); }

 private:
  std::array<char, 64> m_aPath{};
};

// A file of the system, line by line; a line that is too long is cut. Without the file there are no
// lines.
class PlainFile {
 public:
  explicit PlainFile(const char* path);

  // The line is there until the next call. False at the end.
  bool nextLine(std::string_view& line);

 private:
  bool refill();

  const Descriptor m_oFile;
  std::size_t m_nBegin = 0;
  std::size_t m_nEnd = 0;
  std::array<char, 1024> m_aBuffer;
};

// Reads a number and steps over it: false when there is none.
bool takeNumber(std::string_view& text, unsigned base, std::uint64_t& number);

}  // namespace VarnSupport

#endif
