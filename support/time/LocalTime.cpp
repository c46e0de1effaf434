// The idea: between two changes of a zone, local time is UTC plus a constant, and needs arithmetic
// only. Time is cut into blocks of twelve days. A block is steady, and answered from here, if the
// zone does not change from two days before it to two days after; in all others the system answers.
// Where the file of the zone does not tell (ZoneChanges.h), a block is probed every second day,
// once the system was asked about it as often as a probe would ask it.
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

#include <array>
#include <atomic>
#include <cassert>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "runtime/Fork.h"
#include "time/Calendar.h"
#include "time/ZoneChanges.h"
#include "time/ZoneNumber.h"

namespace VarnSupport {

namespace {

constexpr int kBlockBits = 20;
constexpr std::int64_t kBlockLength = std::int64_t{1} << kBlockBits;
constexpr std::int64_t kMargin = 2 * kDay;
constexpr std::int64_t kProbeStep = 2 * kDay;
constexpr std::int64_t kProbes = (kBlockLength + 2 * kMargin) / kProbeStep + 2;
constexpr std::int64_t kFirstBlock = -4096;  // in 1833
constexpr std::int64_t kBlocks = 8192;       // to 2106

// What the local time of a steady block is. Does not change once a block refers to it.
struct Kind {
  bool daylightSaving;
  long offset;         // what the system calls the offset
  std::int64_t shift;  // local minus UTC: the same, but where leap seconds count
  std::array<char, 16> name;
  bool refusesOther;  // a daylight-saving flag that says otherwise

  bool operator==(const Kind&) const = default;
};

// Far more than the zones that one process uses have.
constinit std::array<Kind, 128> kinds{};
constinit std::size_t kindCount = 0;  // guarded by zoneLock

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

// The state of a kind. Requires: zoneLock is held.
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
  const std::lock_guard guard(zoneLock);
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

// The changes of the zone that is numbered so, and the state of each stretch between them, 0 until
// the system was asked about it. Guarded by zoneLock.
struct Stretches {
  std::uint64_t number;
  ZoneChanges changes;
  std::array<std::uint8_t, ZoneChanges::kMost + 1> states;
};
constinit Stretches stretches{};

// Whether mktime() refuses the other daylight-saving flag in a stretch: it looks for that flag
// every week to both sides, and takes the shift of where it finds it. Requires: zoneLock is held.
bool refusesOther(const Kind& kind, int stretch) {
  constexpr std::int64_t week = 7 * kDay;
  for (const int side : {stretch - 1, stretch + 1}) {
    std::int64_t begin = 0;
    std::int64_t end = 0;
    Kind other{};
    if (!stretches.changes.bounds(side, begin, end) || end - begin < week || !ask(begin, other) ||
        other.daylightSaving == kind.daylightSaving || other.shift == kind.shift ||
        std::abs(other.shift - kind.shift) > kMargin)
      return false;
  }
  return true;
}

// The state of a block as far as the file of its zone tells, else 0. Of a stretch, the system says
// what its local time is: at both ends of the block, and again at the first, in case that TZ was
// another meanwhile.
std::uint64_t stateFromFile(std::uint64_t number, std::int64_t block) {
  std::unique_lock guard(zoneLock);
  if (stretches.number != number) {
    guard.unlock();
    ZoneChanges changes;
    changes.read(std::getenv("TZ"));
    if (zoneNumber() != number)
      return 0;
    guard.lock();
    stretches = {number, changes, {}};
  }
  const std::int64_t begin = block * kBlockLength - kMargin;
  const std::int64_t end = (block + 1) * kBlockLength + kMargin;
  const int stretch = stretches.changes.between(begin, end);
  if (stretch < 0)
    return stretch == ZoneChanges::kChange ? kNotSteady : 0;
  std::uint8_t& state = stretches.states[static_cast<std::size_t>(stretch)];
  if (state == 0) {
    Kind kind{};
    Kind last{};
    Kind again{};
    tzset();
    if (!ask(begin, kind) || !ask(end, last) || kind.shift <= -kMargin || kind.shift >= kMargin)
      return 0;
    const bool refuses = refusesOther(kind, stretch);
    tzset();
    if (!ask(begin, again) || !(kind == again) || !(kind == last))
      return 0;
    kind.refusesOther = refuses;
    state = static_cast<std::uint8_t>(stateOf(kind));
  }
  return state;
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
    if (state == 0)
      state = stateFromFile(number, block);
    if (state < kProbes)
      state = state + 1 < kProbes ? state + 1 : probe(block);
    if (state >= kProbes && zoneNumber() != number)
      return nullptr;  // the probe may be of another zone
    known.store(number << kStateBits | state, std::memory_order_release);
  }
  assert(state < kFirstKind || state - kFirstKind < kinds.size());
  return state >= kFirstKind ? &kinds[state - kFirstKind] : nullptr;
}

// Whether the daylight-saving flag of a local time allows this kind.
bool fitsFlag(const std::tm& local, const Kind& kind) {
  return local.tm_isdst < 0 || (local.tm_isdst > 0) == kind.daylightSaving;
}

// The steady kind at a local time that has these seconds, else null. A second beyond the minute is
// elapsed time for mktime(), which looks up the time without it.
const Kind* kindAt(const std::tm& local, std::int64_t seconds) {
  return local.tm_sec < 0 || local.tm_sec >= 60 ? nullptr : steadyKind(zoneNumber(), seconds);
}

// The same, if mktime() would use it.
const Kind* kindOf(const std::tm& local, std::int64_t seconds) {
  const Kind* const kind = kindAt(local, seconds);
  return kind != nullptr && fitsFlag(local, *kind) ? kind : nullptr;
}

std::time_t askForTime(std::tm& local) {
  const std::lock_guard guard(zoneLock);
  return std::mktime(&local);
}

void complete(const Kind& kind, std::tm& local) {
  local.tm_isdst = kind.daylightSaving ? 1 : 0;
  local.tm_gmtoff = kind.offset;
  local.tm_zone = kind.name.data();
}

}  // namespace

