// The string vocabulary: case-insensitive strings, trimming, narrow and wide text, tokens, hex.
//
// Everything is stateless and safe from any thread. Outputs may alias inputs: results are built
// first and stored last.
#ifndef VARNSUPPORT_VARNSTRINGUTILITIES_H
#define VARNSUPPORT_VARNSTRINGUTILITIES_H

#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <cwctype>
#include <functional>
#include <locale>
#include <string>
#include <vector>

#include "VarnSupport/VarnExport.h"

namespace VarnSupport {

// The value by which case-insensitive strings compare a character. Narrow: tolower(), but bytes
// 0x80 to 0xFF stay as they are, negative, and so order before ASCII. Wide: towlower(), unsigned.
// Both follow setlocale(): an order made under one locale does not hold under another.
template <typename CharT>
class CaseFolding;

// Asks the platform once for the table that tolower() looks into, which spares a call for each
// character. Not to be kept: every locale has its own.
template <>
class CaseFolding<char> {
 public:
  int operator()(char c) const {
    const auto value = static_cast<signed char>(c);
    return value < 0 ? value : m_pTable[value];
  }
  // Whether the locale takes each letter from A to Z for one with its small letter.
  bool pairsLetters() const {
    return std::memcmp(m_pTable + 'A', m_pTable + 'a', 26 * sizeof(*m_pTable)) == 0;
  }
  // Where texts of at least kLeast characters differ first in more than the case of such letters;
  // the length if they do not. Takes two words at a time, which overlap at the end: what is seen
  // twice was alike.
  static constexpr std::size_t kLeast = sizeof(std::uint64_t);
  [[gnu::always_inline]] static std::size_t firstDifference(const char* left, const char* right,
                                                            std::size_t length) {
    using Words = std::uint64_t __attribute__((vector_size(2 * kLeast)));
    using Bytes = std::uint8_t __attribute__((vector_size(2 * kLeast)));
    using SignedBytes = std::int8_t __attribute__((vector_size(2 * kLeast)));
    constexpr std::uint64_t caseBits = 0x2020202020202020;
    constexpr std::uint8_t toLeast = 0x80 - 'a';
    constexpr std::int8_t behindLetters = 26 - 0x80;
    const std::size_t lastPair = length > 2 * kLeast ? length - 2 * kLeast : 0;
    for (std::size_t i = 0; i < length; i += 2 * kLeast) {
      const std::size_t first = i < lastPair ? i : lastPair;
      const std::size_t second = i + kLeast < length - kLeast ? i + kLeast : length - kLeast;
      const Words leftWords = {wordAt(left + first), wordAt(left + second)};
      const Words rightWords = {wordAt(right + first), wordAt(right + second)};
      // Moved so, the small letters are the least values that signed bytes have.
      const auto moved = reinterpret_cast<Bytes>(leftWords | caseBits) + toLeast;
      const auto isLetter = reinterpret_cast<SignedBytes>(moved) < behindLetters;
      const Words difference =
          (leftWords ^ rightWords) & ~(reinterpret_cast<Words>(isLetter) & caseBits);
      if ((difference[0] | difference[1]) != 0)
        return difference[0] != 0 ? first + firstByteOf(difference[0])
                                  : second + firstByteOf(difference[1]);
    }
    return length;
  }

 private:
  static std::uint64_t wordAt(const char* text) {
    std::uint64_t word;
    std::memcpy(&word, text, sizeof(word));
    return word;
  }
  static std::size_t firstByteOf(std::uint64_t difference) {
    const int zeros = __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__ ? __builtin_ctzll(difference)
                                                                : __builtin_clzll(difference);
    return static_cast<std::size_t>(zeros) / 8;
  }

