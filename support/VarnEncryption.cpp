// Blowfish. initialize() spreads a key over the subkeys and boxes; each mode is a loop over whole
// blocks that cryptData() chooses; a last block that is not whole goes through a buffer of its own.
//
// The 16 rounds of a block are one chain of dependent table look-ups, so a single block leaves most
// of the processor idle. Where blocks do not depend on each other (the codebook, and deciphering a
// chain) several go through the rounds side by side; the loops over them are unrolled, and halves
// stay in registers as far as there are any.
#include "VarnSupport/VarnEncryption.h"

#include <algorithm>
#include <cassert>
#include <cstring>
#include <iterator>
#include <limits>
#include <string>
#include <utility>

#include "VarnSupport/VarnException.h"
#include "runtime/Cancellation.h"

namespace VarnSupport {

namespace {

constexpr std::size_t kBlockSize = 8;
constexpr std::size_t kLastSubkey = 17;
constexpr std::uint32_t kKeyBuffer448 = 448;
// Four for each subkey.
constexpr std::size_t kMostKeyBytes = 72;
constexpr std::uint32_t kKeyBuffer400 = 400;
// Measured as the fastest; with more the halves no longer find registers.
constexpr std::size_t kSideBySide = 5;

struct Schedule {
  const std::uint32_t (&p)[18];
  const std::uint32_t (&s)[4][256];
};

std::uint32_t loadWord(const unsigned char* bytes) {
  return std::uint32_t{bytes[0]} << 24 | std::uint32_t{bytes[1]} << 16 |
         std::uint32_t{bytes[2]} << 8 | std::uint32_t{bytes[3]};
}

// In this form compilers see the byte-swapping store of a whole block.
void storeBlock(std::uint32_t left, std::uint32_t right, unsigned char* bytes) {
  const std::uint64_t block = std::uint64_t{left} << 32 | right;
  for (std::size_t i = 0; i < kBlockSize; ++i)
    bytes[i] = static_cast<unsigned char>(block >> (56 - 8 * i));
}

template <std::size_t Count>
struct Blocks {
  std::uint32_t left[Count];
  std::uint32_t right[Count];

