// hostwatch as a service: one thread takes samples, another judges them.
#include <sys/stat.h>

#include <atomic>
#include <csignal>
#include <fstream>
#include <list>

#include "hostwatch.h"

using namespace VarnSupport;
using namespace std::chrono_literals;

namespace hostwatch {

namespace {

const std::string kComponent = "hostwatch";
enum tLevel : int { EVENT = 1, SAMPLED = 5 };  // of records

// The text is there before the log is locked.
void record(tLevel level, const std::string& text) { VarnLogRecord(kComponent, level) << text; }

constexpr std::size_t kAlertOutputBytes = 1000;
constexpr auto kAlertGrace = 1s;  // short: whoever stops hostwatch waits for it

// Logs samples and each crossing of a limit, and runs the alert command.
class Judge {
 public:
  // Alerts that still run end; all are told to before the first is waited for.
  ~Judge() {
    for (VarnCommand& alert : m_vAlerts)
      alert.kill();
  }

  // Each crossing is told once: when it happens, and when it is over.
  void judge(const Sample& sample, const Config& config) {
    Values values{{"name", sample.name}, {"unit", sample.unit}, {"reason", sample.error}};
    bool& isFailing = m_mapFailing[sample.name];
    if (!isFailing && !sample.error.empty())
      record(EVENT, message("failed", values));
    isFailing = !sample.error.empty();
    if (isFailing)
      return;
    values["value"] = format(sample.value);
    record(SAMPLED, message("sampled", values));
    bool& wasOver = m_mapOver[sample.name];
    if (!sample.limit || sample.isOver() == wasOver)
      return;
    wasOver = sample.isOver();
    values["limit"] = format(*sample.limit);
    record(EVENT, message(sample.isOver() ? "crossed" : "back", values));
    values["value"] += sample.unit;
    if (sample.isOver() && !config.alertCommand.empty())
      alert(values, config);
  }

 private:
  void alert(const Values& values, const Config& config) {
    m_vAlerts.remove_if([](const VarnCommand& command) { return !command.isRunning(); });
    std::vector<std::string> arguments;
    for (const std::string& argument : config.alertCommand)
      arguments.push_back(replaced(argument, values));
    VarnCommand& command = m_vAlerts.emplace_back(arguments);
    command.setOutput(VarnCommand::CAPTURED, kAlertOutputBytes);
    command.setErrors(VarnCommand::WITH_OUTPUT);
    command.setTimeLimit(config.alertTimeout, kAlertGrace);
    const auto tell = [name = values.at("name")](const VarnCommand::Result& result) {
      const std::string output = VarnEscaped(result.getOutput());
      record(result.succeeded() ? SAMPLED : EVENT,
             message("alert", {{"name", name}, {"result", result.getText()}, {"output", output}}));
    };
    try {
      command.start(tell);
    } catch (const VarnException&) {
      tell({});  // it "was never started", which is no reason to watch no more
    }
  }

  std::map<std::string, bool> m_mapOver, m_mapFailing;  // by name of the probe
  std::list<VarnCommand> m_vAlerts;
};

// Calls a function, on a thread of the library, whenever a signal has come.
struct SignalAction {
  SignalAction(int signal, std::function<void()> act) : event(signal), connection(event, act) {}

  VarnSignalEvent event;
  VarnConnection connection;
};

bool hasTerminal() { return std::ifstream("/dev/tty").is_open(); }

void tellWhatIsWatched(const Config& config) {
  record(EVENT, message("started", {{"count", std::to_string(config.probes.size())},
                                    {"interval", std::to_string(config.interval.count())}}));
}

class HostService : public VarnService {
 public:
  HostService(VarnReloaded<Config>& config, bool endsWithTerminal)
      : VarnService("", "hostwatch", "", "", false),  // its name; nothing reads the others
        m_oConfig(config),
        m_bEndsWithTerminal(endsWithTerminal) {}

  bool hasFailed() const { return m_bFailed; }