  const std::int32_t* m_pTable = *__ctype_tolower_loc();
};

template <>
class CaseFolding<wchar_t> {
 public:
  std::wint_t operator()(wchar_t c) const { return std::towlower(static_cast<std::wint_t>(c)); }
};

// Character traits whose comparing members look at folded characters.
template <typename CharT>
struct VSUPT_EXPORT char_traits_ci : std::char_traits<CharT> {
  static bool eq(CharT left, CharT right) {
    const CaseFolding<CharT> fold;
    return fold(left) == fold(right);
  }
  static bool lt(CharT left, CharT right) {
    const CaseFolding<CharT> fold;
    return fold(left) < fold(right);
  }
  static int compare(const CharT* left, const CharT* right, std::size_t length) {
    constexpr std::size_t word = sizeof(std::uint64_t) / sizeof(CharT);
    const CaseFolding<CharT> fold;
    std::size_t i = 0;
    for (; length - i >= word; i += word) {
      for (std::uint64_t rest = differenceOf(left + i, right + i); rest != 0;) {
        const std::size_t at = i + takeFirst(rest);
        if (const int result = order(fold(left[at]), fold(right[at])))
          return result;
      }
    }
    for (; i < length; ++i) {
      if (left[i] == right[i])
        continue;
      if (const int result = order(fold(left[i]), fold(right[i])))
        return result;
    }
    return 0;
  }
  static const CharT* find(const CharT* text, std::size_t length, const CharT& wanted) {
    const CaseFolding<CharT> fold;
    const auto folded = fold(wanted);
    for (std::size_t i = 0; i < length; ++i) {
      if (fold(text[i]) == folded)
        return text + i;
    }
    return nullptr;
  }

 private:
  template <typename Folded>
  static int order(Folded left, Folded right) {
    return left < right ? -1 : left > right ? 1 : 0;
  }

  // Equal characters need no folding: a word of both texts leaves bits where they are not.
  static std::uint64_t differenceOf(const CharT* left, const CharT* right) {
    std::uint64_t leftWord;
    std::uint64_t rightWord;
    std::memcpy(&leftWord, left, sizeof(leftWord));
    std::memcpy(&rightWord, right, sizeof(rightWord));
    return leftWord ^ rightWord;
  }
  // The position of the first character that has bits, which it loses.
  static std::size_t takeFirst(std::uint64_t& difference) {
    constexpr std::size_t bits = 8 * sizeof(CharT);
    constexpr std::uint64_t character = (std::uint64_t{1} << bits) - 1;
    constexpr std::size_t last = 64 / bits - 1;
    if constexpr (__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__) {
      const std::size_t position = static_cast<std::size_t>(__builtin_ctzll(difference)) / bits;
      difference &= ~(character << position * bits);
      return position;
    } else {
      const std::size_t position = static_cast<std::size_t>(__builtin_clzll(difference)) / bits;
      difference &= ~(character << (last - position) * bits);
      return position;
    }
  }
};

using ci_string = std::basic_string<char, char_traits_ci<char>>;
using ci_wstring = std::basic_string<wchar_t, char_traits_ci<wchar_t>>;

// What the two facets below share.
class VSUPT_EXPORT UnconvertingCtype : public std::ctype<wchar_t> {
 protected:
  explicit UnconvertingCtype(unsigned int references);
  ~UnconvertingCtype() override;

  using std::ctype<wchar_t>::do_widen;
  const char* do_widen(const char* low, const char* high, wchar_t* to) const override;
  char do_narrow(wchar_t c, char fallback) const override;
  const wchar_t* do_narrow(const wchar_t* low, const wchar_t* high, char fallback,
                           char* to) const override;
  virtual wchar_t do_widen(char c, wchar_t fallback) const;
};

// Facets for a client's std::locale that switch character conversion off: of ranges nothing is
// written, single characters become the default. Under them narrow() and widen() give empty texts.
class VSUPT_EXPORT ansi_ctype : public UnconvertingCtype {
 public:
  explicit ansi_ctype(unsigned int references = 0);
  ~ansi_ctype() override;
};

// Behaves as ansi_ctype does.
class VSUPT_EXPORT utf8_ctype : public UnconvertingCtype {
 public:
  explicit utf8_ctype(unsigned int references = 0);
  ~utf8_ctype() override;
};

// Trimming, and conversion between narrow and wide text.
class VSUPT_EXPORT VarnStringUtilities {
 public:
  enum tTrimOption : int { TRIM_LEFT = 0, TRIM_RIGHT = 1, TRIM_BOTH = 2 };

