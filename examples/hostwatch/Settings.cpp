#include "Settings.h"

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <initializer_list>

using namespace VarnSupport;
namespace fs = std::filesystem;

namespace hostwatch {

namespace {

constexpr int kMostReferences = 1000;

bool toNumber(const std::string& text, double& number) {
  char* end = nullptr;
  number = std::strtod(text.c_str(), &end);
  return !text.empty() && *end == '\0' && std::isfinite(number);
}

template <typename Values>
bool contains(const Values& values, const std::string& value) {
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

bool isOneOf(const std::string& name, std::initializer_list<const char*> names) {
  return std::find(names.begin(), names.end(), name) != names.end();
}

}  // namespace

Settings::Settings(const std::string& file) : m_sFile(file) {
  std::error_code ignored;
  if (fs::exists(file, ignored) && !fs::is_regular_file(file, ignored))
    throw VarnException(file + ": is not a regular file", 0);
  if (!m_oProperties.loadPropertiesImpl(file, '='))
    throw VarnException(file + ": cannot be read", 0);
  std::ifstream stream(file);
  for (std::string line; std::getline(stream, line);) {
    if (!line.empty() && line.back() == '\r')
      line.pop_back();
    m_vLines.push_back(line);
  }
  char host[256] = "";
  gethostname(host, sizeof host - 1);
  m_oProperties.setProperty("hostname", host);
}

void Settings::set(const std::string& name, const std::string& value) {
  m_oProperties.setProperty(name, value);
  m_vOnCommandLine.insert(name);
}

std::vector<std::string> Settings::faults() const {
  std::vector<std::string> faults;
  if (probes().empty())
    faults.push_back(m_sFile + " names no probe");
  for (const std::string& name : m_vOnCommandLine) {
    if (const std::string fault = faultOf(name, text(name)); !fault.empty())
      faults.push_back(fault);
  }
  std::set<std::string> seen;
  for (std::size_t i = 0; i < m_vLines.size(); ++i) {
    const std::string& line = m_vLines[i];
    const std::size_t end = line.find('=');
    const std::string name = line.substr(0, end);
    std::string fault;
    if (line.empty() || line[0] == '#' || contains(m_vOnCommandLine, name))
      continue;
    if (end == std::string::npos)
      fault = "'" + line + "' is not NAME=VALUE";
    else if (!seen.insert(name == "probe" ? line : name).second)
      fault = "'" + line + "' is not the first of its kind";
    else
      fault = faultOf(name, line.substr(end + 1));
    if (!fault.empty())
      faults.push_back(m_sFile + ':' + std::to_string(i + 1) + ": " + fault);
  }
  return faults;
}

std::string Settings::faultOf(const std::string& name, const std::string& value) const {
  if (!expand(value))
    return name + " refers to itself";
  for (const std::string& reference : referencesIn(value)) {
    if (m_oProperties.getPropertyValues(reference).empty() &&
        std::getenv(reference.c_str()) == nullptr &&
        !(name == "alert.command" && isOneOf(reference, {"name", "value", "limit"})))
      return name + " refers to " + reference + ", which is not set";
  }
  if (name == "probe") {
    const std::string probe = expand(value).value();
    const auto known = VarnObjectFactory::getGlobalInstance()->getRegisteredClasses();
    return contains(known, probe) ? "" : "there is no probe " + probe;
  }
  for (const Range& range : {kInterval, kLogLevel}) {
    if (name == range.name && !number(range))
      return name + '=' + text(name) + " is not a number from " + std::to_string(range.lowest) +
             " to " + std::to_string(range.highest);
  }
  if (name == "requires")
    return requirementFault();
  if (!isSetting(name))
    return "there is no setting '" + name + "'";
  if (name.rfind("limit.", 0) == 0 && !limitOf(name.substr(6)))
    return name + '=' + value + " is not a number";
  return "";
}

// Besides those of hostwatch itself: limits, what a probe may read, and what others refer to.
bool Settings::isSetting(const std::string& name) const {
  if (isOneOf(name, {"title", "interval", "log.level", "log", "alert.command"}))
    return true;
  VarnObjectFactory& factory = *VarnObjectFactory::getGlobalInstance();
  for (const std::string& className : factory.getRegisteredClasses()) {
    const auto object = factory.construct(className);
    const auto* const probe = dynamic_cast<const Probe*>(object.operator->());
    if (probe != nullptr &&
        (name == "limit." + probe->name || name.rfind(probe->name + '.', 0) == 0))
      return true;
  }
  return std::any_of(m_vLines.begin(), m_vLines.end(),
                     [&](const std::string& line) { return contains(referencesIn(line), name); });
}

std::vector<std::string> Settings::serviceFaults() const {
  std::vector<std::string> faults;
  if (const fs::path log = logFile(); !log.empty()) {
    const std::string folder = log.parent_path().string();
    if (access(folder.c_str(), W_OK | X_OK) != 0)
      faults.push_back(faultAt("log", "cannot write a log to " + folder));
  }
  std::vector<std::string> command;
  VarnParseCommandLine(text("alert.command"), command);
  if (!command.empty() && access(command.front().c_str(), X_OK) != 0)
    faults.push_back(faultAt("alert.command", "cannot run " + command.front()));
  return faults;
}

std::string Settings::faultAt(const std::string& setting, const std::string& text) const {
  const auto line = std::find_if(m_vLines.begin(), m_vLines.end(), [&](const std::string& other) {
    return other == setting || other.rfind(setting + '=', 0) == 0;
  });
  if (line == m_vLines.end() || contains(m_vOnCommandLine, setting))
    return text;
  return m_sFile + ':' + std::to_string(line - m_vLines.begin() + 1) + ": " + text;
}

Properties Settings::expanded() const {
  Properties expanded;
  for (const auto& [name, values] : m_oProperties.getProperties()) {
    for (const std::string& value : values)
      expanded.addProperty(name, name == "alert.command" ? value : expand(value).value_or(value));
  }
  return expanded;
}

std::string Settings::text(const std::string& name) const {
  const std::string none;
  const std::string& value = m_oProperties.getProperty(name, none);
  return expand(value).value_or(value);
}

// The log puts its own extension in place of the one that is there, wherever that begins.
std::string Settings::logFile() const {
  fs::path file = text("log");
  if (!file.empty() && !file.has_extension())
    file += ".log";
  return file.empty() ? "" : fs::absolute(file).string();
}

std::optional<double> Settings::limitOf(const std::string& probe) const {
  double limit = 0;
  return toNumber(text("limit." + probe), limit) ? std::optional(limit) : std::nullopt;
}

std::optional<long> Settings::number(const Range& range) const {
  if (m_oProperties.getPropertyValues(range.name).empty())
    return range.preset;
  const std::string value = text(range.name);
  char* end = nullptr;
  const long number = std::strtol(value.c_str(), &end, 10);
  if (value.empty() || *end != '\0' || number < range.lowest || number > range.highest)
    return std::nullopt;
  return number;
}

// VarnExpandString() would never end where a setting refers to itself.
std::optional<std::string> Settings::expand(std::string text) const {
  for (int references = 0; references < kMostReferences; ++references) {
    const std::size_t begin = text.find('<');
    const std::size_t end = text.find('>', begin);
    if (end == std::string::npos)
      return text;
    const std::string name = text.substr(begin + 1, end - begin - 1);
    text.replace(begin, end - begin + 1,
                 m_oProperties.getProperty(name, VarnGetEnvironmentVariable(name)));
  }
  return std::nullopt;
}

std::string Settings::requirementFault() const {
  const std::string required = text("requires");
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
  const fs::path folder = fs::read_symlink("/proc/self/exe").parent_path();
  const fs::path beside = folder / besideProgram;
  return fs::exists(beside) ? beside.string() : (folder.parent_path() / inPrefix).string();
}

}  // namespace hostwatch
