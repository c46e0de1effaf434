// The library's exception: a code, a text, and a stack of messages that callers may add to as the
// exception travels outwards.
//
// Thrown by value, caught by reference; it belongs to the thread that throws or catches it. It
// derives from no standard exception. Narrow texts are widened, and read back narrowed, with the
// default locale (VarnLocaleFactory); characters that the locale cannot convert become blanks.
// Building one throws nothing but std::bad_alloc.
#ifndef VARNSUPPORT_VARNEXCEPTION_H
#define VARNSUPPORT_VARNEXCEPTION_H

#include <cstdint>
#include <deque>
#include <string>

#include "VarnSupport/VarnExport.h"
#include "VarnSupport/VarnStringUtilities.h"

namespace VarnSupport {

class VSUPT_EXPORT VarnException {
 public:
  // Code 0, empty text, empty message stack.
  VarnException();
  explicit VarnException(int code);
  // The text is also the first entry of the message stack.
  VarnException(const std::wstring& text, int code);
  VarnException(const std::string& text, int code);
  VarnException(const VarnException&) = default;
  VarnException& operator=(const VarnException& source);
  virtual ~VarnException();

  virtual std::string getText() const;
  virtual const std::wstring& getUText() const;
  // Replaces the text and leaves the message stack alone.
  virtual void setText(const std::string& text);
  virtual void setText(const std::wstring& text);
  virtual int getCode() const;
  virtual void setCode(int code);
  // Puts a message on top of the stack.
  virtual void pushMessage(const std::wstring& message);
  // Takes the top message off the stack. Requires: the stack is not empty.
  virtual std::wstring popMessage();
  // The messages, oldest first.
  virtual const std::deque<std::wstring>& getCallStack() const;
  // The messages, newest first, one per line. An empty newest message leaves no line feed.
  virtual std::wstring getFormattedMessages() const;

 private:
  std::wstring m_sText;
  std::int32_t m_nCode = 0;
  std::deque<std::wstring> m_vMessages;
};

// The kinds below carry code 0 and a text that begins with a fixed prefix, to which the argument is
// appended. All but the last begin with their class name and " - ".

// Offered to callers.
class VSUPT_EXPORT VarnKeyDataNotSupportedException : public VarnException {
 public:
  explicit VarnKeyDataNotSupportedException(const std::string& detail);
  ~VarnKeyDataNotSupportedException() override;
};

// Thrown for a named lock that does not exist.
class VSUPT_EXPORT VarnNoSuchElementException : public VarnException {
 public:
  explicit VarnNoSuchElementException(const std::string& detail);
  ~VarnNoSuchElementException() override;
};

// Thrown by the setters of VarnDateTime.
class VSUPT_EXPORT VarnInvalidDateException : public VarnException {
 public:
  explicit VarnInvalidDateException(const std::string& detail);
  ~VarnInvalidDateException() override;
};

// Thrown by VarnEncryption.
class VSUPT_EXPORT VarnInvalidEncryptionException : public VarnException {
 public:
  explicit VarnInvalidEncryptionException(const std::string& detail);
  ~VarnInvalidEncryptionException() override;
};

// Offered to callers; the prefix goes on with "Missing ".
class VSUPT_EXPORT VarnMissingMessageException : public VarnException {
 public:
  explicit VarnMissingMessageException(const std::string& detail);
  ~VarnMissingMessageException() override;
};

// Thrown by property look-ups. The prefix is "Property not found: ", without the class name. A wide
// key is narrowed and widened again, so that characters the locale cannot convert are lost.
class VSUPT_EXPORT VarnPropertyNotFound : public VarnException {
 public:
  // Empty text, empty message stack.
  VarnPropertyNotFound();
  explicit VarnPropertyNotFound(const std::string& key);
  explicit VarnPropertyNotFound(const ci_string& key);
  explicit VarnPropertyNotFound(const std::wstring& key);
  explicit VarnPropertyNotFound(const ci_wstring& key);
  VarnPropertyNotFound(const VarnPropertyNotFound&) = default;
  VarnPropertyNotFound& operator=(const VarnPropertyNotFound&) = default;
  ~VarnPropertyNotFound() override;
};

}  // namespace VarnSupport

#endif
