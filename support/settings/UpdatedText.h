// A property file with other values, as a text.
#ifndef SUPPORT_SETTINGS_UPDATEDTEXT_H
#define SUPPORT_SETTINGS_UPDATEDTEXT_H

#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace VarnSupport {

using PropertyValues = std::map<std::string, std::vector<std::string>>;

// Throws VarnException for a key or value that does not come back from a line as it is.
void checkThatLinesHold(const PropertyValues& values);

// `text` with these values for these keys.
std::string updatedText(std::string_view text, const PropertyValues& values);

}  // namespace VarnSupport

#endif
