// What hostwatch says.
#include <unistd.h>

#include <algorithm>
#include <array>
#include <clocale>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <locale>

#include "hostwatch.h"

using namespace VarnSupport;

namespace hostwatch {

namespace {

// For the environment's locale of messages alone, as all its locales together may have no name that
// a file could have, or else for none in particular.
VarnMessageSet loadMessages() {
  const std::string base = installedFile("messages", "share/hostwatch") + "/hostwatch";
  try {
    const char* const name = std::setlocale(LC_MESSAGES, "");
    return VarnMessageSet(base, std::locale(name != nullptr ? name : "C"));
  } catch (...) {
    return VarnMessageSet(base, std::locale::classic());
  }
}

constexpr int kBarWidth = 20;

using Row = std::array<std::string, 4>;  // probe, value, limit and bar

// How full a bar is: against the limit, or else against a hundred.
std::string barOf(const Sample& sample) {
  const double full = sample.limit.value_or(100);
  const double share = full > 0 ? std::clamp(sample.value / full, 0.0, 1.0) : 1;
  const auto filled = static_cast<std::size_t>(share * kBarWidth + 0.5);
  return "[" + std::string(filled, '#') + std::string(kBarWidth - filled, '-') + "]";
}

std::string coloured(const std::string& text, bool isBad) {
  const char* const refused = std::getenv("NO_COLOR");
  const bool isPlain = isatty(STDOUT_FILENO) == 0 || (refused != nullptr && *refused != '\0');
  return isPlain ? text : (isBad ? "\033[31m" : "\033[32m") + text + "\033[0m";
}

Row rowOf(const Sample& sample) {
  const bool hasFailed = !sample.error.empty();
  const std::string none = message("none");
  const std::string bar = hasFailed
                              ? message("failed", {{"name", sample.name}, {"reason", sample.error}})
                              : barOf(sample) + (sample.isOver() ? ' ' + message("over") : "");
  return {sample.name, hasFailed ? none : format(sample.value) + sample.unit,
          sample.limit ? format(*sample.limit) + sample.unit : none,
          coloured(bar, sample.isOver())};
}

std::string quoted(const std::string& text) {
  std::string result = "\"";
  for (const char character : text) {
    char escaped[8] = {character};
    if (character == '"' || character == '\\' || static_cast<unsigned char>(character) < ' ')
      std::snprintf(escaped, sizeof escaped, "\\u%04x", static_cast<unsigned>(character));
    result += escaped;
  }
  return result + '"';
}

}  // namespace

std::string replaced(const std::string& text, const Values& values) {
  return VarnReplaceReferences(text, [&](const std::string& name) -> std::optional<std::string> {
    const auto value = values.find(name);
    return value != values.end() ? std::optional(value->second) : std::nullopt;
  });
}

std::string message(const std::string& key, const Values& values) {
  static const VarnMessageSet messages = loadMessages();
  return replaced(messages.getMessages().getProperty(key), values);
}

void checkMessages() {
  for (const char* const key :
       {"column.probe", "column.value", "column.limit", "over", "none", "failed", "crossed", "back",
        "sampled", "alert", "started", "rejected", "broken", "stopped", "list.title",
        "list.builtin", "list.plugins"})
    message(key);
}

std::string installedFile(const std::string& besideProgram, const std::string& inPrefix) {
  namespace fs = std::filesystem;
  const fs::path folder = fs::read_symlink("/proc/self/exe").parent_path();
  const fs::path beside = folder / besideProgram;
  return fs::exists(beside) ? beside.string() : (folder.parent_path() / inPrefix).string();
}

Sample::Sample(const Probe& probe, const Config& config) : name(probe.name), unit(probe.unit) {
  if (const auto found = config.limits.find(name); found != config.limits.end())
    limit = found->second;
  try {
    value = probe.measure(config.all);
    if (!std::isfinite(value))
      error = "no number";
  } catch (const VarnException& failure) {
    error = failure.getText();
  } catch (const std::exception& failure) {
    error = failure.what();
  }
}

std::string format(double value) {
  char text[64];
  std::snprintf(text, sizeof text, std::abs(value) < 10 ? "%.2f" : "%.1f", value);
  return text;
}

void printTable(const std::vector<Sample>& samples, const std::string& title) {
  std::vector<Row> rows{
      {message("column.probe"), message("column.value"), message("column.limit")}};
  for (const Sample& sample : samples)
    rows.push_back(rowOf(sample));
  std::array<int, 3> widths{};
  for (const Row& row : rows) {
    for (std::size_t column = 0; column < widths.size(); ++column)
      widths[column] = std::max(widths[column], static_cast<int>(row[column].size()));
  }
  if (!title.empty())
    std::printf("%s\n", title.c_str());
  for (const auto& [probe, value, limit, bar] : rows)
    std::printf("%-*s  %*s  %*s%s%s\n", widths[0], probe.c_str(), widths[1], value.c_str(),
                widths[2], limit.c_str(), bar.empty() ? "" : "  ", bar.c_str());
}

void printJson(const std::vector<Sample>& samples, const std::string& host) {
  std::printf("{\"host\": %s, \"samples\": [", quoted(host).c_str());
  for (const Sample& sample : samples) {
    std::printf("%s{\"name\": %s, \"unit\": %s", &sample == &samples.front() ? "" : ", ",
                quoted(sample.name).c_str(), quoted(sample.unit).c_str());
    if (sample.error.empty())
      std::printf(", \"value\": %.6g", sample.value);
    else
      std::printf(", \"error\": %s", quoted(sample.error).c_str());
    if (sample.limit)
      std::printf(", \"limit\": %.6g", *sample.limit);
    std::printf(", \"over\": %s}", sample.isOver() ? "true" : "false");
  }
  std::printf("]}\n");
}

}  // namespace hostwatch
