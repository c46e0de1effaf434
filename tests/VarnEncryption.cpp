#include <stdexcept>

#include "TestTools.h"
#include "VarnSupport/VarnEncryption.h"
#include "VarnSupport/VarnStringUtilities.h"

namespace {

using std::string;

constexpr auto kCodebook = VarnEncryption::STRENGTH_400;
constexpr auto kChaining = VarnEncryption::STRENGTH_448;

string fromHex(const string& hex) {
  string bytes(hex.size() / 2, '\0');
  VarnHexToBytes(bytes.data(), hex);
  return bytes;
}

string toHex(const string& bytes) {
  return VarnBytesToHex(bytes.data(), static_cast<int>(bytes.size()));
}

string encrypted(VarnEncryption& cipher, const string& key, const string& input) {
  string output;
  cipher.encryptData(key, input, output);
  return output;
}

string decrypted(VarnEncryption& cipher, const string& key, const string& input) {
  string output;
  cipher.decryptData(key, input, output);
  return output;
}

// Of the vectors that were published with the algorithm.
const struct {
  const char *key, *plain, *cipher;
} kVectors[] = {
    {"0000000000000000", "0000000000000000", "4EF997456198DD78"},
    {"FFFFFFFFFFFFFFFF", "FFFFFFFFFFFFFFFF", "51866FD5B85ECB8A"},
    // Keys of other lengths.
    {"F0", "FEDCBA9876543210", "F9AD597C49DB005E"},
    {"F0E1D2C3B4A5968778695A4B3C2D1E0F", "FEDCBA9876543210", "93142887EE3BE15C"},
    {"F0E1D2C3B4A5968778695A4B3C2D1E0F0011223344556677", "FEDCBA9876543210", "05044B62FA52D080"}};

TEST(VarnEncryption, PublishedVectorsHold) {
  VarnEncryption cipher(kCodebook);
  for (const auto& row : kVectors) {
    const string key = fromHex(row.key);
    EXPECT_EQ(row.cipher, toHex(encrypted(cipher, key, fromHex(row.plain)))) << row.key;
    EXPECT_EQ(row.plain, toHex(decrypted(cipher, key, fromHex(row.cipher)))) << row.key;
  }
}

TEST(VarnEncryption, ThePublishedChainHoldsFromItsInitialValue) {
  const string key = fromHex("0123456789ABCDEFF0E1D2C3B4A59687");
  const string plain("7654321 Now is the time for \0", 29);
  VarnEncryption cipher(kCodebook);
  cipher.initialize(key, 16, VarnEncryption::MODE_CBC, SBlock(0xFEDCBA98, 0x76543210));
  string output(33, '?');  // a longer output keeps its length and its tail
  cipher.encryptData(key, plain, output);
  EXPECT_EQ('?', output.back());
  output.pop_back();
  EXPECT_EQ("6B77B4D63006DEE605B156E27403979358DEB9E7154616D959F1652BD5FF92CC", toHex(output));
  EXPECT_EQ(plain + string(3, '\0'), decrypted(cipher, key, output));
}

// Block by block through the public cipher of one block.
string reference(const string& key, const string& plain, bool chained) {
  VarnEncryption cipher;
  cipher.initialize(key, static_cast<unsigned>(key.size()), VarnEncryption::MODE_ECB, SBlock());
  string text = plain;
  text.resize(cipher.padInputBuf(plain));
  SBlock running(0, 0);
  for (std::size_t at = 0; at < text.size(); at += 8) {
    auto* const bytes = reinterpret_cast<unsigned char*>(text.data() + at);
    SBlock block;
    cipher.bytesToBlock(bytes, block);
    if (chained)
      block ^= running;
    cipher.encryptInternal(block);
    cipher.blockToBytes(block, bytes);
    running = block;
  }
  return text;
}

TEST(VarnEncryption, EverySizeGivesItsBlocksCutToTheInputsLength) {
  Random random;
  const auto randomText = [&](std::size_t size) {
    string text(size, '\0');
    std::generate(text.begin(), text.end(), [&] { return static_cast<char>(random()); });
    return text;
  };
  for (std::size_t size = 0; size <= 136; ++size) {
    const string key = randomText(1 + random() % 80);
    const string plain = randomText(size);
    for (const auto strength : {kCodebook, kChaining}) {
      VarnEncryption cipher(strength);
      const string whole = reference(key, plain, strength == kChaining);
      const string output = encrypted(cipher, key, plain);
      ASSERT_EQ(toHex(whole.substr(0, size)), toHex(output)) << size;
      string padded = plain;
      padded.resize(whole.size());
      ASSERT_EQ(toHex(padded), toHex(decrypted(cipher, key, whole))) << size;
    }
  }
}

// An object that has had many keys, all alike, against a fresh one.
TEST(VarnEncryption, AnObjectServesAnyNumberOfKeys) {
  Random random;
  VarnEncryption used;
  for (int step = 0; step < 1000; ++step) {
    string key(1 + random() % 90, 'k');
    key[random() % key.size()] = random() % 2 == 0 ? 'k' : '\0';
    const auto length = static_cast<unsigned>(1 + random() % key.size());
    const auto between = random() % 8;
    if (between == 0)
      used = VarnEncryption();
    else if (between == 1)
      EXPECT_ANY_THROW(used.initialize("other", 5, static_cast<VarnEncryption::tMode>(2), {}));
    else if (between == 2)
      encrypted(used, "k", "text");
    VarnEncryption fresh;
    SBlock blocks[2];
    for (int i = 0; i < 2; ++i) {
      VarnEncryption& cipher = i == 0 ? used : fresh;
      cipher.initialize(key, length, VarnEncryption::MODE_ECB, SBlock());
      cipher.encryptInternal(blocks[i]);
    }
    ASSERT_EQ(blocks[1].m_nLeft, blocks[0].m_nLeft) << toHex(key) << ' ' << length;
  }
}

TEST(VarnEncryption, ArgumentsMayBeTheSameString) {
  VarnEncryption cipher;
  const string plain(64, 'p');
  string text = plain;
  cipher.encryptData("secret", text, text);
  EXPECT_EQ(reference("secret", plain, true), text);
  string key = "secret";
  cipher.encryptData(key, plain, key);
  EXPECT_EQ(text, key);
  text = plain;
  cipher.encryptData(text, text, text);
  EXPECT_EQ(reference(plain, plain, true), text);
}

TEST(VarnEncryption, AnEmptyKeyIsAnErrorUnlessThereIsNothingToDo) {
  VarnEncryption cipher;
  string output;
  string error;
  EXPECT_TRUE(cipher.encryptDataImpl("", "", output, error));
  EXPECT_TRUE(cipher.decryptDataImpl("key", "", output, error));
  EXPECT_EQ("", output + error);
  EXPECT_FALSE(cipher.decryptDataImpl("", "12345", output, error));
  EXPECT_EQ("The key passed is empty", error);
  EXPECT_EQ(string(5, '\0'), output);
  EXPECT_EQ("VarnInvalidEncryptionException - The key passed is empty",
            resultOf([&] { cipher.encryptData("", "12345", output); }));
}

TEST(VarnEncryption, InitializeChecksKeyLengthAndMode) {
  const SBlock zero(0, 0);
  VarnEncryption chained(kChaining);
  const auto mode = VarnEncryption::MODE_ECB;
  EXPECT_THROW(chained.initialize("abc", 4, mode, zero), std::out_of_range);
  EXPECT_NO_THROW(chained.initialize("abc", 2, mode, zero));
  // A key that fills the key buffer alone is never read to its end.
  EXPECT_THROW(chained.initialize(string(447, 'k'), 448, mode, zero), std::out_of_range);
  EXPECT_NO_THROW(chained.initialize(string(448, 'k'), 1000, mode, zero));
  VarnEncryption codebook(kCodebook);
  EXPECT_THROW(codebook.initialize(string(399, 'k'), 1000, mode, zero), std::out_of_range);
  EXPECT_NO_THROW(codebook.initialize(string(400, 'k'), 1000, mode, zero));
  const auto wrongMode = static_cast<VarnEncryption::tMode>(2);
  EXPECT_EQ("VarnInvalidEncryptionException - The mode is not initialized properly",
            resultOf([&] { codebook.initialize("abc", 3, wrongMode, zero); }));
  EXPECT_EQ(reference("abc", "12345678", false), encrypted(codebook, "abc", "12345678"));
}

TEST(VarnEncryption, SettingTheStrengthSetsModeAndChainingBack) {
  const string plain(24, 'p');
  VarnEncryption cipher(kCodebook);
  cipher.initialize("k", 1, VarnEncryption::MODE_CBC, SBlock(1, 2));
  cipher.setStrength(kChaining);
  EXPECT_EQ(reference("k", plain, true), encrypted(cipher, "k", plain));
  cipher.setStrength(static_cast<VarnEncryption::Strength>(7));
  EXPECT_EQ(reference("k", plain, false), encrypted(cipher, "k", plain));
}

TEST(VarnEncryption, CopiesHaveModeChainingAndKeySchedule) {
  VarnEncryption source(kCodebook);
  source.initialize("key", 3, VarnEncryption::MODE_CBC, SBlock(1, 2));
  VarnEncryption copy;
  copy = VarnEncryption(source);
  SBlock block(3, 4);
  source.encryptInternal(block);
  copy.decryptInternal(block);
  EXPECT_EQ(4U, block.m_nRight);
  EXPECT_EQ(encrypted(source, "k", string(16, 'p')), encrypted(copy, "k", string(16, 'p')));
}

}  // namespace
