// The idea: between two changes of a zone, local time is UTC plus a constant, and needs arithmetic
// only. Time is cut into blocks of twelve days. Once the system was asked about a block as often as
// a probe would ask it, the block is probed: every second day, from two days before it to two days
// after. When all answers have the same shift, the block is steady and answered from here; all
// others go to the system.
//
// This is exact because no zone goes back to what it was within two days (the closest changes on
// record are four days apart), and because shifts are below two days: whatever has a given local
// time then lies within the days that were probed, so that mktime() has no choice to make either.
// Rules that TZ itself spells out and zone files that it names by their path may change at any
// time, and are left to the system.
//
// What is known belongs to the process and is read without a lock. Zones are numbered: a changed TZ
// makes a new one, and each block carries the number of the zone that it was probed for. A steady
// block costs a look at TZ and some twenty instructions, another one what the system asks.
#include "time/LocalTime.h"

#include <sys/stat.h>

#include <array>
#include <atomic>
#include <cassert>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "runtime/Fork.h"

namespace VarnSupport {

namespace {

constexpr std::int64_t kDay = 86400;
constexpr int kBlockBits = 20;
constexpr std::int64_t kBlockLength = std::int64_t{1} << kBlockBits;
constexpr std::int64_t kMargin = 2 * kDay;
constexpr std::int64_t kProbeStep = 2 * kDay;
constexpr std::int64_t kProbes = (kBlockLength + 2 * kMargin) / kProbeStep + 2;
constexpr std::int64_t kFirstBlock = -4096;  // in 1833
constexpr std::int64_t kBlocks = 8192;       // to 2106

// Held while the system is asked, and across a fork: the lock that the system keeps its zone behind
// would stay locked for ever in a child that is forked meanwhile.
constinit std::mutex systemLock;

// Dates of the Gregorian calendar, as days since 1 January 1970. Years begin in March here, so that
// the leap day is their last, and come in eras of 400, which all have the same length.
constexpr std::int64_t kYearsOfEra = 400;
constexpr std::int64_t kDaysOfEra = 146097;
constexpr std::int64_t kEpoch = 719468;           // days from 1 March 0
constexpr std::uint32_t kJanuary = 306;           // days from 1 March
constexpr std::uint32_t kMarchOfCommonYear = 59;  // days from 1 January

std::int64_t daysOf(std::int64_t year, std::uint32_t month, std::int64_t dayOfMonth) {
  assert(month < 12);
  const std::int64_t marchYear = year - (month < 2 ? 1 : 0);
  const std::int64_t era =
      (marchYear >= 0 ? marchYear : marchYear - (kYearsOfEra - 1)) / kYearsOfEra;
  const auto yearOfEra = static_cast<std::uint32_t>(marchYear - era * kYearsOfEra);
  const std::uint32_t monthBegin = (153 * (month < 2 ? month + 10 : month - 2) + 2) / 5;
  const std::uint32_t yearBegin = yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100;
  return era * kDaysOfEra + yearBegin + monthBegin + dayOfMonth - 1 - kEpoch;
}

// The broken-down fields of `seconds` since the epoch, without any zone.
// Requires: the year fits.
void breakDown(std::int64_t seconds, std::tm& fields) {
  const std::int64_t days = (seconds >= 0 ? seconds : seconds - (kDay - 1)) / kDay;
  const auto secondOfDay = static_cast<std::uint32_t>(seconds - days * kDay);
  const std::int64_t shifted = days + kEpoch;
  const std::int64_t era = (shifted >= 0 ? shifted : shifted - (kDaysOfEra - 1)) / kDaysOfEra;
  const auto dayOfEra = static_cast<std::uint32_t>(shifted - era * kDaysOfEra);
  const std::uint32_t yearOfEra =
      (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
  const std::uint32_t dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
  const std::uint32_t month = (5 * dayOfYear + 2) / 153;
  const bool isNextYear = dayOfYear >= kJanuary;
  const bool isLeapYear = yearOfEra % 4 == 0 && (yearOfEra % 100 != 0 || yearOfEra == 0);
  assert(month < 12 && yearOfEra < kYearsOfEra);
  fields.tm_year = static_cast<int>(yearOfEra + era * kYearsOfEra + (isNextYear ? 1 : 0) - 1900);
  fields.tm_mon = static_cast<int>(isNextYear ? month - 10 : month + 2);
  fields.tm_mday = static_cast<int>(dayOfYear - (153 * month + 2) / 5 + 1);
  fields.tm_hour = static_cast<int>(secondOfDay / 3600);
  fields.tm_min = static_cast<int>(secondOfDay / 60 % 60);
  fields.tm_sec = static_cast<int>(secondOfDay % 60);
  fields.tm_wday = static_cast<int>((dayOfEra + 3) % 7);  // an era has whole weeks
  fields.tm_yday = static_cast<int>(
      isNextYear ? dayOfYear - kJanuary : dayOfYear + kMarchOfCommonYear + (isLeapYear ? 1 : 0));
}

// Seconds since the epoch of fields that need not be normalised, without any zone.
std::int64_t secondsOf(const std::tm& fields) {
  const int months = fields.tm_mon % 12 + (fields.tm_mon % 12 < 0 ? 12 : 0);
  const std::int64_t year =
      std::int64_t{1900} + fields.tm_year + (std::int64_t{fields.tm_mon} - months) / 12;
  return daysOf(year, static_cast<std::uint32_t>(months), fields.tm_mday) * kDay +
         std::int64_t{fields.tm_hour} * 3600 + std::int64_t{fields.tm_min} * 60 + fields.tm_sec;
}

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

  // The number is 0 while the name changes. Both change under systemLock, which guards what
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
  const std::lock_guard guard(systemLock);
  m_nNumber.store(0, std::memory_order_relaxed);
  for (std::size_t i = 0; i < name.size(); ++i)
    m_aName[i].store(name[i], std::memory_order_release);
  m_nNumber.store(++m_nNewest, std::memory_order_release);
  return m_nNewest;
}

// Without TZ the zone is a file, which an administrator may replace: looks at it once a second.
bool Zone::mayHaveChanged(std::time_t now) {
  const std::lock_guard guard(systemLock);
  struct stat status {};
  ZoneFile file{};
  if (stat("/etc/localtime", &status) == 0)
    file = {status.st_dev, status.st_ino, status.st_mtime};
  const bool changed = m_nLookedAt.load(std::memory_order_relaxed) < 0 || file != m_oFile;
  m_oFile = file;
  m_nLookedAt.store(now, std::memory_order_relaxed);
  return changed;
}

// What the local time of a steady block is. Does not change once a block refers to it.
struct Kind {
  bool daylightSaving;
  long offset;         // what the system calls the offset
  std::int64_t shift;  // local minus UTC: the same, but where leap seconds count
  std::array<char, 16> name;