 private:
  // Whatever refuses is told at the terminal, which a daemon keeps until all has gone well.
  bool onStart(const std::string& daemon) override {
    try {
      if (!daemon.empty())
        umask(022);  // a daemon's is 0, and alert commands inherit it
      const auto config = m_oConfig.get();
      if (!config->pidFile.empty())
        m_oPidFile.emplace(config->pidFile);
      openLog(*config);
      m_oDescribing.emplace(SIGQUIT, [] { record(EVENT, VarnDescribeThreads()); });
      tellWhatIsWatched(*config);
      m_oJudge.emplace("judge", [this] { perform(&HostService::judgeSamples); });
      takeSamples();
      m_oSampling.start(config->interval);
      if (const auto limit = VarnServiceManager::watchdogInterval(); limit.count() > 0)
        m_oWatchdog.start(limit / 2);
      m_oReloading.emplace(SIGHUP, [this] { onHangUp(); });
      if (!daemon.empty())
        VarnDetachStreams();
      return true;
    } catch (const VarnException& error) {
      throw VarnStartRefused(error.getText());
    }
  }

  void openLog(const Config& config) {
    m_oLog.emplace(config.logFile, config.logLevel);
    if (!config.logFile.empty() && !m_oLog->isFileOpen())
      throw VarnStartRefused("cannot write the log " + config.logFile);
    VarnLogging::setInstance(*m_oLog);
  }

  void takeSamples() {
    const auto config = m_oConfig.get();
    for (const auto& probe : config->probes)
      m_oSamples.give(Sample(*probe, *config));
  }

  // On a thread of its own, so that a log that takes its time does not delay the next samples.
  void judgeSamples() {
    Judge judge;
    while (const std::optional<Sample> sample = m_oSamples.take())
      judge.judge(*sample, *m_oConfig.get());
  }

  // A service without its workers would watch nothing, and look alive.
  void perform(void (HostService::*work)()) {
    try {
      (this->*work)();
    } catch (...) {
      record(EVENT, message("broken", {{"reason", VarnWhat()}}));
      m_bFailed = true;
      stop();
    }
  }

  // SIGHUP says that the terminal was closed, or asks for a reload.
  void onHangUp() {
    if (m_bEndsWithTerminal && !hasTerminal())
      stop();
    else
      reload();
  }

  void reload() {
    VarnServiceManager::reloading();
    m_oLog->reopen();  // somebody may have renamed the file
    const auto before = m_oConfig.get();
    try {
      m_oConfig.reload();
      const auto now = m_oConfig.get();
      m_oLog->setLogLevel(now->logLevel);
      if (now->interval != before->interval)
        m_oSampling.start(now->interval);
      tellWhatIsWatched(*now);
    } catch (const VarnSettingsError& error) {
      for (const std::string& fault : error.faults())
        record(EVENT, message("rejected", {{"reason", fault}}));
    }
    VarnServiceManager::ready();
  }

  // What has been sampled is still judged and logged.
  void onStop() override {
    m_oReloading.reset();
    m_oSampling.stopAndWait();
    m_oJudge.reset();
    record(EVENT, message("stopped"));
  }

  VarnReloaded<Config>& m_oConfig;
  const bool m_bEndsWithTerminal;
  std::atomic<bool> m_bFailed{false};

  // What there is while the service runs, in the order in which it is made.
  std::optional<VarnPidFile> m_oPidFile;
  std::optional<VarnLogFile> m_oLog;
  VarnQueue<Sample> m_oSamples;
  std::optional<VarnFunctionThread> m_oJudge;
  // One thread calls both, so that a probe that hangs keeps the watchdog from being told.
  VarnMonotonicTimer m_oSampling{1s, [this] { perform(&HostService::takeSamples); }};
  VarnMonotonicTimer m_oWatchdog{1s, [] { VarnServiceManager::watchdog(); }};
  std::optional<SignalAction> m_oDescribing, m_oReloading;
};

}  // namespace

bool runService(VarnReloaded<Config>& config, bool asDaemon) {
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);  // the starter may have blocked SIGTERM
  // SIGHUP does nothing while it starts and stops.
  const bool isNohup = std::signal(SIGHUP, SIG_IGN) == SIG_IGN;
  HostService service(config, !asDaemon && !isNohup && hasTerminal());
  return service.start(asDaemon ? "daemon" : "", asDaemon) && !service.hasFailed();
}

}  // namespace hostwatch
