// hostwatch: watches one host, once or as a service.
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <list>

#include "hostwatch.h"

using namespace VarnSupport;
using namespace hostwatch;
namespace fs = std::filesystem;

namespace {

enum tExit { ALL_IS_WELL = 0, NOT_WELL = 1, WRONG_USE = 2 };

void declare(VarnOptionTable& options) {
  options.value("-c, --config=FILE", "read the configuration from FILE")
      .flag("-o, --once", "print one sample of every probe; exit with 1 if one is over its limit")
      .flag("--json", "with --once: as JSON")
      .flag("--check", "say all that is wrong with the configuration")
      .flag("-d, --daemon", "run in the background, logging to a file")
      .value("-i, --interval=N", "seconds between two samples")
      .value("-l, --log=FILE", "log to FILE")
      .value("-L, --log-level=N", "-1 (off) to 9 (tracing); 1 crossings of limits, 5 every sample")
      .value("-P, --pid-file=FILE", "run only while no other hostwatch has FILE")
      .values("-p, --plugin=NAME", "load probes from libNAME.so, or from NAME if it is a path")
      .flag("--list", "print the known probes")
      .flag("-v, --version", "print the version")
      .note(
          "Without --once and --daemon it runs in the foreground until SIGTERM or SIGINT. SIGHUP "
          "has it read its configuration and reopen its log, SIGQUIT log what its threads do.");
}

// What the command line says in place of the configuration.
Properties settingsOf(const VarnOptionTable& options) {
  Properties settings = options.values();
  for (const auto& [name, values] : settings.getProperties()) {
    if (std::count(values.begin(), values.end(), "") > 0)
      throw VarnOptionError("--" + name + " needs a value");
  }
  if (options.isGiven("json") && !options.isGiven("once"))
    throw VarnOptionError("--json needs --once");
  // These count from the folder of the starter, all paths of the configuration from "/".
  for (const std::string file : {"config", "log", "pid-file"}) {
    if (options.isGiven(file))
      settings.setProperty(file, fs::absolute(options.text(file)).string());
  }
  return settings;
}

// The loader's own search when no such plug-in is installed.
std::string pluginFile(const std::string& name) {
  const std::string file = "lib" + name + ".so";
  const std::string installed = installedFile(file, HOSTWATCH_PLUGINS "/" + file);
  return fs::exists(installed) ? installed : file;
}

int listProbes(const std::vector<std::string>& builtIn) {
  std::printf("%s\n  %s\n", message("list.title").c_str(), message("list.builtin").c_str());
  const auto all = VarnObjectFactory::getGlobalInstance()->getRegisteredClasses();
  for (const std::string& name : builtIn)
    std::printf("    %s\n", name.c_str());
  if (all.size() > builtIn.size())
    std::printf("  %s\n", message("list.plugins").c_str());
  for (const std::string& name : all) {
    if (std::count(builtIn.begin(), builtIn.end(), name) == 0)
      std::printf("    %s\n", name.c_str());
  }
  return ALL_IS_WELL;
}

// Tells of what shows only when the probes are used, too.
int check(const Config& config, VarnSettings& settings) {
  for (std::size_t i = 0; i < config.probes.size(); ++i) {
    if (const Sample sample(*config.probes[i], config); !sample.error.empty())
      settings.fault("probe", sample.error, i);
  }
  settings.finish();
  return ALL_IS_WELL;
}

int reportOnce(const Config& config, bool asJson) {
  std::vector<Sample> samples;
  for (const auto& probe : config.probes)
    samples.emplace_back(*probe, config);
  if (asJson)
    printJson(samples, config.host);
  else
    printTable(samples, config.title);
  const auto isOver = [](const Sample& sample) { return sample.isOver(); };
  return std::any_of(samples.begin(), samples.end(), isOver) ? NOT_WELL : ALL_IS_WELL;
}

int run(int argc, char** argv) {
  VarnOptionTable options("hostwatch", HOSTWATCH_VERSION,
                          "Watches the values of this host against limits.");
  declare(options);
  if (const std::optional<int> code = options.parse(argc, argv))
    return *code;
  const Properties given = settingsOf(options);
  if (options.isGiven("daemon"))
    close_range(STDERR_FILENO + 1, ~0U, 0);  // what the starter has left open, and perhaps locked
  const auto builtIn = VarnObjectFactory::getGlobalInstance()->getRegisteredClasses();
  std::list<VarnLibrary> plugins;
  for (const std::string& name : options.texts("plugin"))
    plugins.emplace_back(name.find('/') != name.npos ? name : pluginFile(name), true);
  checkMessages();
  if (options.isGiven("list"))
    return listProbes(builtIn);
  fs::current_path("/");  // where a daemon works: settings mean the same without one
  const std::string file =
      given.getProperty("config", installedFile("hostwatch.conf", HOSTWATCH_ETC "/hostwatch.conf"));
  const bool once = options.isGiven("once");
  if (once || options.isGiven("check")) {
    VarnSettings settings(file, given);
    const Config config(settings, !once);
    settings.finish();
    return once ? reportOnce(config, options.isGiven("json")) : check(config, settings);
  }
  VarnReloaded<Config> config(file, given);
  if (options.isGiven("daemon") && config.get()->logFile.empty())
    throw VarnOptionError("--daemon needs --log, or log= in the configuration");
  return runService(config, options.isGiven("daemon")) ? ALL_IS_WELL : NOT_WELL;
}

void tell(const std::string& fault) { std::fprintf(stderr, "hostwatch: %s\n", fault.c_str()); }

}  // namespace

int main(int argc, char** argv) {
  try {
    const int result = run(argc, argv);
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0)
      throw VarnException("cannot write to standard output", 0);
    return result;
  } catch (const VarnSettingsError& error) {
    for (const std::string& fault : error.faults())
      tell(fault);
  } catch (...) {
    tell(VarnWhat());
  }
  return WRONG_USE;
}
