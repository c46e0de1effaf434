// Follows log files, counts per key what matches rules, and runs a command where it is too much.
#include <VarnSupport/VarnSupport.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace VarnSupport;
using namespace std::literals;
using Clock = std::chrono::steady_clock;
constexpr std::size_t kStartBytes = 256, kBlockBytes = 65536, kLineBytes = 1 << 20, kCommands = 16;

struct Rule {
  std::string name;
  VarnRegularExpression<std::string> pattern, key;
  std::size_t limit;
  std::chrono::milliseconds window;
};

struct Config {
  explicit Config(VarnSettings& from)
      : log(from.path("log", "")),
        pidFile(from.path("pid", "")),
        command(from.text("alert.command", "", {"rule", "key", "count"})),
        level(std::max(from.number("log.level", 5, {-1, 9}), from.flag("verbose") ? 9 : -1)),
        workers(from.number("workers", 2, {1, 64})),
        report(from.duration("report", 60s, {1s, 24h})),
        timeout(from.duration("alert.timeout", 10s, {1s, 1h})),
        files(from.texts("files", 1)) {
    for (const std::string& name : from.texts("rule"))
      rules.push_back({name, from.pattern(name + ".pattern"), from.pattern(name + ".key", ""),
                       from.number<std::size_t>(name + ".limit", 3, {1, 1000000}),
                       from.duration(name + ".window", 60s, {1s, 24h})});
  }
  std::string log, pidFile, command;
  int level, workers;
  std::chrono::milliseconds report, timeout;
  std::vector<std::string> files;
  std::vector<Rule> rules;
};

// An open file, how far it has been read, and the names that it has by now.
struct Tail {
  ~Tail() { close(file); }
  std::string at(std::size_t place, std::size_t size) const {
    std::string text(size, '\0');
    const ssize_t length = pread(file, text.data(), size, static_cast<off_t>(place));
    return text.substr(0, length > 0 ? static_cast<std::size_t>(length) : 0);
  }
  void readOn(VarnQueue<std::string>& out) {
    // A file that was cut may have grown beyond the old place, but then it starts with other lines.
    if (at(0, start.size()) != start || lseek(file, 0, SEEK_END) < static_cast<off_t>(offset))
      start.resize(offset = 0);
    for (std::string chunk; !out.isClosed() && !(chunk = at(offset, kBlockBytes)).empty();) {
      start.append(chunk, 0, kStartBytes - start.size());
      offset += chunk.size();
      rest += chunk;
      std::size_t from = 0, end;
      while ((end = rest.find('\n', from)) != rest.npos && out.give(rest.substr(from, end - from)))
        from = end + 1;
      rest.erase(0, rest.size() - from > kLineBytes ? rest.npos : from);  // memory has its limits
    }
  }
  int file;
  std::size_t offset = 0, sweeps = 0;
  std::string start{}, rest{};
  std::vector<std::string> names{};
};

struct LogSentry : VarnService {
  explicit LogSentry(VarnReloaded<Config>& config) : m_oConfig(config) {}

