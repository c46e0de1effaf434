// Values as raw bytes: an output stream turns them into bytes, an input stream turns bytes back.
//
// A derived class supplies reset() and one transfer operation; the operators do the rest. Numbers
// travel as they lie in memory, in the host's byte order: char 1 byte, short 2, int, long and float
// 4, double 8. Strings are written with a 32-bit length and read with a 16-bit one, so that what is
// written as a string does not come back as one; callers rely on it.
//
// The streams have no state of their own: thread safety and failure are the derived class's.
#ifndef VARNSUPPORT_VARNOBJECTSTREAM_H
#define VARNSUPPORT_VARNOBJECTSTREAM_H

#include <cstddef>
#include <string>

#include "VarnSupport/VarnExport.h"

namespace VarnSupport {

class VSUPT_EXPORT VarnObjectStream {
 public:
  VarnObjectStream() = default;
  VarnObjectStream(const VarnObjectStream&) = default;
  VarnObjectStream& operator=(const VarnObjectStream&) = default;
  virtual ~VarnObjectStream();

  // Discards what has been written and not read.
  virtual void reset() = 0;
};

class VSUPT_EXPORT VarnInputObjectStream : public VarnObjectStream {
 public:
  ~VarnInputObjectStream() override;

  // Moves up to elementSize * count bytes to `data` and returns how many.
  virtual unsigned read(void* data, unsigned elementSize, unsigned count) = 0;

  // What a short read does not fill stays as it was.
  VarnInputObjectStream& operator>>(char& value) { return number(value); }
  VarnInputObjectStream& operator>>(unsigned char& value) { return number(value); }
  VarnInputObjectStream& operator>>(short& value) { return number(value); }
  VarnInputObjectStream& operator>>(unsigned short& value) { return number(value); }
  VarnInputObjectStream& operator>>(int& value) { return number(value); }
  VarnInputObjectStream& operator>>(unsigned int& value) { return number(value); }
  VarnInputObjectStream& operator>>(float& value) { return number(value); }
  VarnInputObjectStream& operator>>(double& value) { return number(value); }
  // Four bytes, extended by their sign (unsigned: by zeros); a short read changes nothing.
  VarnInputObjectStream& operator>>(long& value);
  VarnInputObjectStream& operator>>(unsigned long& value);

  // A signed 16-bit length and as many characters (wide: of 4 bytes). A negative length counts as
  // 0. Characters that a short read does not bring are NUL.
  // Makes a new NUL-terminated array, which the caller owns and frees with delete[]; a length of 0
  // leaves the pointer as it was.
  VarnInputObjectStream& operator>>(char*& text);
  VarnInputObjectStream& operator>>(std::string& text);
  VarnInputObjectStream& operator>>(std::wstring& text);

 private:
  template <typename T>
  VarnInputObjectStream& number(T& value) {
    read(&value, sizeof value, 1);
    return *this;
  }
  unsigned readLength();
};

class VSUPT_EXPORT VarnOutputObjectStream : public VarnObjectStream {
 public:
  ~VarnOutputObjectStream() override;

  // Takes elementSize * count bytes from `data` and returns how many it took.
  virtual unsigned write(const void* data, unsigned elementSize, unsigned count) = 0;

  VarnOutputObjectStream& operator<<(char value) { return number(value); }
  VarnOutputObjectStream& operator<<(unsigned char value) { return number(value); }
  VarnOutputObjectStream& operator<<(short value) { return number(value); }
  VarnOutputObjectStream& operator<<(unsigned short value) { return number(value); }
  VarnOutputObjectStream& operator<<(int value) { return number(value); }
  VarnOutputObjectStream& operator<<(unsigned int value) { return number(value); }
  VarnOutputObjectStream& operator<<(float value) { return number(value); }
  VarnOutputObjectStream& operator<<(double value) { return number(value); }
  // The low 32 bits.
  VarnOutputObjectStream& operator<<(long value) { return *this << static_cast<int>(value); }
  VarnOutputObjectStream& operator<<(unsigned long value) {
    return *this << static_cast<unsigned int>(value);
  }

  // A 32-bit length, in characters, and the characters (wide: of 4 bytes) without a terminator;
  // nothing follows a length of 0. A null pointer has the length 0. A text of 4 GiB or more is not
  // written at all.
  VarnOutputObjectStream& operator<<(const char* text);
  VarnOutputObjectStream& operator<<(const std::string& text);
  VarnOutputObjectStream& operator<<(const std::wstring& text);

 private:
  template <typename T>
  VarnOutputObjectStream& number(T value) {
    write(&value, sizeof value, 1);
    return *this;
  }
  VarnOutputObjectStream& characters(const void* data, unsigned size, std::size_t count);
};

}  // namespace VarnSupport

#endif
