// Numbers, dates and paths are put together here by hand: the functions of the platform for them
// may take a lock, allocate or look at the locale, and the thread that is interrupted may be in one
// of them.
#include "insight/PlainText.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstring>
#include <string>

#include "runtime/System.h"

namespace VarnSupport {

namespace {

constexpr std::chrono::seconds kTimeToTake{2};
constexpr std::int64_t kNanosecondsPerSecond = 1'000'000'000;

// Whether a descriptor comes to take something. A signal that interrupts the wait does not begin it
// anew: it may come again and again.
bool becomesReady(int descriptor) {
  const MonotonicTime deadline = monotonicNow() + kTimeToTake;
  pollfd ready{descriptor, POLLOUT, 0};
  return retrying([&] {
           const timespec left = timeLeft(deadline);
           return ppoll(&ready, 1, &left, nullptr);
         }) == 1;
}

}  // namespace

bool PlainText::append(void* string, const char* bytes, std::size_t count) {
  static_cast<std::string*>(string)->append(bytes, count);
  return true;
}

void PlainText::flush() {
  if (m_nUsed > 0 && !m_bEnded)
    m_bEnded = !m_pSink(m_pTo, m_aBuffer.data(), m_nUsed);
  m_nUsed = 0;
}

PlainText& PlainText::operator<<(std::string_view text) {
  while (!text.empty()) {
    if (m_nUsed == m_aBuffer.size())
      flush();
    const std::size_t count = std::min(text.size(), m_aBuffer.size() - m_nUsed);
    std::memcpy(m_aBuffer.data() + m_nUsed, text.data(), count);
    m_nUsed += count;
    text.remove_prefix(count);
  }
  return *this;
}

PlainText& PlainText::putNumber(std::uint64_t number, unsigned base, int digits) {
  assert((base == 10 || base == 16) && digits <= 20);
  std::array<char, 24> text;
  std::size_t begin = text.size();
  for (; number > 0 || digits > 0; number /= base, --digits)
    text[--begin] = "0123456789abcdef"[number % base];
  return *this << std::string_view(text.data() + begin, text.size() - begin);
}

PlainText& PlainText::operator<<(Hex hex) {
  *this << "0x";
  return putNumber(hex.number, 16, 1);
}

PlainText& PlainText::operator<<(Seconds seconds) {
  const std::int64_t shown = std::max<std::int64_t>(seconds.nanoseconds, 0);
  *this << shown / kNanosecondsPerSecond << ".";
  return putNumber(static_cast<std::uint64_t>(shown % kNanosecondsPerSecond / 1'000'000), 10, 3);
}

// gmtime_r() may wait for a lock; the calendar of the standard library is plain arithmetic.
PlainText& PlainText::operator<<(UtcTime time) {
  namespace chrono = std::chrono;
  const chrono::sys_time<chrono::nanoseconds> point{chrono::nanoseconds(time.nanoseconds)};
  const auto day = chrono::floor<chrono::days>(point);
  const chrono::year_month_day date(day);
  const chrono::hh_mm_ss clock(point - day);
  const auto put = [this](auto number, int digits, const char* behind) {
    putNumber(static_cast<std::uint64_t>(number), 10, digits) << behind;
  };
  put(static_cast<int>(date.year()), 4, "-");
  put(static_cast<unsigned>(date.month()), 2, "-");
  put(static_cast<unsigned>(date.day()), 2, "T");
  put(clock.hours().count(), 2, ":");
  put(clock.minutes().count(), 2, ":");
  put(clock.seconds().count(), 2, ".");
  put(clock.subseconds().count(), 9, "Z");
  return *this;
}

// Waits before each write, as a descriptor that blocks would keep the whole report from going on.
bool DescriptorOutput::put(void* output, const char* bytes, std::size_t count) {
  const auto* const self = static_cast<DescriptorOutput*>(output);
  const int descriptor = self->m_nDescriptor;
  while (count > 0) {
    if (!becomesReady(descriptor))
      return false;
    const ssize_t written = retrying([&] { return write(descriptor, bytes, count); });
    if (written < 0 && errno != EAGAIN) {
      self->m_oQuiet.take(errno);
      return false;
    }
    bytes += std::max<ssize_t>(written, 0);
    count -= static_cast<std::size_t>(std::max<ssize_t>(written, 0));
  }
  return true;
}

// The buffer begins as zeros, and its last byte is never written to.
ProcPath::ProcPath(std::string_view folder, long number, std::string_view rest) {
  char* const end = m_aPath.data() + m_aPath.size() - 1;
  const auto put = [end](char* to, std::string_view text) {
    const auto count = std::min<std::ptrdiff_t>(end - to, static_cast<std::ptrdiff_t>(text.size()));
    return std::copy_n(text.data(), count, to);
  };
  char* to = put(put(m_aPath.data(), "/proc/self/"), folder);
  to = std::to_chars(to, end, number).ptr;
  put(to, rest);
}

PlainFile::PlainFile(const char* path) : m_oFile(Descriptor::open(path, O_RDONLY)) {}

// What is left of the buffer moves to its front. A line that fills the whole buffer ends there.
bool PlainFile::refill() {
  std::memmove(m_aBuffer.data(), m_aBuffer.data() + m_nBegin, m_nEnd - m_nBegin);
  m_nEnd -= m_nBegin;
  m_nBegin = 0;
  if (!m_oFile.isOpen() || m_nEnd == m_aBuffer.size())
    return false;
  const ssize_t count = retrying(
      [this] { return read(m_oFile.get(), m_aBuffer.data() + m_nEnd, m_aBuffer.size() - m_nEnd); });
  if (count <= 0)
    return false;
  m_nEnd += static_cast<std::size_t>(count);
  return true;
}

bool PlainFile::nextLine(std::string_view& line) {
  std::size_t searched = 0;
  while (true) {
    const std::string_view left(m_aBuffer.data() + m_nBegin, m_nEnd - m_nBegin);
    const std::size_t end = left.find('\n', searched);
    if (end != std::string_view::npos) {
      line = left.substr(0, end);
      m_nBegin += end + 1;
      return true;
    }
    searched = left.size();
    if (refill())
      continue;
    line = std::string_view(m_aBuffer.data(), m_nEnd);
    m_nBegin = m_nEnd;
    return !line.empty();
  }
}

bool takeNumber(std::string_view& text, unsigned base, std::uint64_t& number) {
  if (base == 16 && text.starts_with("0x"))
    text.remove_prefix(2);
  const char* const end = text.data() + text.size();
  const auto [behind, error] = std::from_chars(text.data(), end, number, static_cast<int>(base));
  if (error != std::errc())
    return false;
  text.remove_prefix(static_cast<std::size_t>(behind - text.data()));
  return true;
}

}  // namespace VarnSupport
