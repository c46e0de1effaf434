// Dotted version numbers: their text, their order, and lists of version ranges.
//
// A version is any count of numeric components and perhaps a text that closes it: "1.2.beta". Texts
// that are no version or no range list are reported with VarnException (code 0). Different objects
// may be used from different threads; one object needs the callers' own lock.
#ifndef VARNSUPPORT_VARNVERSION_H
#define VARNSUPPORT_VARNVERSION_H

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "VarnSupport/VarnException.h"
#include "VarnSupport/VarnExport.h"

namespace VarnSupport {

class VSUPT_EXPORT VarnVersion {
 public:
  // The empty version. The pointer is not looked at; callers rely on it.
  VarnVersion();
  VarnVersion(int*);
  // What parse() makes of the text.
  VarnVersion(const std::string& text);
  VarnVersion(const VarnVersion&) = default;
  VarnVersion& operator=(const VarnVersion&) = default;
  virtual ~VarnVersion();

  VarnVersion& operator=(const std::string& text);

  // Appends the numeric fields of `text` to the components, and takes its last field, if that is
  // not numeric, as the suffix; the empty text changes nothing. Of a field that begins with a digit
  // only the leading digits count ("3a" is 3); beyond 32 bits it is the largest value. Throws for
  // any other field that is not the last, and for a last one that begins with a blank; the fields
  // before it are then appended.
  void parse(const std::string& text);

  // With a dot between all; what has a suffix alone begins with one: ".beta".
  std::string toString() const;
  // True when there is a component or a suffix.
  bool isInit() const;

  // 0 when equal, 1 when `a` is lower, 2 when it is higher. Components compare as numbers, zeros at
  // the end do not count, and suffixes compare as bytes: "1.2.0" equals "1.2", which is lower than
  // "1.2.beta".
  static unsigned int compare(const VarnVersion& a, const VarnVersion& b);

  // Reads "{low-high}" and single versions, with commas between and no blanks; empty entries are
  // left out. The high version of a single one is empty. Whatever closes an interval is not looked
  // at. Throws for an interval without both ends and for what parse() refuses.
  static std::vector<std::pair<VarnVersion, VarnVersion>> createRangeVector(
      const std::string& specification);

 private:
  std::vector<std::int32_t> m_vComponents;
  std::string m_sSuffix;
};

// Whether a version lies in a range: from the low version to below the high one, or, when the high
// one is empty, equal to the low one.
class VSUPT_EXPORT VarnVersionRange {
 public:
  bool operator()(const std::pair<VarnVersion, VarnVersion>& range,
                  const VarnVersion& version) const;
};

}  // namespace VarnSupport

#endif
