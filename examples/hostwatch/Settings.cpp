#include "Settings.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>

using namespace VarnSupport;

namespace hostwatch {

namespace {

bool toNumber(const std::string& text, double& number) {
  char* end = nullptr;
  number = std::strtod(text.c_str(), &end);
  return !text.empty() && *end == '\0';
}

template <typename Value>
bool contains(const std::vector<Value>& values, const Value& value) {
  return std::find(values.begin(), values.end(), value) != values.end();
}

// The names between '<' and '>'.
std::vector<std::string> referencesIn(const std::string& text) {
  std::vector<std::string> names;
  for (std::size_t begin = text.find('<'); begin != std::string::npos;) {
    const std::size_t end = text.find('>', begin);
    if (end == std::string::npos)
      break;
    names.push_back(text.substr(begin + 1, end - begin - 1));
    begin = text.find('<', end);
  }
  return names;
}

// The number of the line that begins with `setting`; 0 when there is none.
std::size_t lineOf(const std::string& setting, const std::vector<std::string>& lines) {
  const auto line = std::find_if(lines.begin(), lines.end(), [&](const std::string& candidate) {
    return candidate.rfind(setting, 0) == 0;
  });
  return line == lines.end() ? 0 : static_cast<std::size_t>(line - lines.begin()) + 1;
}

}  // namespace

Settings::Settings(const std::string& file) : m_sFile(file) {
  if (!m_oProperties.loadPropertiesImpl(file, '='))
    throw VarnException(file + ": cannot be read", 0);
  char host[256] = "";
  gethostname(host, sizeof host - 1);
  m_oProperties.setProperty("hostname", host);
}

void Settings::set(const std::string& name, const std::string& value) {
  m_oProperties.setProperty(name, value);
}

std::vector<std::string> Settings::faults() const {
  std::vector<std::string> lines;
  std::ifstream stream(m_sFile);
  for (std::string line; std::getline(stream, line);)
    lines.push_back(line);
  std::multimap<std::size_t, std::string> faults;
  for (std::size_t i = 0; i < lines.size(); ++i) {
    if (!lines[i].empty() && lines[i][0] != '#' && lines[i].find('=') == std::string::npos)
      faults.emplace(i + 1, "'" + lines[i] + "' is not NAME=VALUE");
  }
  const auto say = [&](const std::string& setting, const std::string& text) {
    faults.emplace(lineOf(setting, lines), text);
  };
  if (probes().empty())
    faults.emplace(0, m_sFile + " names no probe");
  const auto known = VarnObjectFactory::getGlobalInstance()->getRegisteredClasses();
  for (const std::string& probe : probes()) {
    if (!contains(known, probe))
      say("probe=" + probe, "there is no probe " + probe);
  }
  for (const Range& range : {kInterval, kLogLevel}) {
    if (number(range))
      continue;
    const std::string setting = std::string(range.name) + '=' + text(range.name);
    say(setting, setting + " is not a number from " + std::to_string(range.lowest) + " to " +
                     std::to_string(range.highest));
  }
  for (const auto& [name, values] : m_oProperties.getProperties()) {
    std::vector<std::string> path;
    if (refersToItself(name, path))
      say(name + '=', name + " refers to itself");
    else if (name.rfind("limit.", 0) == 0 && !limitOf(name.substr(6)))
      say(name + '=', name + '=' + values.front() + " is not a number");
  }
  if (const std::string fault = requirementFault(); !fault.empty())
    say("requires=", fault);
  std::vector<std::string> texts;
  for (const auto& [line, text] : faults)
    texts.push_back(line == 0 ? text : m_sFile + ':' + std::to_string(line) + ": " + text);
  return texts;
}

std::string Settings::text(const std::string& name) const {
  const std::string none;
  return VarnExpandString(m_oProperties.getProperty(name, none), m_oProperties);
}

std::optional<double> Settings::limitOf(const std::string& probe) const {
  double limit = 0;
  return toNumber(text("limit." + probe), limit) ? std::optional(limit) : std::nullopt;
}

std::optional<long> Settings::number(const Range& range) const {
  std::string value;
  if (!m_oProperties.getPropertyValue(range.name, value))
    return range.preset;
  char* end = nullptr;
  const long number = std::strtol(value.c_str(), &end, 10);
  if (value.empty() || *end != '\0' || number < range.lowest || number > range.highest)
    return std::nullopt;
  return number;
}

// Expanding a text that refers to itself would never end.
bool Settings::refersToItself(const std::string& name, std::vector<std::string>& path) const {
  if (contains(path, name))
    return true;
  std::string value;
  const char* const environment = std::getenv(name.c_str());
  if (!m_oProperties.getPropertyValue(name, value) && environment != nullptr)
    value = environment;
  path.push_back(name);
  const auto references = referencesIn(value);
  const bool refers = std::any_of(references.begin(), references.end(), [&](const auto& reference) {
    return refersToItself(reference, path);
  });
  path.pop_back();
  return refers;
}

std::string Settings::requirementFault() const {
  std::string required;
  if (!m_oProperties.getPropertyValue("requires", required))
    return "";
  try {
    const VarnVersion version(HOSTWATCH_VERSION);
    for (const auto& range : VarnVersion::createRangeVector(required)) {
      if (VarnVersionRange()(range, version))
        return "";
    }
    return "requires=" + required + " excludes this version, " HOSTWATCH_VERSION;
  } catch (const VarnException& error) {
    return error.getText();
  }
}

std::string installedFile(const std::string& besideProgram, const std::string& inPrefix) {
  namespace fs = std::filesystem;
  const fs::path folder = fs::read_symlink("/proc/self/exe").parent_path();
  const fs::path beside = folder / besideProgram;
  return fs::exists(beside) ? beside.string() : (folder.parent_path() / inPrefix).string();
}

}  // namespace hostwatch
