// Blowfish in both modes, enciphering and deciphering, with the set-up of the key, which our
// library does for each object or key.
#include <memory>
#include <vector>

#include "Data.h"
#include "Workload.h"

#ifdef PEER_OPENSSL
#define OPENSSL_SUPPRESS_DEPRECATED
#include <openssl/blowfish.h>
#endif
#ifdef PEER_LIBGCRYPT
#include <gcrypt.h>
#endif
#ifdef PEER_NETTLE
#include <nettle/blowfish.h>
#include <nettle/cbc.h>
#endif
#ifdef PEER_BOTAN
#include <botan/block_cipher.h>
#include <botan/cipher_mode.h>
#endif
#ifdef PEER_CRYPTO
#include <cryptopp/blowfish.h>
#include <cryptopp/modes.h>
#endif

namespace {

constexpr std::size_t kBlock = 8;
const std::string g_sKey("sixteen byte key");

struct Mode {
  bool chained;
  bool encipher;
};
using Cipher = void (*)(Mode mode, const std::string& input, std::string& output);

const unsigned char* bytes(const std::string& text) {
  return reinterpret_cast<const unsigned char*>(text.data());
}
unsigned char* bytes(std::string& text) { return reinterpret_cast<unsigned char*>(text.data()); }

void ours(Mode mode, const std::string& input, std::string& output) {
  using VarnSupport::VarnEncryption;
  VarnEncryption cipher(mode.chained ? VarnEncryption::STRENGTH_448 : VarnEncryption::STRENGTH_400);
  if (mode.encipher)
    cipher.encryptData(g_sKey, input, output);
  else
    cipher.decryptData(g_sKey, input, output);
}

#ifdef PEER_OPENSSL
void withOpenSsl(Mode mode, const std::string& input, std::string& output) {
  BF_KEY schedule;
  BF_set_key(&schedule, static_cast<int>(g_sKey.size()), bytes(g_sKey));
  unsigned char chain[kBlock] = {};
  const int direction = mode.encipher ? BF_ENCRYPT : BF_DECRYPT;
  if (mode.chained) {
    BF_cbc_encrypt(bytes(input), bytes(output), static_cast<long>(input.size()), &schedule, chain,
                   direction);
    return;
  }
  for (std::size_t i = 0; i < input.size(); i += kBlock)
    BF_ecb_encrypt(bytes(input) + i, bytes(output) + i, &schedule, direction);
}
#endif

#ifdef PEER_LIBGCRYPT
void withLibgcrypt(Mode mode, const std::string& input, std::string& output) {
  gcry_cipher_hd_t cipher = nullptr;
  gcry_cipher_open(&cipher, GCRY_CIPHER_BLOWFISH,
                   mode.chained ? GCRY_CIPHER_MODE_CBC : GCRY_CIPHER_MODE_ECB, 0);
  gcry_cipher_setkey(cipher, g_sKey.data(), g_sKey.size());
  if (mode.chained)
    gcry_cipher_setiv(cipher, std::string(kBlock, '\0').data(), kBlock);
  (mode.encipher ? gcry_cipher_encrypt : gcry_cipher_decrypt)(cipher, output.data(), output.size(),
                                                              input.data(), input.size());
  gcry_cipher_close(cipher);
}
#endif

#ifdef PEER_NETTLE
void withNettle(Mode mode, const std::string& input, std::string& output) {
  blowfish_ctx schedule;
  blowfish_set_key(&schedule, g_sKey.size(), bytes(g_sKey));
  std::uint8_t chain[kBlock] = {};
  const auto block = mode.encipher ? blowfish_encrypt : blowfish_decrypt;
  if (mode.chained)
    (mode.encipher ? cbc_encrypt : cbc_decrypt)(
        &schedule, reinterpret_cast<nettle_cipher_func*>(block), kBlock, chain, input.size(),
        bytes(output), bytes(input));
  else
    block(&schedule, input.size(), bytes(output), bytes(input));
}
#endif

#ifdef PEER_BOTAN
void withBotan(Mode mode, const std::string& input, std::string& output) {
  if (mode.chained) {
    const auto cipher = Botan::Cipher_Mode::create(
        "Blowfish/CBC/NoPadding", mode.encipher ? Botan::ENCRYPTION : Botan::DECRYPTION);
    cipher->set_key(bytes(g_sKey), g_sKey.size());
    cipher->start(std::vector<std::uint8_t>(kBlock));
    output = input;
    cipher->process(bytes(output), output.size());
    return;
  }
  const auto cipher = Botan::BlockCipher::create("Blowfish");
  cipher->set_key(bytes(g_sKey), g_sKey.size());
  if (mode.encipher)
    cipher->encrypt_n(bytes(input), bytes(output), input.size() / kBlock);
  else
    cipher->decrypt_n(bytes(input), bytes(output), input.size() / kBlock);
}
#endif

#ifdef PEER_CRYPTO
template <typename Chained, typename Plain>
void runCryptoPp(bool chained, const std::string& input, std::string& output) {
  if (chained) {
    const CryptoPP::byte chain[kBlock] = {};
    Chained cipher(bytes(g_sKey), g_sKey.size(), chain);
    cipher.ProcessData(bytes(output), bytes(input), input.size());
  } else {
    Plain cipher(bytes(g_sKey), g_sKey.size());
    cipher.ProcessData(bytes(output), bytes(input), input.size());
  }
}

void withCryptoPp(Mode mode, const std::string& input, std::string& output) {
  using Cbc = CryptoPP::CBC_Mode<CryptoPP::Blowfish>;
  using Ecb = CryptoPP::ECB_Mode<CryptoPP::Blowfish>;
  if (mode.encipher)
    runCryptoPp<Cbc::Encryption, Ecb::Encryption>(mode.chained, input, output);
  else
    runCryptoPp<Cbc::Decryption, Ecb::Decryption>(mode.chained, input, output);
}
#endif

// The side must agree with what our other direction gives back.
bool isCorrect(Cipher cipher, Mode mode, const std::string& input) {
  std::string output(input.size(), '\0');
  cipher(mode, input, output);
  std::string back(input.size(), '\0');
  ours({mode.chained, !mode.encipher}, output, back);
  return output != input && back == input;
}

void add(const std::string& side, Cipher cipher) {
  struct Size {
    const char* name;
    std::size_t bytes;
  };
  for (const Size& size :
       {Size{"8 B", 8}, Size{"1 KiB", 1024}, Size{"1 MiB", std::size_t{1} << 20}}) {
    for (const Mode mode : {Mode{false, true}, {true, true}, {false, false}, {true, false}}) {
      Bench::Workload(std::string("Blowfish, ") + (mode.chained ? "CBC " : "ECB ") + size.name +
                      (mode.encipher ? "" : " deciphered"))
          .side(side, [cipher, mode, size](benchmark::State& state) {
            std::string input(size.bytes, '\0');
            Bench::Draw draw("plain");
            for (char& byte : input)
              byte = static_cast<char>(draw.below(256));
            Bench::require(state, isCorrect(cipher, mode, input));
            std::string output(input.size(), '\0');
            for (auto _ : state) {
              cipher(mode, input, output);
              benchmark::ClobberMemory();
            }
          });
    }
  }
}

const bool g_bAdded = [] {
  add("ours", ours);
#ifdef PEER_OPENSSL
  add("OpenSSL", withOpenSsl);
#endif
#ifdef PEER_LIBGCRYPT
  gcry_check_version(nullptr);
  add("libgcrypt", withLibgcrypt);
#endif
#ifdef PEER_NETTLE
  add("nettle", withNettle);
#endif
#ifdef PEER_BOTAN
  add("Botan", withBotan);
#endif
#ifdef PEER_CRYPTO
  add("Crypto++", withCryptoPp);
#endif
  return true;
}();

}  // namespace
