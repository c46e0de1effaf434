#include <limits>

#include "TestTools.h"
#include "VarnSupport/VarnBufferStream.h"
#include "VarnSupport/VarnObjectStream.h"
#include "VarnSupport/VarnStringUtilities.h"

namespace {

std::string bytesOf(const void* bytes, std::size_t size) {
  return VarnBytesToHex(static_cast<const char*>(bytes), static_cast<int>(size));
}

std::string unread(VarnBufferStream& stream) {
  std::string bytes(stream.size(), '\0');
  stream.peek(bytes.data(), 1, stream.size());
  return bytesOf(bytes.data(), bytes.size());
}

VarnBufferStream streamOf(const std::string& hex) {
  std::vector<char> bytes(hex.size() / 2);
  VarnHexToBytes(bytes.data(), hex);
  VarnBufferStream stream;
  stream.write(bytes.data(), 1, static_cast<unsigned>(bytes.size()));
  return stream;
}

// Does the same to a stream and to a byte vector.
void compareWithVector(VarnBufferStream stream, Random& random) {
  std::vector<unsigned char> model;
  std::vector<unsigned char> data(4000);
  const unsigned char* handedOut = nullptr;  // and nothing was written since
  for (int step = 0; step < 1000; ++step) {
    const auto elementSize = static_cast<unsigned>(random() % 9);
    const auto count = static_cast<unsigned>(random() % (random() % 8 == 0 ? 440 : 12));
    const auto wanted = static_cast<std::ptrdiff_t>(elementSize * count);
    const auto available = std::min(wanted, std::ssize(model));
    const auto choice = random() % 8;
    if (choice < 3) {
      for (unsigned char& byte : data)
        byte = static_cast<unsigned char>(random());
      ASSERT_EQ(wanted, stream.write(data.data(), elementSize, count));
      model.insert(model.end(), data.begin(), data.begin() + wanted);
      handedOut = nullptr;
    } else if (choice < 6) {
      const bool peeks = choice == 3;
      ASSERT_EQ(available, peeks ? stream.peek(data.data(), elementSize, count)
                                 : stream.read(data.data(), elementSize, count));
      ASSERT_TRUE(std::equal(model.begin(), model.begin() + available, data.begin()));
      model.erase(model.begin(), model.begin() + (peeks ? 0 : available));
    } else if (random() % 8 == 0) {
      stream.reset();
      model.clear();
    } else {
      const VarnBufferStream copy(stream);
      stream = choice == 6 ? copy : VarnBufferStream(copy.buffer(), 4 + copy.size());
      handedOut = nullptr;
    }
    ASSERT_EQ(model.size(), stream.size());
    if (random() % 32 == 0) {
      const std::uint32_t header = stream.size();
      handedOut = static_cast<const unsigned char*>(stream.buffer());
      ASSERT_TRUE(handedOut == nullptr ? model.empty() : std::memcmp(handedOut, &header, 4) == 0);
    }
    ASSERT_TRUE(handedOut == nullptr || std::equal(model.begin(), model.end(), handedOut + 4));
  }
}

TEST(VarnBufferStream, BehavesAsAVectorOfBytesWithASizeHeader) {
  Random random;
  // With small steps the first write outgrows its own steps by the header. The low 32 bits of the
  // last one are 0.
  for (const unsigned long growthStep : {0UL, 1UL, 3UL, 512UL, 100000UL, 0x100000000UL})
    compareWithVector(VarnBufferStream(growthStep), random);
}

// Minutes where each read moves what is left.
TEST(VarnBufferStream, ReadingAndWritingCostTheSameWhateverIsQueued) {
  constexpr int queued = 1000000;
  VarnBufferStream stream(1UL << 20);
  for (int i = 0; i < queued; ++i)
    stream << i;
  for (int i = 0; i < 2 * queued; ++i) {
    int value = -1;
    stream >> value;
    ASSERT_EQ(i, value);
    if (i < queued)
      stream << queued + i;
  }
  EXPECT_EQ(0U, stream.size());
}

TEST(VarnBufferStream, HostileSizesMoveNothing) {
  VarnBufferStream stream;
  stream << 1 << 2;
  char byte = '?';
  for (const unsigned size : {UINT_MAX, 0x10000U, 0x80000001U}) {
    const unsigned count = size == 0x80000001U ? 2 : size;
    EXPECT_EQ(0U, stream.write(&byte, size, count)) << size;
    EXPECT_EQ(0U, stream.read(&byte, size, count)) << size;
    EXPECT_EQ(0U, stream.peek(&byte, count, size)) << size;
  }
  EXPECT_EQ(0U, stream.write(&byte, 1, UINT_MAX));       // does not fit behind what is there
  EXPECT_EQ(0U, stream.write(&byte, 1, UINT_MAX - 12));  // fits, but not in whole steps
  EXPECT_EQ(0U, stream.write(nullptr, 0, UINT_MAX));
  EXPECT_EQ('?', byte);
  EXPECT_EQ("0100000002000000", unread(stream));
}

TEST(VarnBufferStream, RebuiltFromLessThanAHeaderIsEmpty) {
  const char bytes[3] = {1, 2, 3};
  for (VarnBufferStream stream :
       {VarnBufferStream(nullptr, 100), VarnBufferStream(bytes, 3), VarnBufferStream(bytes, 0)}) {
    EXPECT_EQ(0U, stream.size());
    stream << 'x';
    EXPECT_EQ("78", unread(stream));
  }
}

TEST(VarnBufferStream, ValuesLieInTheStreamAsInMemory) {
  VarnBufferStream stream;
  stream << char(1) << static_cast<unsigned char>(0xFE) << short(-2)
         << static_cast<unsigned short>(3) << -4 << 5U << 0x1122334455667788L
         << 0x99AABBCCDDEEFF00UL << 1.0F << 1.0;
  EXPECT_EQ("01FEFEFF0300FCFFFFFF050000008877665500FFEEDD0000803F000000000000F03F", unread(stream));
  stream.reset();
  stream << "abc" << std::string("d\0e", 3) << std::wstring(L"f\u20AC") << ""
         << static_cast<const char*>(nullptr) << std::string() << std::wstring();
  EXPECT_EQ(
      "0300000061626303000000640065"
      "0200000066000000AC200000" +
          std::string(32, '0'),
      unread(stream));
}

TEST(VarnBufferStream, NumbersComeBackWhateverTheTransferReturns) {
  struct Uncounted : VarnBufferStream {
    unsigned read(void* data, unsigned elementSize, unsigned count) override {
      VarnBufferStream::read(data, elementSize, count);
      return 0;
    }
  } stream;
  const auto comeBack = [&](auto... numbers) {
    (static_cast<VarnOutputObjectStream&>(stream) << ... << numbers);
    auto read = std::tuple(decltype(numbers)()...);
    std::apply([&](auto&... results) { (stream >> ... >> results); }, read);
    EXPECT_EQ(std::tuple(numbers...), read);
  };
  comeBack('x', static_cast<unsigned char>(200), short(SHRT_MIN), INT_MIN, UINT_MAX, long(INT_MIN),
           static_cast<unsigned long>(UINT_MAX), -1.5F, std::numeric_limits<double>::denorm_min());
}

TEST(VarnBufferStream, AShortReadLeavesTheRestOfTheTarget) {
  int number = 0x55555555;
  long wide = -77;
  unsigned long unsignedWide = 77;
  streamOf("0102") >> number;
  streamOf("010203") >> wide;
  streamOf("010203") >> unsignedWide;
  EXPECT_EQ(0x55550201, number);
  EXPECT_EQ(-77, wide);
  EXPECT_EQ(77U, unsignedWide);
}

TEST(VarnBufferStream, StringsAreReadWithA16BitLength) {
  const std::tuple<const char*, std::string, unsigned> rows[] = {
      {"03000000616263", std::string("\0\0a", 3), 2},  // "abc", as it was written
      {"020061626364", "ab", 2},
      {"0000", "", 0},
      {"", "", 0},
      {"FFFF6162", "", 2},  // -1
      {"04006162", std::string("ab\0\0", 4), 0},
      {"02", std::string(2, '\0'), 0}};
  for (const auto& [bytes, expected, left] : rows) {
    VarnBufferStream stream = streamOf(bytes);
    VarnBufferStream again(stream);
    std::string text = "before";
    stream >> text;
    EXPECT_EQ(expected, text) << bytes;
    EXPECT_EQ(left, stream.size()) << bytes;
    char* array = nullptr;
    again >> array;
    ASSERT_EQ(expected.empty(), array == nullptr) << bytes;
    const std::unique_ptr<char[]> owned(array);
    EXPECT_EQ(0, std::memcmp(expected.c_str(), array != nullptr ? array : "", expected.size() + 1));
  }
  std::wstring wide = L"before";
  VarnBufferStream stream = streamOf("0300AC20000041000000");
  stream >> wide;
  EXPECT_EQ(std::wstring(L"\u20ACA\0", 3), wide);
  stream >> wide;
  EXPECT_TRUE(wide.empty());
}

TEST(VarnBufferStream, OneThreadWritesWhileAnotherReads) {
  constexpr int count = 20000;
  VarnBufferStream stream;
  const std::jthread writer([&] {
    for (int i = 0; i < count; ++i)
      stream << i;
  });
  for (int expected = 0; expected < count;) {
    int value = -1;
    if (stream.size() == 0 || stream.read(&value, sizeof value, 1) == 0)
      std::this_thread::yield();
    else
      ASSERT_EQ(expected++, value);
  }
}

}  // namespace