  void load(const unsigned char* bytes) {
    for (std::size_t i = 0; i < Count; ++i) {
      left[i] = loadWord(bytes + kBlockSize * i);
      right[i] = loadWord(bytes + kBlockSize * i + 4);
    }
  }
  void store(unsigned char* bytes) const {
    for (std::size_t i = 0; i < Count; ++i)
      storeBlock(left[i], right[i], bytes + kBlockSize * i);
  }
};

using Block = Blocks<1>;

// The function of the cipher's rounds: the four boxes, each looked up by one byte of the half.
std::uint32_t mix(const Schedule& schedule, std::uint32_t half) {
  const auto& s = schedule.s;
  return ((s[0][half >> 24] + s[1][half >> 16 & 0xFF]) ^ s[2][half >> 8 & 0xFF]) +
         s[3][half & 0xFF];
}

// Half a round: the subkey is folded in ahead of the mixed half, which is what takes long.
template <std::size_t Count>
void fold(const Schedule& schedule, std::uint32_t subkey, const std::uint32_t (&from)[Count],
          std::uint32_t (&into)[Count]) {
  for (std::size_t i = 0; i < Count; ++i)
    into[i] = (into[i] ^ subkey) ^ mix(schedule, from[i]);
}

// Deciphering is enciphering with the subkeys in reverse order. Out of line, these two would pass
// the halves through memory.
template <bool Encipher, std::size_t Count, std::size_t... Pair>
[[gnu::always_inline]] inline void runRounds(const Schedule& schedule, Blocks<Count>& blocks,
                                             std::index_sequence<Pair...>) {
  const auto subkey = [&](std::size_t i) { return schedule.p[Encipher ? i : kLastSubkey - i]; };
  for (std::uint32_t& left : blocks.left)
    left ^= subkey(0);
  ((fold(schedule, subkey(2 * Pair + 1), blocks.left, blocks.right),
    fold(schedule, subkey(2 * Pair + 2), blocks.right, blocks.left)),
   ...);
  for (std::size_t i = 0; i < Count; ++i) {
    const std::uint32_t left = blocks.left[i];
    blocks.left[i] = blocks.right[i] ^ subkey(kLastSubkey);
    blocks.right[i] = left;
  }
}

template <bool Encipher, std::size_t Count>
[[gnu::always_inline]] inline void crypt(const Schedule& schedule, Blocks<Count>& blocks) {
  runRounds<Encipher>(schedule, blocks, std::make_index_sequence<8>());
}

// What each mode does with whole blocks, in place too when `in` and `out` are the same. The
// chaining value moves on.
using Loop = void (*)(const Schedule& schedule, Block& chaining, const unsigned char* in,
                      unsigned char* out, std::size_t size);

template <bool Encipher>
void cryptCodebook(const Schedule& schedule, Block&, const unsigned char* in, unsigned char* out,
                   std::size_t size) {
  assert(size % kBlockSize == 0);
  std::size_t at = 0;
  for (; size - at >= kSideBySide * kBlockSize; at += kSideBySide * kBlockSize) {
    Blocks<kSideBySide> blocks;
    blocks.load(in + at);
    crypt<Encipher>(schedule, blocks);
    blocks.store(out + at);
  }
  for (; at < size; at += kBlockSize) {
    Block block;
    block.load(in + at);
    crypt<Encipher>(schedule, block);
    block.store(out + at);
  }
}

// Each block waits for the one before it: there is nothing to do side by side.
void encipherChain(const Schedule& schedule, Block& chaining, const unsigned char* in,
                   unsigned char* out, std::size_t size) {
  assert(size % kBlockSize == 0);
  Block running = chaining;
  for (std::size_t at = 0; at < size; at += kBlockSize) {
    Block plain;
    plain.load(in + at);
    running.left[0] ^= plain.left[0];
    running.right[0] ^= plain.right[0];
    crypt<true>(schedule, running);
    running.store(out + at);
  }
  chaining = running;
}

// Deciphers `Count` blocks of a chain at once: all that each needs of the block before it is its
// cipher.
template <std::size_t Count>
void decipherLinks(const Schedule& schedule, Block& chaining, const unsigned char* in,
                   unsigned char* out) {
  Blocks<Count> cipher;
  cipher.load(in);
  Blocks<Count> plain = cipher;
  crypt<false>(schedule, plain);
  for (std::size_t i = 0; i < Count; ++i) {
    plain.left[i] ^= i == 0 ? chaining.left[0] : cipher.left[i - 1];
    plain.right[i] ^= i == 0 ? chaining.right[0] : cipher.right[i - 1];
  }
  chaining = Block{{cipher.left[Count - 1]}, {cipher.right[Count - 1]}};
  plain.store(out);
}

void decipherChain(const Schedule& schedule, Block& chaining, const unsigned char* in,
                   unsigned char* out, std::size_t size) {
  assert(size % kBlockSize == 0);
  std::size_t at = 0;
  for (; size - at >= kSideBySide * kBlockSize; at += kSideBySide * kBlockSize)
    decipherLinks<kSideBySide>(schedule, chaining, in + at, out + at);
  for (; at < size; at += kBlockSize)
    decipherLinks<1>(schedule, chaining, in + at, out + at);
}

}  // namespace

SBlock::~SBlock() = default;

SBlock& SBlock::operator^=(const SBlock& other) {
  m_nLeft ^= other.m_nLeft;
  m_nRight ^= other.m_nRight;
  return *this;
}

VarnEncryption::VarnEncryption() { VarnEncryption::setStrength(STRENGTH_448); }

VarnEncryption::VarnEncryption(const Strength& strength) { VarnEncryption::setStrength(strength); }

VarnEncryption::VarnEncryption(const VarnEncryption& source) { copyValues(source); }

VarnEncryption& VarnEncryption::operator=(const VarnEncryption& source) {
  if (this != &source)
    copyValues(source);
  return *this;
}

VarnEncryption::~VarnEncryption() = default;

void VarnEncryption::encryptData(const std::string& key, const std::string& input,
                                 std::string& output) {
  const CancellationGuard closed;
  std::string error;
  if (!encryptDataImpl(key, input, output, error))
    throw VarnInvalidEncryptionException(error);
}

bool VarnEncryption::encryptDataImpl(const std::string& key, const std::string& input,
                                     std::string& output, std::string& error) {
  return cryptData(key, input, output, error, true);
}

void VarnEncryption::decryptData(const std::string& key, const std::string& input,
                                 std::string& output) {
  const CancellationGuard closed;
  std::string error;
  if (!decryptDataImpl(key, input, output, error))
    throw VarnInvalidEncryptionException(error);
}

bool VarnEncryption::decryptDataImpl(const std::string& key, const std::string& input,
                                     std::string& output, std::string& error) {
  return cryptData(key, input, output, error, false);
}

VarnEncryption::Strength VarnEncryption::getStrength() const { return m_eStrength; }

// The key schedule stays, but the next call makes its own.
void VarnEncryption::setStrength(const Strength& strength) {
  m_eStrength = strength;
  m_oChaining = SBlock();
  m_nKeyBufferLength = m_eStrength == STRENGTH_448 ? kKeyBuffer448 : kKeyBuffer400;
  m_eMode = m_eStrength == STRENGTH_448 ? MODE_CBC : MODE_ECB;
  m_bInitialized = false;
}

void VarnEncryption::initialize(const std::string& key, const unsigned& keyLength,
                                const tMode& mode, const SBlock& chaining) {
  const CancellationGuard closed;
  // The key buffer itself is not needed: no more than its first bytes are ever used.
  if (keyLength == 0 || std::min(keyLength, m_nKeyBufferLength) > key.size())
    static_cast<void>(key.at(key.size()));  // throws
  if (mode > MODE_CBC)
    throw VarnInvalidEncryptionException("The mode is not initialized properly");
  const std::size_t used = std::min<std::size_t>(keyLength, kMostKeyBytes);
  if (m_sKey.compare(0, std::string::npos, key, 0, used) != 0) {
    std::string material(key, 0, used);
    m_sKey.swap(material);
    setUpSchedule();
  }
  m_eMode = mode;
  m_oChaining = chaining;
  m_bInitialized = true;
}

void VarnEncryption::setUpSchedule() {
  std::memcpy(m_aS, arrwSBoxInit, sizeof m_aS);
  std::size_t at = 0;
  for (std::size_t i = 0; i <= kLastSubkey; ++i) {
    std::uint32_t word = 0;
    for (int byte = 0; byte < 4; ++byte) {
      word = word << 8 | static_cast<unsigned char>(m_sKey[at]);
      at = at + 1 < m_sKey.size() ? at + 1 : 0;
    }
    m_aP[i] = arrwPBoxInit[i] ^ word;
  }
  const Schedule schedule{m_aP, m_aS};
  Block block{};
  // Subkeys and boxes become what a zero block goes through as it is enciphered again and again.
  const auto replace = [&](std::uint32_t* words, std::size_t count) {
    for (std::size_t i = 0; i < count; i += 2) {
      crypt<true>(schedule, block);
      words[i] = block.left[0];
      words[i + 1] = block.right[0];
    }
  };
  replace(m_aP, kLastSubkey + 1);
  for (auto& box : m_aS)
    replace(box, 256);
}

void VarnEncryption::setInit(const bool& initialized) { m_bInitialized = initialized; }

std::size_t VarnEncryption::padInputBuf(std::string input) {
  return (input.size() + kBlockSize - 1) / kBlockSize * kBlockSize;
}

void VarnEncryption::bytesToBlock(const unsigned char* bytes, SBlock& block) {
  block.m_nLeft = loadWord(bytes);
  block.m_nRight = loadWord(bytes + 4);
}

void VarnEncryption::blockToBytes(const SBlock& block, unsigned char* bytes) {
  storeBlock(block.m_nLeft, block.m_nRight, bytes);
}

void VarnEncryption::encryptInternal(SBlock& block) {
  Block halves{{block.m_nLeft}, {block.m_nRight}};
  crypt<true>(Schedule{m_aP, m_aS}, halves);
  block = SBlock(halves.left[0], halves.right[0]);
}

void VarnEncryption::decryptInternal(SBlock& block) {
  Block halves{{block.m_nLeft}, {block.m_nRight}};
  crypt<false>(Schedule{m_aP, m_aS}, halves);
  block = SBlock(halves.left[0], halves.right[0]);
}

// The key is a copy: the output may be the same string, and is resized first.
bool VarnEncryption::cryptData(std::string key, const std::string& input, std::string& output,
                               std::string& error, bool encipher) {
  const CancellationGuard closed;
  if (output.size() < input.size())
    output.resize(input.size());
  if (output.empty())
    return true;
  if (key.empty()) {
    error = "The key passed is empty";
    return false;
  }
  // The length has 32 bits; no more than the first bytes of the key count anyway.
  constexpr std::size_t longest = std::numeric_limits<unsigned>::max();
  initialize(key, static_cast<unsigned>(std::min(key.size(), longest)), m_eMode, m_oChaining);
  assert(m_bInitialized && m_eMode <= MODE_CBC);
  static constexpr Loop loops[2][2] = {{cryptCodebook<false>, cryptCodebook<true>},
                                       {decipherChain, encipherChain}};
  const Loop loop = loops[m_eMode][encipher ? 1 : 0];
  const Schedule schedule{m_aP, m_aS};
  Block chaining{{m_oChaining.m_nLeft}, {m_oChaining.m_nRight}};
  const auto* const in = reinterpret_cast<const unsigned char*>(input.data());
  auto* const out = reinterpret_cast<unsigned char*>(output.data());
  assert(output.size() >= input.size());
  const std::size_t whole = input.size() / kBlockSize * kBlockSize;
  loop(schedule, chaining, in, out, whole);
  // A copy of the last bytes is padded with zeros. Of its cipher as much is kept as has a place.
  if (whole < input.size()) {
    unsigned char last[kBlockSize] = {};
    std::copy(in + whole, in + input.size(), last);
    loop(schedule, chaining, last, last, kBlockSize);
    std::copy_n(last, std::min(kBlockSize, output.size() - whole), out + whole);
  }
  return true;
}

// The mark that says initialized is not copied; callers rely on it.
void VarnEncryption::copyValues(const VarnEncryption& source) {
  const CancellationGuard closed;
  m_sKey = source.m_sKey;
  m_eStrength = source.getStrength();
  m_bInitialized = false;
  m_nBlockSize = source.m_nBlockSize;
  m_nKeyBufferLength = source.m_nKeyBufferLength;
  m_eMode = source.m_eMode;
  m_oChaining = source.m_oChaining;
  std::copy_n(source.m_aP, std::size(m_aP), m_aP);
  std::memcpy(m_aS, source.m_aS, sizeof m_aS);
}

}  // namespace VarnSupport
