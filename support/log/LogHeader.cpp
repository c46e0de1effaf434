// The parts of a header that need work, time and thread, are kept as text; a record puts them
// together by copying. The room is made in front of the record's text, which exists before its
// header does: the header has the time at which a record ends.
#include "log/LogHeader.h"

#include <algorithm>
#include <array>
#include <cassert>
#include <charconv>
#include <cstddef>
#include <cstring>

#include "locks/BriefHold.h"

namespace VarnSupport {

namespace {

// Returns where the next part goes, behind a blank.
char* put(char* to, std::string_view part) {
  std::memcpy(to, part.data(), part.size());
  to[part.size()] = ' ';
  return to + part.size() + 1;
}

}  // namespace

void LogHeader::putBefore(RecordText& text, int level, std::string_view label) {
  constexpr std::size_t labelWidth = 10;
  const pthread_t thread = callingThread();
  if (thread != m_hThread) {
    m_sThread = '[';
    m_sThread += std::to_string(static_cast<int>(thread));
    m_sThread += ']';
    m_hThread = thread;
  }
  const std::string_view second = m_oSecond.now();
  std::array<char, 16> digits;
  const char* const digitsEnd = std::to_chars(digits.begin(), digits.end(), level).ptr;
  const std::string_view levelText(digits.data(),
                                   static_cast<std::size_t>(digitsEnd - digits.data()));
  const std::size_t padding = labelWidth - std::min(label.size(), labelWidth);

  const std::size_t length = second.size() + levelText.size() + label.size() + padding +
                             m_sThread.size() + 5;  // a line feed and four blanks
  char* to = text.extendFront(length);
  *to++ = '\n';
  to = put(to, second);
  to = put(to, levelText);
  to = put(to, label);
  std::memset(to, ' ', padding);
  to = put(to + padding, m_sThread);
  assert(to == text.text().data() + length);
}

}  // namespace VarnSupport
