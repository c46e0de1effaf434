// Where the properties of a set stand, by the hashes of their keys: a search among many keys then
// costs as much as among few.
//
// A table with linear probing, from which entries are taken without a trace (Knuth, The Art of
// Computer Programming, volume 3, section 6.4, algorithms L and R). It is made when a set has been
// looked up often enough to pay for it, and kept up to date from then on. Keys that are made to
// have one hash are found out by the length of a walk: such a set goes without an index.
#ifndef SUPPORT_TEXT_PROPERTYINDEX_H
#define SUPPORT_TEXT_PROPERTYINDEX_H

#include <algorithm>
#include <array>
#include <bit>
#include <cassert>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <limits>
#include <new>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>

#include "runtime/HashedPlace.h"

namespace VarnSupport {

// The hash of a text by its words; of letters that differ in the bits of `caseBits` alone it is
// one.
inline std::size_t hashOfBytes(const char* text, std::size_t length, std::uint64_t caseBits) {
  std::uint64_t hash = length;
  const auto add = [&hash, caseBits](const char* from, std::size_t count) {
    std::uint64_t word = 0;
    std::memcpy(&word, from, count);
    hash ^= word | caseBits;
    hash = (hash ^ hash >> 32) * kGoldenRatio;
    hash ^= hash >> 32;
  };
  if (length < sizeof hash) {
    if (length >= 4) {
      add(text, 4);
      add(text + length - 4, 4);
    } else {
      for (std::size_t i = 0; i < length; ++i)
        add(text + i, 1);
    }
    return hash;
  }
  for (std::size_t i = 0; i < length - sizeof hash; i += sizeof hash)
    add(text + i, sizeof hash);
  add(text + length - sizeof hash, sizeof hash);
  return hash;
}

// Keys that are equal have one hash, whatever the locale, which may change between two calls, says
// of letters: case-insensitive keys count without the bit that tells the cases of ASCII letters
// apart. Wide, other characters may be letters of ASCII as well, the Kelvin sign a 'k' and a dotted
// capital I an 'i': all these count as one.
template <typename StringType>
std::size_t hashOfKey(const StringType& key) {
  using CharT = typename StringType::value_type;
  using tView = std::basic_string_view<CharT>;
  constexpr bool isCaseless =
      !std::is_same_v<typename StringType::traits_type, std::char_traits<CharT>>;
  if constexpr (sizeof(CharT) == 1)
    return hashOfBytes(key.data(), key.size(), isCaseless ? 0x2020202020202020 : 0);
  constexpr std::hash<tView> hash;
  tView text(key.data(), key.size());
  if constexpr (!isCaseless)
    return hash(text);
  constexpr auto withoutCase = [](CharT c) {
    const auto small = static_cast<CharT>(c | 0x20);
    const bool isAmbiguous = small == 'k' || small < 0 || small > 0x7F;
    return isAmbiguous ? CharT('i') : small;
  };
  std::array<CharT, 64> part;
  std::size_t all = 0;
  do {
    const std::size_t length = std::min(text.size(), part.size());
    std::transform(text.begin(), text.begin() + length, part.begin(), withoutCase);
    all = all * 31 + hash(tView(part.data(), length));
    text.remove_prefix(length);
  } while (!text.empty());
  return all;
}

// A view of an index that is kept as the bytes of a text: without one, these are the number of
// look-ups so far, or there are none. `Property` is a pair whose first is the key.
template <typename StringType, typename Property>
class PropertyIndex {
 public:
  explicit PropertyIndex(StringType& bytes) : m_sBytes(bytes) {}

  bool exists() const { return m_sBytes.size() > kCountLength; }

  // Counts a look-up in `properties`, and makes the index when there have been enough of them.
  // Whether there is one now.
  template <typename Properties>
  [[gnu::noinline]] bool makeIfDue(const Properties& properties) noexcept {
    assert(!exists());
    if (properties.size() < kFewest)
      return false;
    const std::size_t lookups = this->lookups();
    if (lookups < properties.size() / kKeysPerLookup) {
      setLookups(lookups + 1);
      return false;
    }
    if (lookups == kRefused || !reserve(properties.size()))
      return false;
    for (const Property& property : properties) {
      if (!place({&property, hashOfKey(property.first)})) {
        setLookups(kRefused);
        return false;
      }
    }
    return true;
  }

