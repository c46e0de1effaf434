// Typed values in texts, and texts that are fit for a line of a report.
#ifndef SUPPORT_SETTINGS_VALUETEXT_H
#define SUPPORT_SETTINGS_VALUETEXT_H

#include <optional>
#include <string>
#include <string_view>

namespace VarnSupport {

// Nothing for a text that is no value of its kind, or one that its type cannot hold.
std::optional<long long> wholeNumberIn(std::string_view text);
std::optional<double> realNumberIn(std::string_view text);
std::optional<bool> flagIn(std::string_view text);
std::optional<long long> millisecondsIn(std::string_view text);
std::optional<long long> bytesIn(std::string_view text);

// What reads back as the same value.
std::string durationText(long long milliseconds);
std::string bytesText(long long bytes);

// Between quotes, escaped, and cut when it is long.
std::string shownValue(std::string_view text);

}  // namespace VarnSupport

#endif
