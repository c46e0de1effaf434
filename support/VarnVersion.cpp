// A text is fields between dots: numbers, and at the end perhaps a suffix. Only the first character
// of a field is looked at to tell the two apart, so that "1.2b" has the components 1 and 2.
#include "VarnSupport/VarnVersion.h"

#include <algorithm>
#include <cassert>
#include <charconv>
#include <limits>
#include <string_view>
#include <system_error>

#include "VarnSupport/VarnStringUtilities.h"
#include "runtime/Cancellation.h"

namespace VarnSupport {

namespace {

enum tOrder : unsigned int { EQUAL = 0, LOWER = 1, HIGHER = 2 };

bool isNumeric(std::string_view field) {
  return !field.empty() && field.front() >= '0' && field.front() <= '9';
}

// What no component can hold becomes the largest one. Requires: the field is numeric.
std::int32_t valueOf(std::string_view field) {
  assert(isNumeric(field));
  std::int32_t value = 0;
  const auto result = std::from_chars(field.data(), field.data() + field.size(), value);
  return result.ec == std::errc() ? value : std::numeric_limits<std::int32_t>::max();
}

using Texts = std::pair<std::string, std::string>;

// The texts of an entry's low and high version.
Texts endsOf(const std::string& entry, const std::string& specification) {
  assert(!entry.empty());  // tokens never are
  if (entry.front() != '{')
    return {entry, std::string()};
  const std::size_t separator = entry.find('-');
  if (separator == std::string::npos || separator < 2 || separator + 2 >= entry.size()) {
    throw VarnException(
        "VarnVersion::createRangeVector: Invalid range specification: " + specification, 0);
  }
  return {entry.substr(1, separator - 1),
          entry.substr(separator + 1, entry.size() - separator - 2)};
}

}  // namespace

VarnVersion::VarnVersion() = default;

VarnVersion::VarnVersion(int*) {}

VarnVersion::VarnVersion(const std::string& text) { parse(text); }

VarnVersion::~VarnVersion() = default;

VarnVersion& VarnVersion::operator=(const std::string& text) {
  const CancellationGuard closed;
  m_vComponents.clear();
  m_sSuffix.clear();
  parse(text);
  return *this;
}

// A field that begins with a blank, or has no digit in front and is not the last, is an error.
// Components before the fault stay.
void VarnVersion::parse(const std::string& text) {
  const CancellationGuard closed;
  if (text.empty())
    return;
  std::string_view rest = text;
  bool isLast = false;
  while (!isLast) {
    const std::size_t length = std::min(rest.find('.'), rest.size());
    const std::string_view field = rest.substr(0, length);
    isLast = length == rest.size();
    rest.remove_prefix(isLast ? length : length + 1);
    if (isNumeric(field))
      m_vComponents.push_back(valueOf(field));
    else if (isLast && !field.starts_with(' '))
      m_sSuffix = field;
    else
      throw VarnException("VarnVersion::parse: invalid version string: " + text, 0);
  }
}

// A suffix has its dot also when there is no number in front of it.
std::string VarnVersion::toString() const {
  const CancellationGuard closed;
  std::string text;
  for (const std::int32_t component : m_vComponents) {
    if (!text.empty())
      text += '.';
    text += std::to_string(component);
  }
  if (!m_sSuffix.empty())
    text.append(1, '.').append(m_sSuffix);
  return text;
}

bool VarnVersion::isInit() const { return !m_vComponents.empty() || !m_sSuffix.empty(); }

// Components that one of the two does not have count as 0. The suffix decides last, byte by byte.
unsigned int VarnVersion::compare(const VarnVersion& a, const VarnVersion& b) {
  const std::size_t length = std::max(a.m_vComponents.size(), b.m_vComponents.size());
  for (std::size_t i = 0; i < length; ++i) {
    const std::int32_t left = i < a.m_vComponents.size() ? a.m_vComponents[i] : 0;
    const std::int32_t right = i < b.m_vComponents.size() ? b.m_vComponents[i] : 0;
    if (left != right)
      return left < right ? LOWER : HIGHER;
  }
  const int suffixes = a.m_sSuffix.compare(b.m_sSuffix);
  if (suffixes == 0)
    return EQUAL;
  return suffixes < 0 ? LOWER : HIGHER;
}

std::vector<std::pair<VarnVersion, VarnVersion>> VarnVersion::createRangeVector(
    const std::string& specification) {
  const CancellationGuard closed;
  std::vector<std::string> entries;
  VarnTokenizer(specification, ",", entries);
  // All entries are split before any version is made: of two faults the split is reported.
  std::vector<Texts> texts;
  texts.reserve(entries.size());
  for (const std::string& entry : entries)
    texts.push_back(endsOf(entry, specification));
  std::vector<std::pair<VarnVersion, VarnVersion>> ranges;
  for (const auto& [low, high] : texts) {
    const VarnVersion highVersion(high);
    ranges.emplace_back(VarnVersion(low), highVersion);
  }
  return ranges;
}

bool VarnVersionRange::operator()(const std::pair<VarnVersion, VarnVersion>& range,
                                  const VarnVersion& version) const {
  const unsigned int low = VarnVersion::compare(range.first, version);
  if (!range.second.isInit())
    return low == EQUAL;
  return low != HIGHER && VarnVersion::compare(version, range.second) == LOWER;
}

}  // namespace VarnSupport
