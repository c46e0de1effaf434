#include "time/ZoneNumber.h"

#include <sys/stat.h>

#include <array>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace VarnSupport {

namespace {

// What TZ is for a zone that may be known: words filled up with zeros.
using ZoneName = std::array<std::uint64_t, 8>;
constexpr ZoneName kNoName{~std::uint64_t{0}};

// The file of the zone that has no name, as far as the system looks at it.
struct ZoneFile {
  dev_t device;
  ino_t number;
  std::time_t written;

  bool operator==(const ZoneFile&) const = default;
};

// The zone that was in force when it was last looked at.
class Zone {
 public:
  // The number of the zone of this moment; 0 for one of which nothing may be known.
  std::uint64_t number();

 private:
  std::uint64_t numberOf(const char* text) const;
  std::uint64_t rename(const ZoneName& name);
  bool mayHaveChanged(std::time_t now);

  // The number is 0 while the name changes. Both change under zoneLock, which guards what
  // follows.
  std::array<std::atomic<std::uint64_t>, std::tuple_size_v<ZoneName>> m_aName{};
  std::atomic<std::uint64_t> m_nNumber{0};
  std::atomic<std::time_t> m_nLookedAt{-1};  // at the file
  std::uint64_t m_nNewest = 0;
  ZoneFile m_oFile{};
};

constinit Zone zone;

// Packs the text of TZ into words, the first byte lowest; false when it is too long.
bool readName(const char* text, ZoneName& name) {
  const std::size_t length = strnlen(text, sizeof(name));
  name = {};
  for (std::size_t i = 0; i < length; ++i)
    name[i / 8] |= std::uint64_t{static_cast<unsigned char>(text[i])} << i % 8 * 8;
  return length < sizeof(name);
}

// Files that do not come with the system, and rules, may change at any time.
bool isOfSystem(const char* text) {
  return std::strchr("/:", *text) == nullptr && std::strpbrk(text, ",.") == nullptr &&
         std::getenv("TZDIR") == nullptr;
}

std::uint64_t Zone::number() {
  const char* const text = std::getenv("TZ");
  const std::uint64_t number = numberOf(text);
  if (number == 0) {
    ZoneName name = kNoName;
    const bool canBeKnown = text == nullptr || (readName(text, name) && isOfSystem(text));
    return canBeKnown ? rename(name) : 0;
  }
  if (text != nullptr)
    return number;
  std::timespec now{};
  clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  return now.tv_sec == m_nLookedAt.load(std::memory_order_relaxed) || !mayHaveChanged(now.tv_sec)
             ? number
             : rename(kNoName);
}

// The number of the zone that is in force if this is its name, else 0. Reads the number before and
// after the words: they belong together when it is the same. Behind the word in which the text ends
// there are zeros alone.
std::uint64_t Zone::numberOf(const char* text) const {
  const std::uint64_t number = m_nNumber.load(std::memory_order_acquire);
  for (const std::atomic<std::uint64_t>& part : m_aName) {
    std::uint64_t word = text == nullptr ? kNoName[0] : 0;
    bool ends = text == nullptr;
    for (unsigned shift = 0; shift < 64 && !ends; shift += 8) {
      word |= std::uint64_t{static_cast<unsigned char>(*text)} << shift;
      ends = *text++ == '\0';
    }
    if (part.load(std::memory_order_acquire) != word)
      return 0;
    if (ends)
      return number == m_nNumber.load(std::memory_order_relaxed) ? number : 0;
  }
  return 0;
}

// Begins a new zone under this name. Readers see the number 0 until all words are there.
std::uint64_t Zone::rename(const ZoneName& name) {
  const std::lock_guard guard(zoneLock);
  m_nNumber.store(0, std::memory_order_relaxed);
  for (std::size_t i = 0; i < name.size(); ++i)
    m_aName[i].store(name[i], std::memory_order_release);
  m_nNumber.store(++m_nNewest, std::memory_order_release);
  return m_nNewest;
}

// Without TZ the zone is a file, which an administrator may replace: looks at it once a second.
bool Zone::mayHaveChanged(std::time_t now) {
  const std::lock_guard guard(zoneLock);
  struct stat status {};
  ZoneFile file{};
  if (stat("/etc/localtime", &status) == 0)
    file = {status.st_dev, status.st_ino, status.st_mtime};
  const bool changed = m_nLookedAt.load(std::memory_order_relaxed) < 0 || file != m_oFile;
  m_oFile = file;
  m_nLookedAt.store(now, std::memory_order_relaxed);
  return changed;
}

}  // namespace

constinit std::mutex zoneLock;

std::uint64_t zoneNumber() { return zone.number(); }

}  // namespace VarnSupport
