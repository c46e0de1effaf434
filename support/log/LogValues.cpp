// How values become the text of a record.
//
// Both forms of records bring their values by the same functions. Which record a value is for
// depends on the thread alone: behind getLogAccess() it is of the older form, otherwise it belongs
// to the innermost VarnLogRecord of the thread.
#include <cassert>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <locale>
#include <new>
#include <optional>
#include <sstream>
#include <string>
#include <utility>

#include "VarnSupport/VarnException.h"
#include "VarnSupport/VarnLocaleFactory.h"
#include "log/LogState.h"
#include "runtime/BriefGate.h"
#include "runtime/Cancellation.h"

namespace VarnSupport {

// Without memory a value is dropped.
void VarnLogging::State::append(RecordText& text, std::string_view value) {
  if (building->silenced)
    return;
  try {
    text.append(value);
  } catch (const std::bad_alloc&) {
  }
}

void VarnLogging::append(const char* text, std::size_t length) {
  const QuietCancellationGuard closed;
  State* const state = std::exchange(State::t_pValueOf, nullptr);
  VarnLogRecord::Content* const content = VarnLogRecord::Content::t_pInnermost;
  assert((state != nullptr || content == nullptr ? m_pState : content->state)->lock.lockCount() >
         0);
  if (state != nullptr || content == nullptr)
    m_pState->append(m_pState->building->older, {text, length});
  else
    content->state->append(content->text, {text, length});
}

void VarnLogging::put(const std::string& value) { append(value.data(), value.size()); }

void VarnLogging::put(const ci_string& value) { append(value.data(), value.size()); }

// A text that cannot be converted, or that there is no memory for, is dropped: no exception leaves
// the log.
void VarnLogging::put(const std::wstring& value) {
  const QuietCancellationGuard closed;
  std::string text;
  try {
    text = VarnStringUtilities::narrow(value, VarnLocaleFactory::getDefaultLocale());
  } catch (const VarnException&) {
  } catch (const std::bad_alloc&) {
  }
  put(text);
}

void VarnLogging::put(const ci_wstring& value) {
  const QuietCancellationGuard closed;
  std::wstring text;
  try {
    text.assign(value.data(), value.size());
  } catch (const std::bad_alloc&) {
  }
  put(text);
}

void VarnLogging::put(bool value) {
  const std::string_view text = value ? "true" : "false";
  append(text.data(), text.size());
}

template <typename T>
void VarnLogging::putNumber(T value) {
  char digits[24];
  const auto end = std::to_chars(digits, digits + sizeof digits, value);
  append(digits, static_cast<std::size_t>(end.ptr - digits));
}

void VarnLogging::put(long value) { putNumber(value); }

void VarnLogging::put(unsigned long value) { putNumber(value); }

void VarnLogging::put(int value) { putNumber(value); }

void VarnLogging::put(short value) { putNumber(value); }

void VarnLogging::put(unsigned int value) { putNumber(value); }

void VarnLogging::put(unsigned short value) { putNumber(value); }

// As "%c" does into a text: a NUL adds nothing.
void VarnLogging::put(char value) { append(&value, value != '\0' ? 1 : 0); }

void VarnLogging::put(const void* value) {
  const QuietCancellationGuard closed;
  char text[32];
  append(text, static_cast<std::size_t>(std::snprintf(text, sizeof text, "%p", value)));
}

// The longest "%f" has 309 digits before the point.
void VarnLogging::put(double value) {
  const QuietCancellationGuard closed;
  char text[400];
  append(text, static_cast<std::size_t>(std::snprintf(text, sizeof text, "%f", value)));
}

void VarnLogging::put(float value) { put(static_cast<double>(value)); }

// In the older form a null pointer ends the stream for good; callers rely on it.
void VarnLogging::put(const char* value) {
  if (value != nullptr)
    append(value, std::strlen(value));
  else if (State* const state = std::exchange(State::t_pValueOf, nullptr))
    state->building->silenced = true;
  else
    append("(null)", 6);
}

// The text is collected apart: the operator of a user's type may write records of its own.
void VarnLogRecord::stream(Writer writer, const void* value) {
  std::optional<std::ostringstream> stream;
  try {
    // It takes the lock of the global locale.
    stream.emplace(BriefGate::inside([] { return std::ostringstream(); }));
    stream->imbue(std::locale::classic());
  } catch (const std::bad_alloc&) {
    return;
  }
  writer(*stream, value);
  takeText(stream->view());
}

void VarnLogRecord::takeWide(const wchar_t* text) {
  if (text != nullptr)
    takeWide(std::wstring_view(text));
  else
    takeText("(null)");
}

void VarnLogRecord::takeWide(std::wstring_view text) {
  try {
    m_pLog->put(std::wstring(text));
  } catch (const std::bad_alloc&) {
  }
}

}  // namespace VarnSupport