  // Null when there is none. Requires, as all that follows: exists().
  const Property* find(const StringType& key) const {
    const std::size_t hash = hashOfKey(key);
    for (std::size_t i = hash;; ++i) {
      const Entry entry = at(i);
      if (entry.property == nullptr || (entry.hash == hash && entry.property->first == key))
        return entry.property;
    }
  }

  // A property that is new among `count`. There is no index any more when it has no place.
  void add(const Property& property, std::size_t count) noexcept {
    const Entry added{&property, hashOfKey(property.first)};
    if (!hasRoomFor(count) && !grow(count))
      clear();
    else if (!place(added))
      setLookups(kRefused);
  }

  void remove(const StringType& key) noexcept {
    std::size_t gap = hashOfKey(key);
    while (at(gap).property != nullptr && !(at(gap).property->first == key))
      ++gap;
    for (std::size_t i = gap + 1; at(i).property != nullptr; ++i) {
      const Entry entry = at(i);
      if (((i - entry.hash) & mask()) < ((i - gap) & mask()))
        continue;  // it is not behind where it belongs, seen from the gap
      put(gap, entry);
      gap = i;
    }
    put(gap, Entry());
  }

  void clear() noexcept { StringType().swap(m_sBytes); }

 private:
  using CharT = typename StringType::value_type;

  struct Entry {
    const Property* property;  // null where there is none
    std::size_t hash;
  };

  static constexpr std::size_t kEntryLength = sizeof(Entry) / sizeof(CharT);
  static constexpr std::size_t kCountLength = sizeof(std::size_t) / sizeof(CharT);
  static constexpr std::size_t kFewest = 16;  // keys
  static constexpr std::size_t kKeysPerLookup = 16;
  static constexpr std::size_t kMostAlike = 8;
  static constexpr std::size_t kLongestWalk = 1024;
  static constexpr std::size_t kRefused = std::numeric_limits<std::size_t>::max();

  std::size_t lookups() const {
    std::size_t count = 0;
    if (!m_sBytes.empty())
      std::memcpy(&count, m_sBytes.data(), sizeof count);
    return count;
  }

  // A text of that length needs no memory.
  void setLookups(std::size_t count) noexcept {
    if (exists())
      clear();
    m_sBytes.resize(kCountLength);
    std::memcpy(m_sBytes.data(), &count, sizeof count);
  }

  std::size_t mask() const { return m_sBytes.size() / kEntryLength - 1; }

  Entry at(std::size_t i) const {
    Entry entry;
    std::memcpy(&entry, m_sBytes.data() + (i & mask()) * kEntryLength, sizeof entry);
    return entry;
  }
  void put(std::size_t i, const Entry& entry) noexcept {
    std::memcpy(m_sBytes.data() + (i & mask()) * kEntryLength, &entry, sizeof entry);
  }

  bool hasRoomFor(std::size_t count) const { return count <= (mask() + 1) / 5 * 4; }

  // Makes a table of empty entries; false when there is no memory.
  bool reserve(std::size_t count) noexcept {
    try {
      StringType bytes(std::bit_ceil(count / 4 * 5 + 5) * kEntryLength, CharT());
      bytes.swap(m_sBytes);
      return true;
    } catch (const std::bad_alloc&) {
      return false;
    } catch (const std::length_error&) {
      return false;
    }
  }

  bool grow(std::size_t count) noexcept {
    StringType bytes;
    bytes.swap(m_sBytes);
    if (!reserve(count))
      return false;
    PropertyIndex before(bytes);
    for (std::size_t i = 0; i <= before.mask(); ++i) {
      if (const Entry entry = before.at(i); entry.property != nullptr && !place(entry))
        return false;
    }
    return true;
  }

  // False when too many keys have this hash, or the walk to a free place is too long.
  bool place(const Entry& entry) noexcept {
    std::size_t i = entry.hash;
    std::size_t alike = 0;
    for (; at(i).property != nullptr; ++i) {
      alike += at(i).hash == entry.hash ? 1 : 0;
      if (alike == kMostAlike || i - entry.hash == kLongestWalk)
        return false;
    }
    put(i, entry);
    return true;
  }

  StringType& m_sBytes;
};

}  // namespace VarnSupport

#endif
