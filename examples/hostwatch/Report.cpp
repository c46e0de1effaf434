#include "Report.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

using namespace VarnSupport;

namespace hostwatch {

namespace {

constexpr int kBarWidth = 20;

// How full a bar is: against the limit, or else against a hundred.
std::string barOf(const Sample& sample, const Settings& settings) {
  const double full = settings.limitOf(sample.name).value_or(100);
  const double share = full > 0 ? std::clamp(sample.value / full, 0.0, 1.0) : 1;
  const auto filled = static_cast<std::size_t>(share * kBarWidth + 0.5);
  return "[" + std::string(filled, '#') + std::string(kBarWidth - filled, '-') + "]";
}

bool isColoured() {
  const char* const refused = std::getenv("NO_COLOR");
  return isatty(STDOUT_FILENO) != 0 && (refused == nullptr || *refused == '\0');
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

void printGroup(const std::string& title, const std::vector<std::string>& names) {
  std::printf("  %s\n", title.c_str());
  for (const std::string& name : names)
    std::printf("    %s\n", name.c_str());
}

}  // namespace

void printTable(const std::vector<SamplePointer>& samples, const Settings& settings,
                const Texts& texts) {
  struct Row {
    std::string name, value, limit, bar;
    bool over = false;
  };
  std::vector<Row> rows;
  rows.push_back(
      {texts.text("column.probe"), texts.text("column.value"), texts.text("column.limit"), ""});
  for (const SamplePointer& sample : samples) {
    const std::optional<double> limit = settings.limitOf(sample->name);
    Row row{sample->name, format(sample->value) + sample->unit,
            limit ? format(*limit) + sample->unit : texts.text("none"), barOf(*sample, settings),
            sample->isOver(settings)};
    if (!sample->error.empty()) {
      row.value = texts.text("none");
      row.bar = texts.text("failed", {{"name", sample->name}, {"reason", sample->error}});
    } else if (row.over) {
      row.bar += " " + texts.text("over");
    }
    rows.push_back(row);
  }
  std::size_t widths[3] = {};
  for (const Row& row : rows) {
    widths[0] = std::max(widths[0], row.name.size());
    widths[1] = std::max(widths[1], row.value.size());
    widths[2] = std::max(widths[2], row.limit.size());
  }
  const bool coloured = isColoured();
  const std::string title = settings.text("title");
  if (!title.empty())
    std::printf("%s\n", title.c_str());
  for (const Row& row : rows) {
    std::printf("%-*s  %*s  %*s", static_cast<int>(widths[0]), row.name.c_str(),
                static_cast<int>(widths[1]), row.value.c_str(), static_cast<int>(widths[2]),
                row.limit.c_str());
    if (!row.bar.empty()) {
      const char* const colour = row.over ? "\033[31m" : "\033[32m";
      std::printf("  %s%s%s", coloured ? colour : "", row.bar.c_str(), coloured ? "\033[0m" : "");
    }
    std::printf("\n");
  }
}

void printJson(const std::vector<SamplePointer>& samples, const Settings& settings) {
  std::printf("{\"host\": %s, \"samples\": [", quoted(settings.text("hostname")).c_str());
  for (const SamplePointer& sample : samples) {
    std::printf("%s{\"name\": %s, \"unit\": %s", sample == samples.front() ? "" : ", ",
                quoted(sample->name).c_str(), quoted(sample->unit).c_str());
    if (sample->error.empty())
      std::printf(", \"value\": %.6g", sample->value);
    else
      std::printf(", \"error\": %s", quoted(sample->error).c_str());
    if (const auto limit = settings.limitOf(sample->name))
      std::printf(", \"limit\": %.6g", *limit);
    std::printf(", \"over\": %s}", sample->isOver(settings) ? "true" : "false");
  }
  std::printf("]}\n");
}

void printProbes(const std::vector<std::string>& builtIn, const Texts& texts) {
  std::vector<std::string> others;
  for (const std::string& name : VarnObjectFactory::getGlobalInstance()->getRegisteredClasses()) {
    if (std::find(builtIn.begin(), builtIn.end(), name) == builtIn.end())
      others.push_back(name);
  }
  std::printf("%s\n", texts.text("list.title").c_str());
  printGroup(texts.text("list.builtin"), builtIn);
  if (!others.empty())
    printGroup(texts.text("list.plugins"), others);
}

}  // namespace hostwatch
