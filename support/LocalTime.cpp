// The idea: between two changes of a zone, local time is UTC plus a constant, and needs arithmetic
// only. Time is cut into blocks of twelve days; for a block that is asked for again, the system is
// asked once a day, from two days before it to two days after. When all answers have the same
// shift, the block is steady and answered from here; all others go to the system.
//
// This is exact because no zone changes twice within a day (the closest changes on record are four
// days apart; rules that TZ itself spells out may be closer, and are left to the system), and
// because shifts are below two days: whatever has a given local time then lies within the days that
// were asked for, so that mktime() has no choice to make either.
//
// A steady block costs a look at TZ and some twenty instructions, another one what the system asks.
#include "LocalTime.h"

#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "Fork.h"

namespace VarnSupport {

namespace {

constexpr std::int64_t kDay = 86400;
constexpr int kBlockBits = 20;
constexpr std::int64_t kBlockLength = std::int64_t{1} << kBlockBits;
constexpr std::int64_t kMargin = 2 * kDay;
constexpr std::size_t kBlocks = 16;
constexpr std::int64_t kFarthest = std::int64_t{1} << 60;  // beyond all years, without overflow

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

// What a thread knows of the zone.
class Zone {
 public:
  struct Block {
    enum tState : std::uint8_t { UNKNOWN, SEEN, STEADY, CHANGING };

    std::int64_t number;
    tState state;
    bool daylightSaving;
    long offset;         // what the system calls the offset
    std::int64_t shift;  // local minus UTC: the same, but where leap seconds count
    std::array<char, 16> name;
  };

  // Forgets everything when the zone has changed.
  void refresh();
  // The block of a time if it is steady, else null: then the system is to be asked.
  const Block* steadyBlock(std::int64_t seconds);

 private:
  static bool ask(std::int64_t seconds, Block& answer);
  static Block::tState probe(Block& block);

  std::array<char, 128> m_aName;  // what TZ was
  bool m_bNamed;
  bool m_bKnown;
  std::time_t m_nLookedAt;  // when the zone without TZ was looked at
  std::array<Block, kBlocks> m_aBlocks;
};

constinit thread_local Zone t_oZone{};  // all zero: nothing is known

void Zone::refresh() {
  const char* const name = std::getenv("TZ");
  std::timespec now{};
  if (name == nullptr)
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  const bool kept = name != nullptr ? m_bNamed && std::strcmp(name, m_aName.data()) == 0
                                    : !m_bNamed && now.tv_sec == m_nLookedAt;
  if (kept && m_bKnown)
    return;
  m_aBlocks = {};
  m_bNamed = name != nullptr;
  m_nLookedAt = now.tv_sec;
  const std::size_t length = m_bNamed ? std::strlen(name) : 0;
  m_bKnown = length < m_aName.size() && (!m_bNamed || std::strchr(name, ',') == nullptr);
  if (m_bNamed && m_bKnown)
    std::memcpy(m_aName.data(), name, length + 1);
}

const Zone::Block* Zone::steadyBlock(std::int64_t seconds) {
  if (!m_bKnown || seconds < -kFarthest || seconds > kFarthest)
    return nullptr;
  const std::int64_t number = seconds >> kBlockBits;
  Block& block = m_aBlocks[static_cast<std::size_t>(number) % kBlocks];
  if (block.number != number || block.state == Block::UNKNOWN) {
    block.number = number;
    block.state = Block::SEEN;  // times all over the calendar are not worth asking for more
  } else if (block.state == Block::SEEN) {
    block.state = probe(block);
  }
  return block.state == Block::STEADY ? &block : nullptr;
}

Zone::Block::tState Zone::probe(Block& block) {
  const std::lock_guard guard(systemLock);
  tzset();
  const std::int64_t begin = block.number * kBlockLength;
  if (!ask(begin - kMargin, block) || block.shift <= -kMargin || block.shift >= kMargin)
    return Block::CHANGING;
  const std::int64_t end = begin + kBlockLength + kMargin;
  for (std::int64_t time = begin - kMargin + kDay; time < end + kDay; time += kDay) {
    Block answer{};
    if (!ask(time, answer) || answer.shift != block.shift || answer.offset != block.offset ||
        answer.daylightSaving != block.daylightSaving || answer.name != block.name)
      return Block::CHANGING;
  }
  return Block::STEADY;
}

bool Zone::ask(std::int64_t seconds, Block& answer) {
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

void complete(const Zone::Block& block, std::tm& local) {
  local.tm_isdst = block.daylightSaving ? 1 : 0;
  local.tm_gmtoff = block.offset;
  local.tm_zone = block.name.data();
}

}  // namespace

bool toLocalTime(std::time_t time, std::tm& local) {
  t_oZone.refresh();
  if (const Zone::Block* const block = t_oZone.steadyBlock(time)) {
    breakDown(time + block->shift, local);
    complete(*block, local);
    return true;
  }
  const std::lock_guard guard(systemLock);
  tzset();
  return localtime_r(&time, &local) != nullptr;
}

std::time_t fromLocalTime(std::tm& local) {
  t_oZone.refresh();
  const std::int64_t seconds = secondsOf(local);
  const Zone::Block* const block = t_oZone.steadyBlock(seconds);
  if (block == nullptr || (local.tm_isdst >= 0 && (local.tm_isdst > 0) != block->daylightSaving)) {
    const std::lock_guard guard(systemLock);
    return std::mktime(&local);
  }
  breakDown(seconds, local);
  complete(*block, local);
  return seconds - block->shift;
}

void toUniversalTime(std::time_t time, std::tm& utc) {
  const ZoneUse use;
  gmtime_r(&time, &utc);
}

ZoneUse::ZoneUse() { systemLock.lock(); }

ZoneUse::~ZoneUse() { systemLock.unlock(); }

constinit const ForkPart zoneFork{[] { systemLock.lock(); },
                                  [](ForkSide) { systemLock.unlock(); }};

}  // namespace VarnSupport