bool toLocalTime(std::time_t time, std::tm& local) {
  if (const Kind* const kind = steadyKind(zoneNumber(), time)) {
    breakDown(time + kind->shift, local);
    complete(*kind, local);
    return true;
  }
  const std::lock_guard guard(zoneLock);
  tzset();
  return localtime_r(&time, &local) != nullptr;
}

std::time_t fromLocalTime(std::tm& local) {
  const CalendarTime time(local);
  const Kind* const kind = kindOf(local, time.seconds());
  if (kind == nullptr)
    return askForTime(local);
  time.normalise(local);
  complete(*kind, local);
  return time.seconds() - kind->shift;
}

std::time_t timeOfLocal(const std::tm& local) {
  const std::int64_t seconds = secondsOf(local);
  if (const Kind* const kind = kindOf(local, seconds))
    return seconds - kind->shift;
  std::tm copy = local;
  return askForTime(copy);
}

bool isLocalTime(const std::tm& local) {
  std::tm normal = local;
  const CalendarTime time(local);
  const Kind* const kind = kindAt(local, time.seconds());
  if (kind != nullptr && fitsFlag(local, *kind)) {
    if (time.seconds() - kind->shift == -1)
      return false;  // which is a failure for whoever asks mktime()
    time.normalise(normal);
  } else if ((kind != nullptr && kind->refusesOther) || askForTime(normal) == -1) {
    return false;
  }
  return normal.tm_mday == local.tm_mday && normal.tm_mon == local.tm_mon &&
         normal.tm_year == local.tm_year && normal.tm_hour == local.tm_hour &&
         normal.tm_min == local.tm_min && normal.tm_sec == local.tm_sec;
}

bool shiftLocalTime(std::tm& local, int std::tm::*field, int value) {
  const std::uint64_t number = zoneNumber();
  std::tm shifted = local;
  shifted.*field = value;
  if (local.tm_sec >= 60 || shifted.tm_sec < 0 || shifted.tm_sec >= 60)
    return false;
  const CalendarTime time(shifted);
  const Kind* const before = steadyKind(number, secondsOf(local));
  const Kind* const after = before != nullptr ? steadyKind(number, time.seconds()) : nullptr;
  if (after == nullptr || after->daylightSaving != before->daylightSaving ||
      time.seconds() - after->shift == -1)
    return false;
  local.*field = value;
  time.normalise(local);
  return true;
}

// Where local time is as far from UTC as the zone says, no leap seconds count.
void toUniversalTime(std::time_t time, std::tm& utc) {
  const Kind* const kind = steadyKind(zoneNumber(), time);
  if (kind != nullptr && kind->shift == kind->offset) {
    breakDown(time, utc);
    utc.tm_isdst = 0;
    utc.tm_gmtoff = 0;
    utc.tm_zone = "GMT";
    return;
  }
  const ZoneUse use;
  tzset();  // some zones count leap seconds
  gmtime_r(&time, &utc);
}

ZoneUse::ZoneUse() { zoneLock.lock(); }

ZoneUse::~ZoneUse() { zoneLock.unlock(); }

constinit const ForkPart zoneFork{[] { zoneLock.lock(); }, [](ForkSide) { zoneLock.unlock(); }};

}  // namespace VarnSupport
