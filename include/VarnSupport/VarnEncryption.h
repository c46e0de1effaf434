// Blowfish encryption of byte strings, in electronic-codebook or cipher-block-chaining mode.
//
// Blocks have 8 bytes, rounds number 16, and the last block is padded with zero bytes; padding is
// never removed. An object keeps the key schedule of its last key. Another key costs 521 block
// encipherments: callers with several keys keep an object for each where they can.
// Blowfish is offered for data that exists in it; new formats want a modern cipher.
//
// Failure is reported by a false result with a text (...Impl) or as VarnInvalidEncryptionException.
// An object holds its key schedule: one object must not be used by two threads at once.
#ifndef VARNSUPPORT_VARNENCRYPTION_H
#define VARNSUPPORT_VARNENCRYPTION_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "VarnSupport/VarnExport.h"

namespace VarnSupport {

// One cipher block as two halves.
class VSUPT_EXPORT SBlock {
 public:
  SBlock() = default;
  SBlock(std::uint32_t left, std::uint32_t right) : m_nLeft(left), m_nRight(right) {}
  SBlock(const SBlock&) = default;
  SBlock& operator=(const SBlock&) = default;
  virtual ~SBlock();

  SBlock& operator^=(const SBlock& other);

  std::uint32_t m_nLeft = 0;
  std::uint32_t m_nRight = 0;
};

class VSUPT_EXPORT VarnEncryption {
 public:
  // The strength decides the mode, and how many bytes of key buffer a key must be able to fill. The
  // cipher itself looks at the first 72 of them whatever the strength: 400 and 448 differ in mode
  // alone.
  enum Strength : unsigned { STRENGTH_400 = 0, STRENGTH_448 = 1 };
  enum tMode : unsigned { MODE_ECB = 0, MODE_CBC = 1 };

  // The published initial values, the hexadecimal digits of pi after the point.
  static const std::uint32_t arrwPBoxInit[18];
  static const std::uint32_t arrwSBoxInit[4][256];

  // Strength STRENGTH_448.
  VarnEncryption();
  explicit VarnEncryption(const Strength& strength);
  // The copy has the source's key schedule and yet counts as not initialized.
  VarnEncryption(const VarnEncryption& source);
  VarnEncryption& operator=(const VarnEncryption& source);
  virtual ~VarnEncryption();

  // Enciphers `input` into `output`. An output that is shorter than the input is first resized to
  // the input's length, not to the padded one: of a last block that is not whole only the bytes
  // with a place in the output are kept, and cannot be deciphered; callers rely on it. A longer
  // output keeps its length. Arguments may be the same string. The second form returns false, with
  // a text in `error`, for an empty key unless the output is empty as well; the first form calls it
  // and throws VarnInvalidEncryptionException.
  virtual void encryptData(const std::string& key, const std::string& input, std::string& output);
  virtual bool encryptDataImpl(const std::string& key, const std::string& input,
                               std::string& output, std::string& error);
  // The same for deciphering.
  virtual void decryptData(const std::string& key, const std::string& input, std::string& output);
  virtual bool decryptDataImpl(const std::string& key, const std::string& input,
                               std::string& output, std::string& error);
  virtual Strength getStrength() const;
  // STRENGTH_448 selects chaining from a zero block and 448 bytes of key buffer, any other value
  // the codebook and 400 bytes.
  virtual void setStrength(const Strength& strength);

  // Sets the key schedule up from the first `keyLength` bytes of `key`, over and over, unless it
  // is that of these bytes already, and stores mode and chaining value for later calls. Throws
  // std::out_of_range when `keyLength` is 0, or is larger than a key that does not fill the key
  // buffer alone; after that, VarnInvalidEncryptionException for an unknown mode.
  void initialize(const std::string& key, const unsigned& keyLength, const tMode& mode,
                  const SBlock& chaining);
  // The mark that initialize() leaves. Each encipherment sets it anew, so that it has no effect.
  void setInit(const bool& initialized);
  // The length of `input` after padding with zero bytes to whole blocks.
  std::size_t padInputBuf(std::string input);

  // Most significant byte first.
  void bytesToBlock(const unsigned char* bytes, SBlock& block);
  void blockToBytes(const SBlock& block, unsigned char* bytes);
  // The cipher of one block under the current key schedule.
  void encryptInternal(SBlock& block);
  void decryptInternal(SBlock& block);

 private:
  bool cryptData(std::string key, const std::string& input, std::string& output, std::string& error,
                 bool encipher);
  void copyValues(const VarnEncryption& source);
  VSUPT_LOCAL void setUpSchedule();

  Strength m_eStrength = STRENGTH_448;
  bool m_bInitialized = false;
  std::uint32_t m_nBlockSize = 8;
  std::uint32_t m_nKeyBufferLength = 0;
  std::string m_sKey;  // what of the key the schedule is made from
  tMode m_eMode = MODE_CBC;
  SBlock m_oChaining;
  std::uint32_t m_aP[18] = {};
  std::uint32_t m_aS[4][256] = {};
};

}  // namespace VarnSupport

#endif
