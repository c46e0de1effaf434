// hostwatch as a service: samples on its interval until it is stopped.
#ifndef HOSTWATCH_HOSTSERVICE_H
#define HOSTWATCH_HOSTSERVICE_H

#include <memory>
#include <string>

#include "Sampling.h"

namespace hostwatch {

class HostService : public VarnSupport::VarnService {
 public:
  // With an empty log file the log goes to standard output, which a daemon gives up.
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
  VarnSupport::VarnTimer m_oTimer;
  // Made when the service starts: a daemon's threads belong to the daemon.
  std::unique_ptr<VarnSupport::VarnLogging> m_pLog;
  std::unique_ptr<Judge> m_pJudge;
  std::unique_ptr<Sampler> m_pSampler;
};

}  // namespace hostwatch

#endif
