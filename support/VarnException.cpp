// The text of an exception is wide. Narrow texts are converted as they come and go, by the default
// locale; a character that it lacks becomes a blank.
//
// What cannot be converted costs characters, never the exception. The text is kept whole, and
// every other form is made from it when it is asked for.
#include "VarnSupport/VarnException.h"

#include <cassert>

#include "VarnSupport/VarnLocaleFactory.h"
#include "runtime/Cancellation.h"

namespace VarnSupport {

namespace {

std::wstring widened(const std::string& text) {
  return VarnStringUtilities::widen(text, VarnLocaleFactory::getDefaultLocale());
}

std::string narrowed(const std::wstring& text) {
  return VarnStringUtilities::narrow(text, VarnLocaleFactory::getDefaultLocale());
}

std::string notFound(const char* key, std::size_t length) {
  return std::string("Property not found: ").append(key, length);
}

std::string notFound(const wchar_t* key, std::size_t length) {
  return narrowed(std::wstring(L"Property not found: ").append(key, length));
}

}  // namespace

VarnException::VarnException() = default;

VarnException::VarnException(int code) : m_nCode(code) {}

VarnException::VarnException(const std::wstring& text, int code) : m_sText(text), m_nCode(code) {
  m_vMessages.push_back(m_sText);
}

VarnException::VarnException(const std::string& text, int code)
    : VarnException(widened(text), code) {}

// By a copy, so that a lack of memory leaves both as they are.
VarnException& VarnException::operator=(const VarnException& source) {
  if (this != &source) {
    VarnException copy(source);
    m_sText.swap(copy.m_sText);
    m_nCode = copy.m_nCode;
    m_vMessages.swap(copy.m_vMessages);
  }
  return *this;
}

VarnException::~VarnException() = default;

std::string VarnException::getText() const {
  const CancellationGuard closed;
  return narrowed(m_sText);
}

const std::wstring& VarnException::getUText() const { return m_sText; }

void VarnException::setText(const std::string& text) {
  const CancellationGuard closed;
  m_sText = widened(text);
}

void VarnException::setText(const std::wstring& text) {
  const CancellationGuard closed;
  m_sText = text;
}

int VarnException::getCode() const { return m_nCode; }

void VarnException::setCode(int code) { m_nCode = code; }

void VarnException::pushMessage(const std::wstring& message) {
  const CancellationGuard closed;
  m_vMessages.push_back(message);
}

// The newest comes first. In a release without messages the result is empty.
std::wstring VarnException::popMessage() {
  assert(!m_vMessages.empty());
  const CancellationGuard closed;
  std::wstring message;
  if (!m_vMessages.empty()) {
    message.swap(m_vMessages.back());
    m_vMessages.pop_back();
  }
  return message;
}

const std::deque<std::wstring>& VarnException::getCallStack() const { return m_vMessages; }

std::wstring VarnException::getFormattedMessages() const {
  const CancellationGuard closed;
  std::wstring text;
  for (auto message = m_vMessages.rbegin(); message != m_vMessages.rend(); ++message) {
    if (!text.empty())
      text += L'\n';
    text += *message;
  }
  return text;
}

VarnKeyDataNotSupportedException::VarnKeyDataNotSupportedException(const std::string& detail)
    : VarnException("VarnKeyDataNotSupportedException - " + detail, 0) {}

VarnKeyDataNotSupportedException::~VarnKeyDataNotSupportedException() = default;

VarnNoSuchElementException::VarnNoSuchElementException(const std::string& detail)
    : VarnException("VarnNoSuchElementException - " + detail, 0) {}

VarnNoSuchElementException::~VarnNoSuchElementException() = default;

VarnInvalidDateException::VarnInvalidDateException(const std::string& detail)
    : VarnException("VarnInvalidDateException - " + detail, 0) {}

VarnInvalidDateException::~VarnInvalidDateException() = default;

VarnInvalidEncryptionException::VarnInvalidEncryptionException(const std::string& detail)
    : VarnException("VarnInvalidEncryptionException - " + detail, 0) {}

VarnInvalidEncryptionException::~VarnInvalidEncryptionException() = default;

VarnMissingMessageException::VarnMissingMessageException(const std::string& detail)
    : VarnException("VarnMissingMessageException - Missing " + detail, 0) {}

VarnMissingMessageException::~VarnMissingMessageException() = default;

VarnPropertyNotFound::VarnPropertyNotFound() = default;

VarnPropertyNotFound::VarnPropertyNotFound(const std::string& key)
    : VarnException(notFound(key.data(), key.size()), 0) {}

VarnPropertyNotFound::VarnPropertyNotFound(const ci_string& key)
    : VarnException(notFound(key.data(), key.size()), 0) {}

VarnPropertyNotFound::VarnPropertyNotFound(const std::wstring& key)
    : VarnException(notFound(key.data(), key.size()), 0) {}

VarnPropertyNotFound::VarnPropertyNotFound(const ci_wstring& key)
    : VarnException(notFound(key.data(), key.size()), 0) {}

VarnPropertyNotFound::~VarnPropertyNotFound() = default;

}  // namespace VarnSupport