  bool operator==(const Kind&) const = default;
};

// Far more than the zones that one process uses have.
constinit std::array<Kind, 128> kinds{};
constinit std::size_t kindCount = 0;  // guarded by systemLock

// What is known of each block: the number of a zone, and in the bits below it how often the system
// was asked, that the block is not steady, or the kind of a steady one.
constexpr int kStateBits = 8;
constexpr std::uint64_t kStates = 0xFF;
constexpr std::uint64_t kNotSteady = 0x7F;
constexpr std::uint64_t kFirstKind = 0x80;
constinit std::array<std::atomic<std::uint64_t>, kBlocks> blocks{};

static_assert(kProbes <= static_cast<std::int64_t>(kNotSteady), "counts end before other states");
static_assert(kFirstKind + std::tuple_size_v<decltype(kinds)> <= kStates + 1,
              "each kind has a state");
static_assert(kMargin >= 2 * kDay && kProbeStep <= 2 * kDay, "as close as the changes of a zone");

// What the system says of a time. False when it cannot say, or the zone's name is too long to keep.
bool ask(std::int64_t seconds, Kind& answer) {
  const std::time_t time = seconds;
  std::tm local{};
  if (localtime_r(&time, &local) == nullptr)
    return false;
  answer.daylightSaving = local.tm_isdst > 0;
  answer.offset = local.tm_gmtoff;
  answer.shift = secondsOf(local) - seconds;
  answer.name = {};
  const std::size_t length = std::strlen(local.tm_zone);
  if (length >= answer.name.size())
    return false;
  std::memcpy(answer.name.data(), local.tm_zone, length);
  return true;
}

// The state of a kind. Requires: systemLock is held.
std::uint64_t stateOf(const Kind& kind) {
  assert(kindCount <= kinds.size());
  std::size_t index = 0;
  while (index < kindCount && !(kinds[index] == kind))
    ++index;
  if (index == kinds.size())
    return kNotSteady;
  if (index == kindCount)
    kinds[kindCount++] = kind;
  return kFirstKind + index;
}

// Asks the system about a block, its surroundings included, and returns the state that comes of it.
std::uint64_t probe(std::int64_t block) {
  assert(block >= kFirstBlock && block < kFirstBlock + kBlocks);
  const std::lock_guard guard(systemLock);
  tzset();
  std::int64_t time = block * kBlockLength - kMargin;
  Kind kind{};
  if (!ask(time, kind) || kind.shift <= -kMargin || kind.shift >= kMargin)
    return kNotSteady;
  for (int i = 1; i < kProbes; ++i) {
    time += kProbeStep;
    Kind answer{};
    if (!ask(time, answer) || !(answer == kind))
      return kNotSteady;
  }
  // For the moment of the look TZ may have been another, unseen: then nothing was learned.
  tzset();
  Kind again{};
  return ask(time, again) && again == kind ? stateOf(kind) : 0;
}

// The kind of the block of a time if it is steady, else null: then the system is to be asked.
const Kind* steadyKind(std::uint64_t number, std::int64_t seconds) {
  const std::int64_t block = seconds >> kBlockBits;
  if (number == 0 || block < kFirstBlock || block >= kFirstBlock + kBlocks)
    return nullptr;
  std::atomic<std::uint64_t>& known = blocks[static_cast<std::size_t>(block - kFirstBlock)];
  const std::uint64_t word = known.load(std::memory_order_acquire);
  std::uint64_t state = word >> kStateBits == number ? word & kStates : 0;
  if (state < kProbes) {
    state = state + 1 < kProbes ? state + 1 : probe(block);
    if (state >= kProbes && zone.number() != number)
      return nullptr;  // the probe may be of another zone
    known.store(number << kStateBits | state, std::memory_order_release);
  }
  assert(state < kFirstKind || state - kFirstKind < kinds.size());
  return state >= kFirstKind ? &kinds[state - kFirstKind] : nullptr;
}

// The same for a local time that has these seconds, where mktime() would use it. A second beyond
// the minute is elapsed time for mktime(), which looks up the time without it.
const Kind* kindOf(const std::tm& local, std::int64_t seconds) {
  const std::uint64_t number = zone.number();
  if (local.tm_sec < 0 || local.tm_sec >= 60)
    return nullptr;
  const Kind* const kind = steadyKind(number, seconds);
  const bool fits =
      kind != nullptr && (local.tm_isdst < 0 || (local.tm_isdst > 0) == kind->daylightSaving);
  return fits ? kind : nullptr;
}

std::time_t askForTime(std::tm& local) {
  const std::lock_guard guard(systemLock);
  return std::mktime(&local);
}

void complete(const Kind& kind, std::tm& local) {
  local.tm_isdst = kind.daylightSaving ? 1 : 0;
  local.tm_gmtoff = kind.offset;
  local.tm_zone = kind.name.data();
}

}  // namespace

bool toLocalTime(std::time_t time, std::tm& local) {
  if (const Kind* const kind = steadyKind(zone.number(), time)) {
    breakDown(time + kind->shift, local);
    complete(*kind, local);
    return true;
  }
  const std::lock_guard guard(systemLock);
  tzset();
  return localtime_r(&time, &local) != nullptr;
}

std::time_t fromLocalTime(std::tm& local) {
  const std::int64_t seconds = secondsOf(local);
  const Kind* const kind = kindOf(local, seconds);
  if (kind == nullptr)
    return askForTime(local);
  breakDown(seconds, local);
  complete(*kind, local);
  return seconds - kind->shift;
}

std::time_t timeOfLocal(const std::tm& local) {
  const std::int64_t seconds = secondsOf(local);
  if (const Kind* const kind = kindOf(local, seconds))
    return seconds - kind->shift;
  std::tm copy = local;
  return askForTime(copy);
}

void toUniversalTime(std::time_t time, std::tm& utc) {
  const ZoneUse use;
  tzset();  // some zones count leap seconds
  gmtime_r(&time, &utc);
}

ZoneUse::ZoneUse() { systemLock.lock(); }

ZoneUse::~ZoneUse() { systemLock.unlock(); }

constinit const ForkPart zoneFork{[] { systemLock.lock(); }, [](ForkSide) { systemLock.unlock(); }};

}  // namespace VarnSupport
