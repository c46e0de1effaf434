#include "HostService.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <memory>

#include "Sampling.h"

using namespace VarnSupport;

namespace hostwatch {

namespace {

constexpr int kEvent = 1;

class HostService : public VarnService, private VarnDependent {
 public:
  HostService(const Settings& settings, const Texts& texts, bool asDaemon);

  // Whether it was a failure that stopped it.
  bool hasFailed() const { return m_bFailed; }

 protected:
  bool onStart(const std::string& arguments) override;
  void onStop() override;

 private:
  void handleNotification(VarnCollaborator& worker, const VarnNotification& end) override;

  const Settings& m_oSettings;
  const Texts& m_oTexts;
  bool m_bDaemon;
  Probes m_vProbes;
  SampleQueue m_oQueue;
  SampleExchange m_oExchange;
  VarnTimer m_oTimer;
  std::atomic<bool> m_bWorkerEnded{false};
  bool m_bFailed = false;
  // Made when the service starts: a daemon's threads belong to the daemon.
  std::unique_ptr<VarnLogging> m_pLog;
  std::unique_ptr<Judge> m_pJudge;
  std::unique_ptr<Sampler> m_pSampler;
};

// Whoever reads what the launching program prints must not wait for the daemon's end.
void giveUpStandardStreams() {
  const int nothing = open("/dev/null", O_RDWR);
  for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
    dup2(nothing, stream);
  if (nothing > STDERR_FILENO)
    close(nothing);
}

bool refuse(const std::string& reason) {
  std::fprintf(stderr, "hostwatch: %s\n", reason.c_str());
  return false;
}

HostService::HostService(const Settings& settings, const Texts& texts, bool asDaemon)
    : VarnService("", "hostwatch", "", "", false),
      m_oSettings(settings),
      m_oTexts(texts),
      m_bDaemon(asDaemon),
      m_vProbes(makeProbes(settings)),
      m_oExchange(m_oQueue) {}

bool HostService::onStart(const std::string&) {
  if (m_bDaemon)
    umask(022);  // a daemon's is 0, and the alert command inherits it
  const std::string file = m_oSettings.logFile();
  const int target = file.empty() ? VarnLogging::kToStandardOutput : VarnLogging::kToFile;
  m_pLog = std::make_unique<VarnLogging>(file, target, m_oSettings.logLevel());
  if (!file.empty() && !m_pLog->isFileOpen())
    return refuse("cannot write the log " + file);
  VarnLogging::setInstance(*m_pLog);
  const long interval = m_oSettings.intervalSeconds();
  VarnLogRecord("hostwatch", kEvent)
      << m_oTexts.text("started", {{"count", std::to_string(m_vProbes.size())},
                                   {"interval", std::to_string(interval)}});
  m_pJudge = std::make_unique<Judge>(m_oSettings, m_oTexts, m_oExchange);
  m_pJudge->addDependent(*this);
  m_pJudge->start();
  m_pSampler = std::make_unique<Sampler>(m_oTimer, m_vProbes, m_oSettings, m_oExchange);
  m_pSampler->addDependent(*this);
  m_pSampler->onTimerEvent();
  m_pSampler->start();
  if (!m_pJudge->isAlive() || !m_pSampler->isAlive())
    return refuse("the system refuses a thread");
  m_oTimer.start(interval, 0, false);
  if (m_bDaemon)
    giveUpStandardStreams();
  return true;
}

// A worker ends before onStop() only by an exception, and nothing would be watched any more.
void HostService::handleNotification(VarnCollaborator&, const VarnNotification&) {
  m_bWorkerEnded = true;
  stop();
}

// What has been sampled is still judged and logged.
void HostService::onStop() {
  m_bFailed = m_bWorkerEnded;
  if (m_bFailed)
    VarnLogRecord("hostwatch", kEvent) << m_oTexts.text("broken");
  m_oTimer.stop();
  m_pSampler.reset();
  m_pJudge.reset();
  VarnLogRecord("hostwatch", kEvent) << m_oTexts.text("stopped");
}

}  // namespace

bool runService(const Settings& settings, const Texts& texts, bool asDaemon) {
  HostService service(settings, texts, asDaemon);
  return service.start("", asDaemon) && !service.hasFailed();
}

}  // namespace hostwatch
