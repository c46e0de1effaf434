#include "Settings.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>

using namespace VarnSupport;

namespace hostwatch {

namespace {

[[noreturn]] void fail(const std::string& file, const std::string& text) {
  throw VarnException(file + ": " + text, 0);
}

bool toNumber(const std::string& text, double& number) {
  char* end = nullptr;
  number = std::strtod(text.c_str(), &end);
  return !text.empty() && *end == '\0';
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

}  // namespace

Settings::Settings(const std::string& file) : m_sFile(file) {
  if (!m_oProperties.loadPropertiesImpl(file, '='))
    fail(file, "cannot be read");
  char host[256] = "";
  gethostname(host, sizeof host - 1);
  m_oProperties.setProperty("hostname", host);
  check();
}

void Settings::set(const std::string& name, const std::string& value) {
  m_oProperties.setProperty(name, value);
  check();
}

std::string Settings::text(const std::string& name) const {
  const std::string none;
  return VarnExpandString(m_oProperties.getProperty(name, none), m_oProperties);
}

std::optional<double> Settings::limitOf(const std::string& probe) const {
  double limit = 0;
  if (!toNumber(text("limit." + probe), limit))
    return std::nullopt;
  return limit;
}

long Settings::number(const std::string& name, long preset, long lowest, long highest) const {
  std::string value;
  if (!m_oProperties.getPropertyValue(name, value))
    return preset;
  double number = 0;
  if (!toNumber(value, number) || number != static_cast<double>(static_cast<long>(number)) ||
      number < static_cast<double>(lowest) || number > static_cast<double>(highest))
    fail(m_sFile, name + "=" + value + " is not a number from " + std::to_string(lowest) + " to " +
                      std::to_string(highest));
  return static_cast<long>(number);
}

void Settings::check() const {
  if (probes().empty())
    fail(m_sFile, "names no probe");
  intervalSeconds();
  logLevel();
  for (const auto& [name, values] : m_oProperties.getProperties()) {
    std::vector<std::string> path;
    checkReferences(name, path);
    double limit = 0;
    if (name.rfind("limit.", 0) == 0 && !toNumber(text(name), limit))
      fail(m_sFile, name + "=" + values.front() + " is not a number");
  }
  std::string required;
  if (!m_oProperties.getPropertyValue("requires", required))
    return;
  const auto ranges = VarnVersion::createRangeVector(required);
  const VarnVersion version(HOSTWATCH_VERSION);
  if (std::none_of(ranges.begin(), ranges.end(),
                   [&](const auto& range) { return VarnVersionRange()(range, version); }))
    fail(m_sFile, "requires=" + required + " excludes this version, " HOSTWATCH_VERSION);
}

// Expanding a text that refers to itself would never end.
void Settings::checkReferences(const std::string& name, std::vector<std::string>& path) const {
  if (std::find(path.begin(), path.end(), name) != path.end())
    fail(m_sFile, name + " refers to itself");
  std::string value;
  const char* const environment = std::getenv(name.c_str());
  if (!m_oProperties.getPropertyValue(name, value) && environment != nullptr)
    value = environment;
  path.push_back(name);
  for (const std::string& reference : referencesIn(value))
    checkReferences(reference, path);
  path.pop_back();
}

std::string installedFile(const std::string& besideProgram, const std::string& inPrefix) {
  namespace fs = std::filesystem;
  const fs::path folder = fs::read_symlink("/proc/self/exe").parent_path();
  const fs::path beside = folder / besideProgram;
  return fs::exists(beside) ? beside.string() : (folder.parent_path() / inPrefix).string();
}

}  // namespace hostwatch
