#include "HostService.h"

#include <fcntl.h>
#include <unistd.h>

#include <memory>

#include "Sampling.h"

using namespace VarnSupport;

namespace hostwatch {

namespace {

constexpr int kEvent = 1;

class HostService : public VarnService {
 public:
  HostService(const Settings& settings, const Texts& texts, const std::string& logFile,
              bool asDaemon);

 protected:
  bool onStart(const std::string& arguments) override;
  void onStop() override;

 private:
  const Settings& m_oSettings;
  const Texts& m_oTexts;
  std::string m_sLogFile;
  bool m_bDaemon;
  Probes m_vProbes;
  SampleQueue m_oQueue;
  SampleExchange m_oExchange;
  VarnTimer m_oTimer;
  // Made when the service starts: a daemon's threads belong to the daemon.
  std::unique_ptr<VarnLogging> m_pLog;
  std::unique_ptr<Judge> m_pJudge;
  std::unique_ptr<Sampler> m_pSampler;
};

// Whoever reads what the launching program prints must not wait for the daemon's end.
void giveUpStandardStreams() {
  const int nothing = open("/dev/null", O_RDWR | O_CLOEXEC);
  for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
    dup2(nothing, stream);
  close(nothing);
}

HostService::HostService(const Settings& settings, const Texts& texts, const std::string& logFile,
                         bool asDaemon)
    : VarnService("", "hostwatch", "", "", false),
      m_oSettings(settings),
      m_oTexts(texts),
      m_sLogFile(logFile),
      m_bDaemon(asDaemon),
      m_vProbes(makeProbes(settings)),
      m_oExchange(m_oQueue) {}

bool HostService::onStart(const std::string&) {
  const int target = m_sLogFile.empty() ? VarnLogging::kToStandardOutput : VarnLogging::kToFile;
  m_pLog = std::make_unique<VarnLogging>(m_sLogFile, target, m_oSettings.logLevel());
  VarnLogging::setInstance(*m_pLog);
  const long interval = m_oSettings.intervalSeconds();
  VarnLogRecord("hostwatch", kEvent)
      << m_oTexts.text("started", {{"count", std::to_string(m_vProbes.size())},
                                   {"interval", std::to_string(interval)}});
  m_pJudge = std::make_unique<Judge>(m_oSettings, m_oTexts, m_oExchange);
  m_pJudge->start();
  m_pSampler = std::make_unique<Sampler>(m_oTimer, m_vProbes, m_oSettings, m_oExchange);
  m_pSampler->onTimerEvent();
  m_pSampler->start();
  m_oTimer.start(interval, 0, false);
  if (m_bDaemon)
    giveUpStandardStreams();
  return m_pJudge->isAlive() && m_pSampler->isAlive();
}

// What has been sampled is still judged and logged.
void HostService::onStop() {
  m_oTimer.stop();
  m_pSampler->stop();
  m_oExchange.produceSentinel(false);
  m_pJudge->waitForThreadExit();
  VarnLogRecord("hostwatch", kEvent) << m_oTexts.text("stopped");
}

}  // namespace

bool runService(const Settings& settings, const Texts& texts, const std::string& logFile,
                bool asDaemon) {
  HostService service(settings, texts, logFile, asDaemon);
  return service.start("", asDaemon);
}

}  // namespace hostwatch
