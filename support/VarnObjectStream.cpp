// Numbers travel as the bytes of the host; a type that is wider here than in the format travels as
// its low bytes. Not every stream tells how much it has moved, which is why a value is read aside
// and taken over only if something came.
//
// Texts travel as their length and their characters. Lengths are written in 32 bits and read in 16,
// as readers and writers of the format always have: the upper half is the beginning of what is read
// next.
#include "VarnSupport/VarnObjectStream.h"

#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <utility>

#include "runtime/Cancellation.h"

namespace VarnSupport {

namespace {

// A short read changes nothing. A stream that does not count what it moves is known by what it has
// stored.
template <typename Low, typename Value>
void readLow(VarnInputObjectStream& stream, Value& value) {
  const Low before = static_cast<Low>(value);
  Low low = before;
  const unsigned moved = stream.read(&low, sizeof low, 1);
  if (moved >= sizeof low || (moved == 0 && low != before))
    value = low;
}

}  // namespace

static_assert(sizeof(wchar_t) == 4 && sizeof(int) == 4 && sizeof(float) == 4 &&
              sizeof(double) == 8);

VarnObjectStream::~VarnObjectStream() = default;

VarnInputObjectStream::~VarnInputObjectStream() = default;

VarnInputObjectStream& VarnInputObjectStream::operator>>(long& value) {
  readLow<std::int32_t>(*this, value);
  return *this;
}

VarnInputObjectStream& VarnInputObjectStream::operator>>(unsigned long& value) {
  readLow<std::uint32_t>(*this, value);
  return *this;
}

unsigned VarnInputObjectStream::readLength() {
  std::int16_t length = 0;
  read(&length, sizeof length, 1);
  return length > 0 ? static_cast<unsigned>(length) : 0;
}

VarnInputObjectStream& VarnInputObjectStream::operator>>(char*& text) {
  const CancellationGuard closed;
  const unsigned length = readLength();
  if (length == 0)
    return *this;
  auto array = std::make_unique<char[]>(length + 1);
  read(array.get(), sizeof(char), length);
  text = array.release();
  return *this;
}

VarnInputObjectStream& VarnInputObjectStream::operator>>(std::string& text) {
  const CancellationGuard closed;
  std::string characters(readLength(), '\0');
  if (!characters.empty())
    read(characters.data(), sizeof(char), static_cast<unsigned>(characters.size()));
  text = std::move(characters);
  return *this;
}

VarnInputObjectStream& VarnInputObjectStream::operator>>(std::wstring& text) {
  const CancellationGuard closed;
  std::wstring characters(readLength(), L'\0');
  if (!characters.empty())
    read(characters.data(), sizeof(wchar_t), static_cast<unsigned>(characters.size()));
  text = std::move(characters);
  return *this;
}

VarnOutputObjectStream::~VarnOutputObjectStream() = default;

VarnOutputObjectStream& VarnOutputObjectStream::operator<<(const char* text) {
  return characters(text, sizeof(char), text != nullptr ? std::strlen(text) : 0);
}

VarnOutputObjectStream& VarnOutputObjectStream::operator<<(const std::string& text) {
  return characters(text.data(), sizeof(char), text.size());
}

VarnOutputObjectStream& VarnOutputObjectStream::operator<<(const std::wstring& text) {
  return characters(text.data(), sizeof(wchar_t), text.size());
}

VarnOutputObjectStream& VarnOutputObjectStream::characters(const void* data, unsigned size,
                                                           std::size_t count) {
  if (count > std::numeric_limits<std::uint32_t>::max() / size)
    return *this;
  const auto length = static_cast<std::uint32_t>(count);
  write(&length, sizeof length, 1);
  if (length > 0)
    write(data, size, length);
  return *this;
}

}  // namespace VarnSupport
