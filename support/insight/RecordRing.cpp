// A ring of places that are written in turn. Each has a version that is odd while somebody writes
// to it: a reader that finds the same even version before and after it has copied the place has a
// whole record. A writer that finds its place odd leaves its record out rather than wait, as the
// thread that it would wait for may be the one that has crashed.
//
// The bytes are copied as atomic words, as a reader may copy them while they change. Each word is
// released and acquired, which keeps it between the two looks at the version on any processor.
#include "insight/RecordRing.h"

#include <array>
#include <atomic>
#include <cstring>
#include <string>

#include "VarnSupport/VarnLogHelpers.h"
#include "runtime/Utf8.h"

namespace VarnSupport {

namespace {

constexpr std::size_t kRecords = 32;
constexpr std::size_t kMostText = 200;

using Bytes = std::array<char, 320>;  // of a line: header, component, name, text, end

struct Place {
  std::atomic<std::uint64_t> version{0};
  std::atomic<std::uint64_t> number{0};  // of the record, from 1
  std::array<std::atomic<std::uint64_t>, sizeof(Bytes) / 8> words{};
};

constinit std::array<Place, kRecords> places{};
constinit std::atomic<std::uint64_t> newest{0};

void store(Place& place, const Bytes& bytes) {
  for (std::size_t i = 0; i < place.words.size(); ++i) {
    std::uint64_t word = 0;
    std::memcpy(&word, bytes.data() + i * sizeof word, sizeof word);
    place.words[i].store(word, std::memory_order_release);
  }
}

void load(const Place& place, Bytes& bytes) {
  for (std::size_t i = 0; i < place.words.size(); ++i) {
    const std::uint64_t word = place.words[i].load(std::memory_order_acquire);
    std::memcpy(bytes.data() + i * sizeof word, &word, sizeof word);
  }
}

// Escaped and cut here, so that the handler of a crash has nothing left to do but to copy.
std::string lineOf(const VarnLogEntry& entry) {
  std::string line;
  PlainText text(PlainText::append, &line);
  text << UtcTime{entry.time.time_since_epoch().count()} << " " << entry.level << " ";
  if (!entry.component.empty())
    text << VarnEscaped(wholeCharacters(entry.component, kMostText / 8)) << " ";
  text << "[" << entry.threadId << "] " << VarnEscaped(wholeCharacters(entry.text, kMostText));
  text.flush();
  return line;
}

}  // namespace

void RecordRing::put(const VarnLogEntry& entry) {
  Bytes bytes{};
  wholeCharacters(lineOf(entry), bytes.size() - 1).copy(bytes.data(), bytes.size() - 1);
  const std::uint64_t number = newest.fetch_add(1, std::memory_order_relaxed) + 1;
  Place& place = places[number % kRecords];
  std::uint64_t version = place.version.load(std::memory_order_relaxed);
  if (version % 2 != 0 ||
      !place.version.compare_exchange_strong(version, version + 1, std::memory_order_acquire))
    return;
  place.number.store(number, std::memory_order_release);
  store(place, bytes);
  place.version.store(version + 2, std::memory_order_release);
}

void RecordRing::write(PlainText& text) {
  const std::uint64_t last = newest.load(std::memory_order_relaxed);
  for (std::uint64_t number = last > kRecords ? last - kRecords + 1 : 1; number <= last; ++number) {
    const Place& place = places[number % kRecords];
    const std::uint64_t version = place.version.load(std::memory_order_acquire);
    Bytes bytes;
    load(place, bytes);
    const bool isOfNumber = place.number.load(std::memory_order_acquire) == number;
    if (isOfNumber && version % 2 == 0 && place.version.load(std::memory_order_relaxed) == version)
      text << "  " << bytes.data() << "\n";
  }
}

void RecordRing::clear() {
  newest = 0;
  for (Place& place : places)
    place.number = 0;
}

}  // namespace VarnSupport