  bool onStart(const std::string&) override {
    const auto config = m_oConfig.get();
    if (!config->pidFile.empty())
      m_oPidFile.emplace(config->pidFile);
    VarnLogging::setInstance(m_oLog.emplace(config->log, config->level));
    for (int i = 1; i <= config->workers; ++i)
      m_vWorkers.emplace_back("worker " + std::to_string(i), [this] { work(); });
    watch(*config, true);
    m_oReload = VarnConnection(m_oHangUp, [this] { reload(); });
    VarnLogRecord(1) << "started: " << config->rules.size() << " rules";
    return config->log.empty() || VarnDetachStreams();  // else the log is one of the streams
  }
  void onStop() override {
    m_oLines.close();
    m_vWorkers.clear();
    report();
    VarnLogRecord(1) << "stopped";
  }
  void reload() {
    m_oLog->reopen();
    try {
      m_oConfig.reload();
      watch(*m_oConfig.get(), false);
      VarnLogRecord(1) << "reloaded";
    } catch (...) {
      VarnLogRecord(1) << "not reloaded: " << VarnWhat();
    }
  }
  void watch(const Config& config, bool isStart) {
    m_oLog->setLogLevel(config.level);
    m_oReport.start(config.report);
    m_vWatches.clear();
    for (const std::string& pattern : config.files)
      m_vWatches.emplace_back(pattern, std::bind_front(&LogSentry::follow, this, isStart),
                              &m_oPool);
    m_oSweep.start();
  }
  void follow(bool isStart, const VarnFileWatch::Change& change) {
    const int file = open(change.path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    const std::shared_ptr<Tail> opened(new Tail{file});
    struct stat status {};
    fstat(file, &status);
    for (auto& [id, tail] : m_mapTails)
      std::erase(tail->names, change.path);
    Tail& tail = *m_mapTails.try_emplace({status.st_dev, status.st_ino}, opened).first->second;
    tail.names.push_back(change.path);
    if (&tail == opened.get() && isStart && change.what == VarnFileWatch::FOUND) {
      tail.offset = change.size > kBlockBytes ? change.size - kBlockBytes : 0;
      tail.offset += tail.at(tail.offset, change.size - tail.offset).rfind('\n') + 1;
      tail.start = tail.at(0, std::min(tail.offset, kStartBytes));
    }
    tail.readOn(m_oLines);
  }
  void sweep() {  // a writer may go on for a minute in a file that has lost its name
    std::erase_if(m_mapTails, [this](const auto& entry) {
      if (entry.second->names.empty())
        entry.second->readOn(m_oLines);
      return entry.second->names.empty() && ++entry.second->sweeps > 120;
    });
  }
  void work() {
    while (const auto line = m_oLines.take()) {
      const auto config = m_oConfig.get();
      for (const Rule& rule : config->rules)
        if (rule.pattern.find(*line, 0) != rule.pattern.npos)
          count(*config, rule, rule.key.match(*line));
    }
  }
  void count(const Config& config, const Rule& rule, const std::string& found) {
    const std::string key = found.empty() ? "*" : VarnEscaped(found);
    const VarnCriticalSection lock(m_oLock, true);
    auto& ends = m_mapHits[rule.name + ' ' + key];
    while (!ends.empty() && ends.front() <= Clock::now())
      ends.pop_front();
    ends.push_back(Clock::now() + rule.window);
    ++m_nHits;
    if (ends.size() < rule.limit)
      return;
    const std::string hits = std::to_string(std::exchange(ends, {}).size());
    VarnLogRecord(1) << "alert: " << rule.name << ' ' << key << ' ' << hits;
    std::vector<std::string> arguments;
    for (VarnCmdLineTokenizer words(config.command, " \t"s, "\"'"s); !words.isExhausted();)
      arguments.push_back(VarnReplaceReferences(words.next(), [&](const std::string& name) {
        return std::optional(name == "rule" ? rule.name : name == "key" ? key : hits);
      }));
    std::erase_if(m_vAlerts, [](const VarnCommand& command) { return !command.isRunning(); });
    if (arguments.empty() || m_vAlerts.size() >= kCommands)
      return;
    m_vAlerts.emplace_back(arguments).setTimeLimit(config.timeout, 200ms);
    m_vAlerts.back().start([arguments](const VarnCommand::Result& result) {
      VarnLogRecord(result.succeeded() ? 5 : 1) << arguments.front() << ' ' << result.getText();
    });
  }
  void report() {
    const VarnCriticalSection lock(m_oLock, true);
    VarnLogRecord record(5);
    record << m_nHits << " hits, " << m_mapHits.size() << " keys:";
    std::erase_if(m_mapHits, [&, told = 0](const auto& entry) mutable {
      if (++told <= 100)
        record << ' ' << entry.first << '=' << entry.second.size();
      return entry.second.empty() || entry.second.back() <= Clock::now();
    });
  }

  VarnSignalEvent m_oHangUp{SIGHUP};
  VarnReloaded<Config>& m_oConfig;
  std::optional<VarnPidFile> m_oPidFile;
  std::optional<VarnLogFile> m_oLog;
  VarnCriticalSectionObject m_oLock;  // guards the hits and the alerts
  std::map<std::string, std::deque<Clock::time_point>> m_mapHits;
  std::uint64_t m_nHits = 0;
  std::deque<VarnCommand> m_vAlerts;
  VarnQueue<std::string> m_oLines{10000};
  std::deque<VarnFunctionThread> m_vWorkers;
  std::map<std::pair<dev_t, ino_t>, std::shared_ptr<Tail>> m_mapTails;  // the pool's alone
  VarnCallbackPool m_oPool{1};
  VarnMonotonicTimer m_oSweep{500ms, [this] { sweep(); }, &m_oPool};
  std::deque<VarnFileWatch> m_vWatches;
  VarnMonotonicTimer m_oReport{1s, [this] { report(); }, &m_oPool};
  VarnConnection m_oReload;
};

int main(int argc, char** argv) try {
  std::string file = "/etc/logsentry.conf";
  VarnOptionTable options("logsentry", "1.0", "Follows log files and raises alerts.");
  options.value("-c, --config=FILE", "the configuration (/etc/logsentry.conf)", file)
      .flag("-d, --daemon", "run in the background")
      .flag("-n, --check", "check the configuration and end")
      .flag("-v, --verbose", "log everything");
  if (const std::optional<int> code = options.parseOrReport(argc, argv))
    return *code;
  VarnReloaded<Config> config(file, options.values(), "LOGSENTRY");
  return options.isGiven("check") || LogSentry(config).start("", options.isGiven("daemon")) ? 0 : 1;
} catch (...) {
  std::fprintf(stderr, "%s\n", VarnWhat().c_str());
  return 2;
}
