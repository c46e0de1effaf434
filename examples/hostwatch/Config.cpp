#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "hostwatch.h"

using namespace VarnSupport;
using namespace std::chrono_literals;
namespace fs = std::filesystem;

namespace hostwatch {

namespace {

void checkVersion(VarnSettings& settings) {
  try {
    const std::string own = HOSTWATCH_VERSION;
    const auto ranges = VarnVersion::createRangeVector(settings.text("requires", own));
    if (std::none_of(ranges.begin(), ranges.end(),
                     [&](const auto& range) { return VarnVersionRange()(range, own); }))
      settings.fault("requires", "excludes this version, " HOSTWATCH_VERSION);
  } catch (const VarnException& error) {
    settings.fault("requires", error.getText());
  }
}

VarnSmartPointer<Probe> makeProbe(const std::string& className) {
  const auto object = VarnObjectFactory::getGlobalInstance()->construct(className);
  return dynamic_cast<Probe*>(object.operator->());
}

void readProbes(VarnSettings& settings, Config& config) {
  const std::vector<std::string> classes = settings.texts("probe", 1);
  for (auto name = classes.begin(); name != classes.end(); ++name) {
    const auto index = static_cast<std::size_t>(name - classes.begin());
    config.probes.push_back(makeProbe(*name));
    if (config.probes.back() == nullptr)
      settings.fault("probe", "there is no probe " + *name, index);
    if (std::count(classes.begin(), name, *name) > 0)
      settings.fault("probe", *name + " is there already", index);
  }
}

// Of all probes that there are: who leaves one out for a while need not leave out its settings.
void readSettingsOfProbes(VarnSettings& settings, Config& config) {
  for (const auto& className : VarnObjectFactory::getGlobalInstance()->getRegisteredClasses()) {
    const auto probe = makeProbe(className);
    if (probe == nullptr)
      continue;
    if (const std::string limit = "limit." + probe->name; settings.has(limit))
      config.limits[probe->name] = settings.real(limit);
    for (const std::string& key : settings.keys(probe->name + '.'))
      settings.text(key);
  }
}

void checkHost(VarnSettings& settings, const Config& config) {
  const std::string folder = (fs::path("/") / config.logFile).parent_path().string();
  if (!config.logFile.empty() && access(folder.c_str(), W_OK | X_OK) != 0)
    settings.fault("log", "cannot write a log to " + folder);
  if (!config.alertCommand.empty() && access(config.alertCommand.front().c_str(), X_OK) != 0)
    settings.fault("alert.command", "cannot run " + config.alertCommand.front());
}

}  // namespace

Config::Config(VarnSettings& settings, bool isForService) {
  std::ifstream("/proc/sys/kernel/hostname") >> host;
  settings.define("hostname", host);
  checkVersion(settings);
  title = settings.text("title", "");
  interval = std::chrono::seconds(settings.number("interval", 60, {1, 86400}));
  logLevel = settings.number("log.level", 1, {-1, 9});
  logFile = settings.text("log", "");
  pidFile = settings.text("pid.file", "");
  // Split before <name> and its like are replaced, so that no value becomes several arguments.
  VarnParseCommandLine(settings.text("alert.command", "", {"name", "value", "limit"}),
                       alertCommand);
  alertTimeout = settings.duration("alert.timeout", 30s, {1s, 1h});
  readProbes(settings, *this);
  readSettingsOfProbes(settings, *this);
  if (isForService)
    checkHost(settings, *this);
  for (const auto& [name, values] : settings.found()) {
    for (const std::string& value : values)
      all.addProperty(name, value);
  }
  all.setProperty("hostname", host);
}

}  // namespace hostwatch
