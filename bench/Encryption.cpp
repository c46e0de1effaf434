// Blowfish with its key set-up, which our library does for each object or key, in both modes.
#include <memory>
#include <vector>

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

using Cipher = void (*)(bool chained, const std::string& input, std::string& output);

const unsigned char* bytes(const std::string& text) {
  return reinterpret_cast<const unsigned char*>(text.data());
}
unsigned char* bytes(std::string& text) { return reinterpret_cast<unsigned char*>(text.data()); }

void ours(bool chained, const std::string& input, std::string& output) {
  using VarnSupport::VarnEncryption;
  VarnEncryption cipher(chained ? VarnEncryption::STRENGTH_448 : VarnEncryption::STRENGTH_400);
  cipher.encryptData(g_sKey, input, output);
}

#ifdef PEER_OPENSSL
void withOpenSsl(bool chained, const std::string& input, std::string& output) {
  BF_KEY schedule;
  BF_set_key(&schedule, static_cast<int>(g_sKey.size()), bytes(g_sKey));
  unsigned char chain[kBlock] = {};
  if (chained) {
    BF_cbc_encrypt(bytes(input), bytes(output), static_cast<long>(input.size()), &schedule, chain,
                   BF_ENCRYPT);
    return;
  }
  for (std::size_t i = 0; i < input.size(); i += kBlock)
    BF_ecb_encrypt(bytes(input) + i, bytes(output) + i, &schedule, BF_ENCRYPT);
}
#endif

#ifdef PEER_LIBGCRYPT
void withLibgcrypt(bool chained, const std::string& input, std::string& output) {
  gcry_cipher_hd_t cipher = nullptr;
  gcry_cipher_open(&cipher, GCRY_CIPHER_BLOWFISH,
                   chained ? GCRY_CIPHER_MODE_CBC : GCRY_CIPHER_MODE_ECB, 0);
  gcry_cipher_setkey(cipher, g_sKey.data(), g_sKey.size());
  if (chained)
    gcry_cipher_setiv(cipher, std::string(kBlock, '\0').data(), kBlock);
  gcry_cipher_encrypt(cipher, output.data(), output.size(), input.data(), input.size());
  gcry_cipher_close(cipher);
}
#endif

#ifdef PEER_NETTLE
void withNettle(bool chained, const std::string& input, std::string& output) {
  blowfish_ctx schedule;
  blowfish_set_key(&schedule, g_sKey.size(), bytes(g_sKey));
  std::uint8_t chain[kBlock] = {};
  if (chained)
    cbc_encrypt(&schedule, reinterpret_cast<nettle_cipher_func*>(blowfish_encrypt), kBlock, chain,
                input.size(), bytes(output), bytes(input));
  else
    blowfish_encrypt(&schedule, input.size(), bytes(output), bytes(input));
}
#endif

#ifdef PEER_BOTAN
void withBotan(bool chained, const std::string& input, std::string& output) {
  if (chained) {
    const auto cipher = Botan::Cipher_Mode::create("Blowfish/CBC/NoPadding", Botan::ENCRYPTION);
    cipher->set_key(bytes(g_sKey), g_sKey.size());
    cipher->start(std::vector<std::uint8_t>(kBlock));
    output = input;
    cipher->process(bytes(output), output.size());
    return;
  }
  const auto cipher = Botan::BlockCipher::create("Blowfish");
  cipher->set_key(bytes(g_sKey), g_sKey.size());
  cipher->encrypt_n(bytes(input), bytes(output), input.size() / kBlock);
}
#endif

#ifdef PEER_CRYPTO
void withCryptoPp(bool chained, const std::string& input, std::string& output) {
  if (chained) {
    const CryptoPP::byte chain[kBlock] = {};
    CryptoPP::CBC_Mode<CryptoPP::Blowfish>::Encryption cipher(bytes(g_sKey), g_sKey.size(), chain);
    cipher.ProcessData(bytes(output), bytes(input), input.size());
  } else {
    CryptoPP::ECB_Mode<CryptoPP::Blowfish>::Encryption cipher(bytes(g_sKey), g_sKey.size());
    cipher.ProcessData(bytes(output), bytes(input), input.size());
  }
}
#endif

// The side must agree with what deciphering gives back.
bool isCorrect(Cipher encipher, bool chained, const std::string& input) {
  using VarnSupport::VarnEncryption;
  std::string output(input.size(), '\0');
  encipher(chained, input, output);
  VarnEncryption cipher(chained ? VarnEncryption::STRENGTH_448 : VarnEncryption::STRENGTH_400);
  std::string back;
  cipher.decryptData(g_sKey, output, back);
  return output != input && back == input;
}

void add(const std::string& side, Cipher encipher) {
  struct Size {
    const char* name;
    std::size_t bytes;
  };
  for (const Size& size : {Size{"8 B", 8}, Size{"1 KiB", 1024}, Size{"1 MiB", 1024 * 1024}}) {
    for (const bool chained : {false, true}) {
      Bench::Workload(std::string(chained ? "Blowfish, CBC " : "Blowfish, ECB ") + size.name)
          .side(side, [encipher, chained, size](benchmark::State& state) {
            std::string input(size.bytes, '\0');
            for (std::size_t i = 0; i < input.size(); ++i)
              input[i] = static_cast<char>(i * 31 + i / 256 + 1);
            Bench::require(state, isCorrect(encipher, chained, input));
            std::string output(input.size(), '\0');
            for (auto _ : state) {
              encipher(chained, input, output);
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
