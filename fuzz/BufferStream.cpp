// A count of steps, the steps, and the bytes that a stream is rebuilt from. Steps move raw bytes,
// which are compared with a string's, or read values.
#include <memory>

#include "Input.h"
#include "VarnSupport/VarnBufferStream.h"

using namespace VarnSupport;

namespace {

constexpr std::size_t kHeaderSize = 4;

void readBytes(VarnBufferStream& stream, std::string& expected, unsigned length) {
  std::string peeked(length, '\0');
  std::string read(length, '\0');
  peeked.resize(stream.peek(peeked.data(), 1, length));
  read.resize(stream.read(read.data(), 1, length));
  require(peeked == read && read == expected.substr(0, length), "bytes come in their order");
  expected.erase(0, length);
}

// Strings are written with another length than they are read with.
void writeString(VarnBufferStream& stream, std::string& expected, const std::string& text) {
  stream << text;
  const auto length = static_cast<std::uint32_t>(text.size());
  expected.append(reinterpret_cast<const char*>(&length), sizeof length).append(text);
}

template <typename T>
void readValue(VarnBufferStream& stream) {
  T value{};
  stream >> value;
}

void readValue(VarnBufferStream& stream, unsigned type) {
  switch (type % 8) {
    case 0:
      return readValue<char>(stream);
    case 1:
      return readValue<unsigned short>(stream);
    case 2:
      return readValue<long>(stream);
    case 3:
      return readValue<unsigned long>(stream);
    case 4:
      return readValue<double>(stream);
    case 5:
      return readValue<std::string>(stream);
    case 6:
      return readValue<std::wstring>(stream);
    default:
      char* text = nullptr;
      stream >> text;
      delete[] text;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  std::string steps(input.byte() % 32, '\0');
  for (char& step : steps)
    step = static_cast<char>(input.byte());
  const std::string bytes = input.rest();
  VarnBufferStream stream(bytes.data(), static_cast<unsigned int>(bytes.size()));
  std::string expected = bytes.size() < kHeaderSize ? "" : bytes.substr(kHeaderSize);
  for (const char step : steps) {
    const unsigned kind = static_cast<unsigned char>(step) % 4;
    const unsigned amount = static_cast<unsigned char>(step) / 4;
    if (kind == 0) {
      readBytes(stream, expected, amount);
    } else if (kind == 1) {
      writeString(stream, expected, std::string(amount * amount, 'x'));
    } else if (kind == 2) {
      readValue(stream, amount);
      require(stream.size() <= expected.size(), "reading values adds nothing");
      expected.erase(0, expected.size() - stream.size());
    } else {
      const VarnBufferStream rebuilt(stream.buffer(), stream.size() + kHeaderSize);
      stream = rebuilt;
    }
    require(stream.size() == expected.size(), "a stream holds what was written and not read");
  }
  return 0;
}