  // `text` without the characters of `chars` at the chosen ends; unchanged for any other option.
  // For std::string and std::wstring.
  template <typename StringT>
  static StringT trim(const StringT& text, const StringT& chars, tTrimOption option);

  // Converts with the ctype<wchar_t> facet of `locale`. narrow() puts a blank for what has no
  // narrow form; both results end at the first NUL. Throws VarnException (code 0) for any standard
  // exception on the way, a locale without the facet among them; any other kind ends the process.
  static std::string narrow(const std::wstring& text, std::locale locale);
  static std::wstring widen(const std::string& text, std::locale locale);
};

extern template VSUPT_EXPORT std::string VarnStringUtilities::trim(const std::string&,
                                                                   const std::string&, tTrimOption);
extern template VSUPT_EXPORT std::wstring VarnStringUtilities::trim(const std::wstring&,
                                                                    const std::wstring&,
                                                                    tTrimOption);

// Splits a list of NUL-terminated strings that an extra NUL closes; null gives no token. The form
// over a string adds the closing NULs to a copy of all its bytes.
VSUPT_EXPORT void VarnTokenizer(char* list, std::vector<std::string>& tokens);
VSUPT_EXPORT void VarnTokenizer(const std::string& list, std::vector<std::string>& tokens);
// Splits a NUL-terminated text at runs of delimiters, as strtok() does; there are no empty tokens.
// The first form puts a NUL in place of each delimiter that ends a token; null gives no token. The
// second works on a copy, up to its first NUL.
VSUPT_EXPORT void VarnTokenizer(char* text, const std::string& delimiters,
                                std::vector<std::string>& tokens);
VSUPT_EXPORT void VarnTokenizer(const std::string& text, const std::string& delimiters,
                                std::vector<std::string>& tokens);

// Returns the first word of `line`: up to a blank or tab, or, when it begins with a double quote,
// up to the next one. `rest` is what follows the separator or the closing quote. Without a closing
// quote both are all after the opening one; callers rely on it.
VSUPT_EXPORT std::string VarnExtractFirstString(const std::string& line, std::string& rest);

// Writes hex.size() / 2 bytes to `out` and returns that number. Nothing is validated: other
// characters give arbitrary nibbles. Requires: `out` has room.
VSUPT_EXPORT int VarnHexToBytes(char* out, const std::string& hex);
// Two upper-case digits per byte; empty for a length of 0 or less.
VSUPT_EXPORT std::string VarnBytesToHex(const char* bytes, int length);

// Copies `text`, up to its first NUL, with a terminating NUL and returns `buffer`; null when
// `buffer` is null or `size` is not above the text's length. A negative size always passes.
VSUPT_EXPORT char* VarnStringToChar(const std::string& text, char* buffer, int size);
// Null gives the empty text.
VSUPT_EXPORT std::string VarnStringFromChar(const char* text);

}  // namespace VarnSupport

// The key order of every case-insensitive map: folded characters, then the shorter first.
template <>
struct std::less<VarnSupport::ci_string> {
  [[gnu::always_inline]] bool operator()(const VarnSupport::ci_string& left,
                                         const VarnSupport::ci_string& right) const {
    const VarnSupport::CaseFolding<char> fold;
    const bool lettersArePairs = fold.pairsLetters();
    const std::size_t length = left.size() < right.size() ? left.size() : right.size();
    std::size_t i = 0;
    if (lettersArePairs && length >= fold.kLeast)
      i = fold.firstDifference(left.data(), right.data(), length);
    for (; i < length; ++i) {
      const int leftFolded = fold(left[i]);
      const int rightFolded = fold(right[i]);
      if (leftFolded < rightFolded)
        return true;
      if (leftFolded > rightFolded)
        return false;
    }
    return left.size() < right.size();
  }
};

template <>
struct std::less<VarnSupport::ci_wstring> {
  bool operator()(const VarnSupport::ci_wstring& left, const VarnSupport::ci_wstring& right) const {
    return left.compare(right) < 0;
  }
};

#endif
