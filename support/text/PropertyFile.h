// The text files behind property sets: a reader of lines and a writer.
#ifndef SUPPORT_TEXT_PROPERTYFILE_H
#define SUPPORT_TEXT_PROPERTYFILE_H

#include <sys/types.h>

#include <cstddef>
#include <cwchar>
#include <locale>
#include <string>
#include <string_view>
#include <vector>

#include "runtime/Descriptor.h"
#include "runtime/GlobalLocale.h"

namespace VarnSupport {

// An open file, and what is known of it.
class OpenedFile {
 public:
  // As open(), with the file closed on exec. A folder counts as a file that cannot be opened, and
  // so does a name with a NUL.
  OpenedFile(const std::string& fileName, int flags, mode_t mode);

  bool isOpen() const { return m_oFile.isOpen(); }
  int get() const { return m_oFile.get(); }
  // Why it could not be opened.
  int error() const { return m_nError; }
  // Behind anything but a regular file there may be somebody who writes, or waits for, one line at
  // a time.
  bool isRegular() const { return m_bRegular; }
  // The length at the time of opening.
  std::size_t length() const { return m_nLength; }

 private:
  Descriptor m_oFile;
  int m_nError;
  bool m_bRegular = false;
  std::size_t m_nLength = 0;
};

// The characters of a file: narrow ones are its bytes.
template <typename CharT>
class CharacterSource {
 public:
  // With more flags of open(), as O_NONBLOCK, which keeps pipes from being waited for.
  explicit CharacterSource(const std::string& fileName, int moreFlags = 0);

  const OpenedFile& file() const { return m_oFile; }
  // Reads up to `room` characters and returns their number: 0 at the end, which is where a read or
  // a conversion fails. Requires: room > 0.
  std::size_t read(CharT* to, std::size_t room);
  // Why the file could not be opened or read to its end; 0 when it could.
  int error() const { return m_nError; }

 private:
  OpenedFile m_oFile;
  int m_nError;
};

// Wide characters come out of the global locale's conversion, that of the time of opening.
template <>
class CharacterSource<wchar_t> {
 public:
  explicit CharacterSource(const std::string& fileName, int moreFlags = 0);

  const OpenedFile& file() const { return m_oBytes.file(); }
  std::size_t read(wchar_t* to, std::size_t room);

 private:
  bool fetchBytes();

  CharacterSource<char> m_oBytes;
  std::locale m_oLocale = globalLocale();
  std::mbstate_t m_oState{};
  std::vector<char> m_vBytes;
  std::size_t m_nBegin = 0;  // what is read and not converted yet
  std::size_t m_nEnd = 0;
};

// Reads the lines of a file: in large blocks, or as they come when it is not regular.
template <typename CharT>
class PropertyFileReader {
 public:
  using tLine = std::basic_string_view<CharT>;

  explicit PropertyFileReader(const std::string& fileName)
      : PropertyFileReader(fileName, 0, false) {}
  // Hands out empty lines, too, when these count.
  PropertyFileReader(const std::string& fileName, int moreFlags, bool withEmptyLines);

  bool isOpen() const { return m_oSource.file().isOpen(); }
  const CharacterSource<CharT>& source() const { return m_oSource; }
  // Replaces `lines` by the lines of the next block, without their line feeds and without those
  // that are empty; they are valid until the next call. False at the end.
  bool nextLines(std::vector<tLine>& lines);

 private:
  bool fetchBlock();
  void skipByteOrderMark();
  std::size_t keepLowHalves(std::size_t begin, std::size_t end);
  void takeLines(std::vector<tLine>& lines);

  CharacterSource<CharT> m_oSource;
  const bool m_bWithEmptyLines;
  std::vector<CharT> m_vText;
  std::size_t m_nBegin = 0;     // what is read and not handed out yet
  std::size_t m_nSearched = 0;  // no line ends before
  std::size_t m_nEnd = 0;
  bool m_bEnded = false;
  bool m_bUtf16 = false;
  bool m_bHasLowHalf = false;  // a character whose high half is still to come
  CharT m_cLowHalf{};
};

// Writes a file anew, wide characters through the conversion of the global locale.
class PropertyFileWriter {
 public:
  explicit PropertyFileWriter(const std::string& fileName);

  bool isOpen() const { return m_oFile.isOpen(); }
  // Writes whole lines, each with its line feed: at once, or one by one when the file is not
  // regular. False when one cannot be converted or written, which ends the file.
  bool write(std::string_view lines);
  bool write(std::wstring_view lines);

 private:
  bool writeBytes(std::string_view bytes);
  bool encode(std::wstring_view line, std::string& bytes);

  OpenedFile m_oFile;
  std::locale m_oLocale = globalLocale();
  std::mbstate_t m_oState{};
};

}  // namespace VarnSupport

#endif
