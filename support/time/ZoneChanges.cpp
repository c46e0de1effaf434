// The format is that of tzfile(5): a header and its data with times of 32 bits, the same again with
// 64 bits, and a rule for what comes after the last change, between two line feeds.
#include "time/ZoneChanges.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <ctime>
#include <iterator>
#include <new>

#include "runtime/Cancellation.h"
#include "runtime/Descriptor.h"

namespace VarnSupport {

namespace {

constexpr std::size_t kMostBytes = 32768;
constexpr std::size_t kHeader = 44;

const std::time_t g_nLoaded = std::time(nullptr);

std::uint64_t numberAt(const char* bytes, int length) {
  std::uint64_t number = 0;
  for (int i = 0; i < length; ++i)
    number = number << 8 | static_cast<unsigned char>(bytes[i]);
  return number;
}

// The counts of a header, in their order there.
struct Counts {
  explicit Counts(const char* header) {
    for (std::size_t i = 0; i < std::size(numbers); ++i)
      numbers[i] = numberAt(header + 20 + 4 * i, 4);
  }
  std::uint64_t leapSeconds() const { return numbers[2]; }
  std::uint64_t times() const { return numbers[3]; }
  // Of the data behind the header, where a time takes so much.
  std::uint64_t length(std::uint64_t time) const {
    const auto [universal, standard, leaps, times, types, characters] = numbers;
    return times * (time + 1) + types * 6 + characters + leaps * (time + 4) + standard + universal;
  }

  std::uint64_t numbers[6];
};

// Whether a rule of TZ has but one offset: a name and a number, or nothing at all.
bool isConstant(const std::string& rule) {
  constexpr char digits[] = "0123456789";
  const bool isQuoted = !rule.empty() && rule[0] == '<';
  const std::size_t offset = isQuoted ? rule.find('>') : rule.find_first_of("+-0123456789");
  return rule.empty() ||
         (offset != std::string::npos && rule.find_first_of(digits, offset) != std::string::npos &&
          rule.find_first_not_of("+-:0123456789", offset + (isQuoted ? 1 : 0)) ==
              std::string::npos);
}

// The file as a whole; empty when it cannot be read, or the system may have read another.
std::string contentsOf(const std::string& path) {
  const Descriptor file = Descriptor::open(path, O_RDONLY);
  struct stat status {};
  std::string contents;
  if (!file.isOpen() || fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode) ||
      status.st_ctime >= g_nLoaded || status.st_size > static_cast<off_t>(kMostBytes))
    return contents;
  contents.resize(static_cast<std::size_t>(status.st_size));
  if (retrying([&] { return ::read(file.get(), contents.data(), contents.size()); }) !=
      status.st_size)
    contents.clear();
  return contents;
}

}  // namespace

void ZoneChanges::read(const char* name) noexcept {
  const NoCancellation whole;
  m_nCount = 0;
  m_bKnown = false;
  try {
    tryToRead(name);
  } catch (const std::bad_alloc&) {
    m_bKnown = false;  // without memory the system is asked
  }
}

void ZoneChanges::tryToRead(const char* name) {
  const std::string path = name == nullptr ? "/etc/localtime"
                           : *name == '\0' ? "/usr/share/zoneinfo/Universal"
                                           : std::string("/usr/share/zoneinfo/").append(name);
  if (access(path.c_str(), F_OK) == 0)
    m_bKnown = take(contentsOf(path));
  else
    m_bKnown = m_bEnds = name != nullptr && isConstant(name);
}

bool ZoneChanges::take(const std::string& file) {
  if (file.size() < kHeader || file.compare(0, 4, "TZif") != 0 || file[4] < '2')
    return false;
  const std::uint64_t second = kHeader + Counts(file.data()).length(4);
  if (second > file.size() || file.size() - second < kHeader)
    return false;
  const Counts counts(file.data() + second);
  const std::uint64_t rule = second + kHeader + counts.length(8) + 1;
  if (counts.leapSeconds() != 0 || counts.times() > kMost || rule >= file.size() ||
      file.back() != '\n')
    return false;
  m_nCount = counts.times();
  for (std::size_t i = 0; i < m_nCount; ++i)
    m_aTimes[i] = static_cast<std::int64_t>(numberAt(&file[second + kHeader + 8 * i], 8));
  m_bEnds = isConstant(file.substr(rule, file.size() - 1 - rule));
  return std::is_sorted(m_aTimes.begin(), m_aTimes.begin() + m_nCount);
}

int ZoneChanges::between(std::int64_t from, std::int64_t to) const {
  assert(from <= to);
  const auto end = m_aTimes.begin() + m_nCount;
  const auto next = std::upper_bound(m_aTimes.begin(), end, from);
  if (!m_bKnown || (next == end && !m_bEnds))
    return kUnknown;
  return next != end && *next <= to ? kChange : static_cast<int>(next - m_aTimes.begin());
}

bool ZoneChanges::bounds(int stretch, std::int64_t& begin, std::int64_t& end) const {
  if (stretch < 1 || stretch >= static_cast<int>(m_nCount))
    return false;
  begin = m_aTimes[static_cast<std::size_t>(stretch) - 1];
  end = m_aTimes[static_cast<std::size_t>(stretch)];
  return true;
}

}  // namespace VarnSupport
