// Characters come in blocks from a CharacterSource, and wait in one buffer for the end of their
// line. Lines are views of that buffer, so that reading copies no text; only the rest of a line
// that is not complete moves to the front. What is no regular file is read and written as lines
// come, as at its other end somebody may wait for each.
//
// A wait for a file can be cancelled: the unwinding closes the file, and frees the buffers.
#include "text/PropertyFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <cerrno>

#include "runtime/Cancellation.h"
#include "runtime/System.h"
#include "runtime/WithoutWriteSignals.h"

namespace VarnSupport {

namespace {

constexpr std::size_t kSmallestBlock = 4096;
constexpr std::size_t kLargestBlock = 524288;
constexpr std::size_t kBytesConvertedAtOnce = 65536;
constexpr mode_t kFileMode = 0644;  // not wider, as the mask of a daemon is 0

using WideConversion = std::codecvt<wchar_t, char, std::mbstate_t>;

bool isPipe(const std::string& fileName) {
  struct stat status {};
  return stat(fileName.c_str(), &status) == 0 && S_ISFIFO(status.st_mode);
}

// A pipe is waited for until it has a partner, which can be cancelled, unless the flags say that
// nothing is waited for. Other files are opened at once, and a thread that is cancelled never
// leaves a descriptor of one behind.
Descriptor openFile(const std::string& fileName, int flags, mode_t mode) {
  if ((flags & O_NONBLOCK) != 0 || !isPipe(fileName))
    return Descriptor::open(fileName, flags, mode);
  const BlockingCall cancellable;
  return Descriptor(retrying([&] { return open(fileName.c_str(), flags | O_CLOEXEC, mode); }));
}

}  // namespace

OpenedFile::OpenedFile(const std::string& fileName, int flags, mode_t mode)
    : m_oFile(openFile(fileName, flags, mode)), m_nError(m_oFile.isOpen() ? 0 : errno) {
  struct stat status {};
  if (!m_oFile.isOpen() || fstat(m_oFile.get(), &status) != 0)
    return;
  if (S_ISDIR(status.st_mode)) {
    m_oFile.close();
    m_nError = EISDIR;
  }
  m_bRegular = S_ISREG(status.st_mode);
  m_nLength = static_cast<std::size_t>(std::max<off_t>(status.st_size, 0));
}

template <typename CharT>
CharacterSource<CharT>::CharacterSource(const std::string& fileName, int moreFlags)
    : m_oFile(fileName, O_RDONLY | moreFlags, 0), m_nError(m_oFile.error()) {}

template <typename CharT>
std::size_t CharacterSource<CharT>::read(CharT* to, std::size_t room) {
  assert(room > 0 && m_oFile.isOpen());
  const BlockingCall cancellable;
  const ssize_t count = retrying([&] { return ::read(m_oFile.get(), to, room); });
  if (count < 0)
    m_nError = errno;
  return count > 0 ? static_cast<std::size_t>(count) : 0;
}

CharacterSource<wchar_t>::CharacterSource(const std::string& fileName, int moreFlags)
    : m_oBytes(fileName, moreFlags), m_vBytes(kBytesConvertedAtOnce) {}

// Characters before one that cannot be converted are handed out first; the next call fails.
std::size_t CharacterSource<wchar_t>::read(wchar_t* to, std::size_t room) {
  assert(room > 0);
  const auto& conversion = std::use_facet<WideConversion>(m_oLocale);
  while (true) {
    const char* const begin = m_vBytes.data() + m_nBegin;
    const char* next = begin;
    wchar_t* end = to;
    const auto result =
        conversion.in(m_oState, begin, m_vBytes.data() + m_nEnd, next, to, to + room, end);
    m_nBegin += static_cast<std::size_t>(next - begin);
    if (end != to)
      return static_cast<std::size_t>(end - to);
    const bool convertible =
        result == std::codecvt_base::ok || result == std::codecvt_base::partial;
    if (!convertible || !fetchBytes())
      return 0;
  }
}

// A character that is not complete yet moves to the front.
bool CharacterSource<wchar_t>::fetchBytes() {
  std::copy(m_vBytes.data() + m_nBegin, m_vBytes.data() + m_nEnd, m_vBytes.data());
  assert(m_nBegin <= m_nEnd);
  m_nEnd -= m_nBegin;
  m_nBegin = 0;
  if (m_nEnd == m_vBytes.size())
    return false;
  const std::size_t count = m_oBytes.read(m_vBytes.data() + m_nEnd, m_vBytes.size() - m_nEnd);
  m_nEnd += count;
  return count > 0;
}

template <typename CharT>
PropertyFileReader<CharT>::PropertyFileReader(const std::string& fileName, int moreFlags,
                                              bool withEmptyLines)
    : m_oSource(fileName, moreFlags),
      m_bWithEmptyLines(withEmptyLines),
      m_vText(std::clamp(m_oSource.file().length() + 1, kSmallestBlock, kLargestBlock)) {
  if (isOpen())
    skipByteOrderMark();
}

// Regular files are read on until a large block is there, which sorts better than many small ones.
// The rest of a file without a line feed is its last line.
template <typename CharT>
bool PropertyFileReader<CharT>::nextLines(std::vector<tLine>& lines) {
  assert(isOpen());
  lines.clear();
  do {
    while (m_oSource.file().isRegular() && m_nEnd - m_nBegin < kLargestBlock && fetchBlock()) {
    }
    takeLines(lines);
  } while (lines.empty() && fetchBlock());
  if (lines.empty() && m_nBegin < m_nEnd) {
    lines.emplace_back(m_vText.data() + m_nBegin, m_nEnd - m_nBegin);
    m_nBegin = m_nEnd;
  }
  return !lines.empty();
}

// Appends a block to what is not handed out yet. False at the end.
template <typename CharT>
bool PropertyFileReader<CharT>::fetchBlock() {
  assert(m_nBegin <= m_nSearched && m_nSearched <= m_nEnd);
  if (m_bEnded)
    return false;
  if (m_nBegin > 0) {
    std::copy(m_vText.data() + m_nBegin, m_vText.data() + m_nEnd, m_vText.data());
    m_nEnd -= m_nBegin;
    m_nSearched -= m_nBegin;
    m_nBegin = 0;
  }
  if (m_nEnd == m_vText.size())
    m_vText.resize(2 * m_vText.size());
  const std::size_t count = m_oSource.read(m_vText.data() + m_nEnd, m_vText.size() - m_nEnd);
  m_nEnd = m_bUtf16 ? keepLowHalves(m_nEnd, m_nEnd + count) : m_nEnd + count;
  m_bEnded = count == 0;
  return !m_bEnded;
}

// A file that begins as UTF-16 does has its high halves dropped from there on.
template <typename CharT>
void PropertyFileReader<CharT>::skipByteOrderMark() {
  while (m_nEnd < 2 && fetchBlock()) {
  }
  if (m_nEnd < 2 || m_vText[0] != static_cast<CharT>(0xFF) ||
      m_vText[1] != static_cast<CharT>(0xFE))
    return;
  m_bUtf16 = true;
  m_nBegin = 2;
  m_nSearched = 2;
  m_nEnd = keepLowHalves(2, m_nEnd);
}

// Moves the first of each pair of characters together and returns where they end. A half without
// its partner waits for the next block, and goes with the file.
template <typename CharT>
std::size_t PropertyFileReader<CharT>::keepLowHalves(std::size_t begin, std::size_t end) {
  std::size_t kept = begin;
  for (std::size_t i = begin; i < end; ++i) {
    const CharT half = m_vText[i];
    if (m_bHasLowHalf)
      m_vText[kept++] = m_cLowHalf;
    m_cLowHalf = half;
    m_bHasLowHalf = !m_bHasLowHalf;
  }
  assert(kept <= end);
  return kept;
}

// Hands out complete lines. Lines of UTF-16 files end with a carriage return, too; others keep
// theirs.
template <typename CharT>
void PropertyFileReader<CharT>::takeLines(std::vector<tLine>& lines) {
  assert(m_nBegin <= m_nSearched && m_nEnd <= m_vText.size());
  const tLine text(m_vText.data(), m_nEnd);
  std::size_t end = text.find(CharT('\n'), m_nSearched);
  for (; end != text.npos; end = text.find(CharT('\n'), m_nBegin)) {
    tLine line = text.substr(m_nBegin, end - m_nBegin);
    if (m_bUtf16 && !line.empty() && line.back() == CharT('\r'))
      line.remove_suffix(1);
    if (!line.empty() || m_bWithEmptyLines)
      lines.push_back(line);
    m_nBegin = end + 1;
  }
  m_nSearched = m_nEnd;
}

template class CharacterSource<char>;
template class PropertyFileReader<char>;
template class PropertyFileReader<wchar_t>;

PropertyFileWriter::PropertyFileWriter(const std::string& fileName)
    : m_oFile(fileName, O_WRONLY | O_CREAT | O_TRUNC, kFileMode) {}

bool PropertyFileWriter::write(std::string_view lines) {
  while (!lines.empty()) {
    const std::size_t last = m_oFile.isRegular() ? lines.size() : lines.find('\n');
    const std::size_t length = std::min(last, lines.size() - 1) + 1;
    if (!writeBytes(lines.substr(0, length)))
      return false;
    lines.remove_prefix(length);
  }
  return true;
}

// A line that cannot be converted leaves nothing; those before it are written.
bool PropertyFileWriter::write(std::wstring_view lines) {
  assert(lines.empty() || lines.back() == L'\n');
  std::string bytes;
  bool converted = true;
  while (converted && !lines.empty()) {
    const std::wstring_view line = lines.substr(0, lines.find(L'\n') + 1);
    converted = encode(line, bytes);
    lines.remove_prefix(line.size());
  }
  return write(bytes) && converted;
}

// Appends the bytes of a line; a line that cannot be converted appends nothing.
bool PropertyFileWriter::encode(std::wstring_view line, std::string& bytes) {
  const auto& conversion = std::use_facet<WideConversion>(m_oLocale);
  const auto longest = static_cast<std::size_t>(std::max(conversion.max_length(), 1));
  const std::size_t begin = bytes.size();
  bytes.resize(begin + line.size() * longest);
  const wchar_t* const lineEnd = line.data() + line.size();
  const wchar_t* next = nullptr;
  char* end = nullptr;
  const auto result = conversion.out(m_oState, line.data(), lineEnd, next, bytes.data() + begin,
                                     bytes.data() + bytes.size(), end);
  const bool whole = result == std::codecvt_base::ok && next == lineEnd;
  bytes.resize(whole ? static_cast<std::size_t>(end - bytes.data()) : begin);
  return whole;
}

bool PropertyFileWriter::writeBytes(std::string_view bytes) {
  assert(isOpen());
  const BlockingCall cancellable;
  return writeWhole(m_oFile.get(), bytes) == 0;
}

}  // namespace VarnSupport
