// hostwatch: watches one host, once or as a service.
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "HostService.h"
#include "Report.h"

using namespace VarnSupport;
using namespace hostwatch;

namespace {

enum tExit { ALL_IS_WELL = 0, NOT_WELL = 1, WRONG_USE = 2 };

const char* const kUsage =
    "usage: hostwatch [OPTION...]\n"
    "\n"
    "  -c, --config=FILE    read the configuration from FILE\n"
    "  -o, --once           print one sample of every probe; exit with 1 if one is over its limit\n"
    "      --json           with --once: as JSON\n"
    "      --check          say all that is wrong with the configuration\n"
    "  -d, --daemon         run in the background, logging to a file\n"
    "  -i, --interval=N     seconds between two samples\n"
    "  -l, --log=FILE       log to FILE; a number and .log are put in place of its extension\n"
    "  -L, --log-level=N    -1 (off) to 9 (tracing); 1 crossings of limits, 5 every sample\n"
    "  -p, --plugin=NAME    load probes from libNAME.so, or from NAME if it is a path\n"
    "      --list           print the known probes\n"
    "  -h, --help           print this\n"
    "  -v, --version        print the version\n"
    "\n"
    "Without --once and --daemon it runs in the foreground until SIGTERM or SIGINT.\n";

const char* const kOptionsWithValue[] = {"config", "interval", "log", "log-level", "plugin"};

// The arguments with "--name value" written as "--name=value".
VarnProgramOptions parse(int argc, char** argv) {
  std::vector<std::string> arguments(argv, argv + argc);
  for (std::size_t i = 1; i + 1 < arguments.size(); ++i) {
    for (const std::string name : kOptionsWithValue) {
      if (arguments[i] == "--" + name) {
        arguments[i] += '=' + arguments[i + 1];
        arguments.erase(arguments.begin() + static_cast<std::ptrdiff_t>(i) + 1);
      }
    }
  }
  std::vector<char*> pointers;
  for (std::string& argument : arguments)
    pointers.push_back(argument.data());
  return VarnProgramOptions(
      static_cast<int>(pointers.size()), pointers.data(), "c:odi:l:L:p:hv",
      ":config:once:json:check:daemon:interval:log:log-level:plugin:list:help:version:", false);
}

// The command line, under the long names of its options.
class CommandLine {
 public:
  CommandLine(int argc, char** argv) : m_oOptions(parse(argc, argv)) {
    const char* const names[][2] = {{"c", "config"},   {"o", "once"}, {"d", "daemon"},
                                    {"i", "interval"}, {"l", "log"},  {"L", "log-level"},
                                    {"p", "plugin"},   {"h", "help"}, {"v", "version"}};
    for (const auto& [letter, name] : names) {
      for (const std::string& given : values(letter))
        m_oOptions.getOptions().addProperty(name, given);
    }
    for (const char* const name : kOptionsWithValue) {
      if (has(name) && value(name).empty())
        throw VarnException("--" + std::string(name) + " needs a value", 0);
    }
    if (has("json") && !has("once"))
      throw VarnException("--json needs --once", 0);
    std::string argument;
    if (m_oOptions.nextArgument(argument))
      throw VarnException("there is no use for '" + argument + "'", 0);
  }

  bool has(const std::string& name) const { return !values(name).empty(); }
  // The last one given counts.
  std::string value(const std::string& name) const { return has(name) ? values(name).back() : ""; }
  std::vector<std::string> values(const std::string& name) const {
    return m_oOptions.getOptions().getPropertyValues(name);
  }

 private:
  VarnProgramOptions m_oOptions;
};

// The loader's own search when no such plug-in is installed.
std::string pluginFile(const std::string& name) {
  if (name.find('/') != std::string::npos)
    return name;
  const std::string file = "lib" + name + ".so";
  const std::string installed = installedFile(file, HOSTWATCH_PLUGINS "/" + file);
  return std::filesystem::exists(installed) ? installed : file;
}

Settings loadSettings(const CommandLine& commandLine) {
  Settings settings(commandLine.has("config")
                        ? commandLine.value("config")
                        : installedFile("hostwatch.conf", HOSTWATCH_ETC "/hostwatch.conf"));
  if (commandLine.has("interval"))
    settings.set("interval", commandLine.value("interval"));
  if (commandLine.has("log-level"))
    settings.set("log.level", commandLine.value("log-level"));
  if (commandLine.has("log"))
    settings.set("log", std::filesystem::absolute(commandLine.value("log")).string());
  return settings;
}

int reportOnce(const CommandLine& commandLine, const Settings& settings, const Texts& texts) {
  std::vector<SamplePointer> samples;
  bool over = false;
  for (const auto& probe : makeProbes(settings)) {
    samples.push_back(takeSample(*probe, settings));
    over = over || samples.back()->isOver(settings);
  }
  if (commandLine.has("json"))
    printJson(samples, settings);
  else
    printTable(samples, settings, texts);
  return over ? NOT_WELL : ALL_IS_WELL;
}

// Whatever the starter has blocked. A terminal that is closed stops hostwatch in order; a daemon
// has none, and goes on.
void prepareSignals(bool asDaemon) {
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  const sighandler_t stop = [](int) { kill(getpid(), SIGTERM); };
  const sighandler_t nothing = [](int) {};
  if (std::signal(SIGHUP, asDaemon ? nothing : stop) == SIG_IGN)
    std::signal(SIGHUP, SIG_IGN);  // by nohup
}

int serve(const CommandLine& commandLine, const Settings& settings, const Texts& texts) {
  const bool asDaemon = commandLine.has("daemon");
  if (settings.logFile().empty() && asDaemon)
    throw VarnException("--daemon needs --log, or log= in the configuration", 0);
  if (const auto faults = settings.serviceFaults(); !faults.empty())
    throw VarnException(faults.front(), 0);
  prepareSignals(asDaemon);
  std::srand(static_cast<unsigned>(std::time(nullptr)) ^ static_cast<unsigned>(getpid()));
  return runService(settings, texts, asDaemon) ? ALL_IS_WELL : NOT_WELL;
}

// All that is wrong, also what shows only when the probes are used.
int check(const Settings& settings) {
  std::vector<std::string> faults = settings.faults();
  for (const std::string& fault : settings.serviceFaults())
    faults.push_back(fault);
  if (faults.empty()) {
    const Probes probes = makeProbes(settings);
    for (std::size_t i = 0; i < probes.size(); ++i) {
      const SamplePointer sample = takeSample(*probes[i], settings);
      if (!sample->error.empty())
        faults.push_back(settings.faultAt("probe=" + settings.probes()[i], sample->error));
    }
  }
  for (const std::string& fault : faults)
    std::fprintf(stderr, "hostwatch: %s\n", fault.c_str());
  return faults.empty() ? ALL_IS_WELL : WRONG_USE;
}

int run(int argc, char** argv) {
  const CommandLine commandLine(argc, argv);
  if (commandLine.has("help")) {
    std::fputs(kUsage, stdout);
    return 0;
  }
  if (commandLine.has("version")) {
    std::puts("hostwatch " HOSTWATCH_VERSION);
    return 0;
  }
  if (commandLine.has("daemon"))
    close_range(STDERR_FILENO + 1, ~0U, 0);  // what the starter has left open, and perhaps locked
  VarnLocaleFactory::initializeLanguageCountryCode();
  const auto builtIn = VarnObjectFactory::getGlobalInstance()->getRegisteredClasses();
  std::vector<std::unique_ptr<VarnLibrary>> plugins;
  for (const std::string& name : commandLine.values("plugin"))
    plugins.push_back(std::make_unique<VarnLibrary>(pluginFile(name), true));
  const Texts texts;
  if (commandLine.has("list")) {
    printProbes(builtIn, texts);
    return 0;
  }
  const Settings settings = loadSettings(commandLine);
  std::filesystem::current_path("/");  // where a daemon works: settings mean the same without one
  if (commandLine.has("check"))
    return check(settings);
  if (const auto faults = settings.faults(); !faults.empty())
    throw VarnException(faults.front(), 0);
  return commandLine.has("once") ? reportOnce(commandLine, settings, texts)
                                 : serve(commandLine, settings, texts);
}

}  // namespace

int main(int argc, char** argv) {
  try {
    const int result = run(argc, argv);
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0)
      throw VarnException("cannot write to standard output", 0);
    return result;
  } catch (const VarnException& error) {
    std::fprintf(stderr, "hostwatch: %s\n", error.getText().c_str());
  } catch (const std::exception& error) {
    std::fprintf(stderr, "hostwatch: %s\n", error.what());
  } catch (...) {
    std::fprintf(stderr, "hostwatch: a probe throws what is no exception\n");
  }
  return WRONG_USE;
}
