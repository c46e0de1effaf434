// Samples on their way: a timer thread takes them, a worker judges them.
#ifndef HOSTWATCH_SAMPLING_H
#define HOSTWATCH_SAMPLING_H

#include <deque>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "Probe.h"
#include "Settings.h"
#include "Texts.h"

namespace hostwatch {

// One value of one probe.
struct Sample : VarnSupport::VarnWorkInformation {
  std::string name;
  std::string unit;
  double value = 0;
  std::string error;  // why there is no value; else empty

  bool isOver(const Settings& settings) const;
};

using SamplePointer = VarnSupport::VarnSmartPointer<Sample>;
using Probes = std::vector<VarnSupport::VarnSmartPointer<Probe>>;

// Makes the probes that the settings name. Throws VarnException for one that does not exist.
Probes makeProbes(const Settings& settings);
SamplePointer takeSample(Probe& probe, const Settings& settings);
// "41.3", without more digits than mean something.
std::string format(double value);

// A queue of samples and the rendezvous of those who fill and empty it.
class SampleQueue : public VarnSupport::VarnBaseSynchronizedQueue {
 public:
  void clear() override;
  void push(const SamplePointer& sample);
  SamplePointer pop();  // empty when there is none

 private:
  std::deque<SamplePointer> m_vSamples;
};

class SampleExchange : public VarnSupport::VarnBaseProducerConsumer {
 public:
  explicit SampleExchange(SampleQueue& queue) : VarnBaseProducerConsumer(queue), m_oQueue(queue) {}

  void give(const SamplePointer& sample);
  // Waits for the next sample; empty when there will be no more.
  SamplePointer take();

 private:
  SampleQueue& m_oQueue;
};

// Takes a sample of every probe whenever its timer is set.
class Sampler : public VarnSupport::VarnEventTimerThread {
 public:
  Sampler(VarnSupport::VarnTimer& timer, const Probes& probes, const Settings& settings,
          SampleExchange& exchange);
  ~Sampler() override { stop(); }

  void onTimerEvent() override;

 private:
  const Probes& m_vProbes;
  const Settings& m_oSettings;
  SampleExchange& m_oExchange;
};

// Logs samples and each crossing of a limit, and runs the alert command.
class Judge : public VarnSupport::VarnThread {
 public:
  Judge(const Settings& settings, const Texts& texts, SampleExchange& exchange);
  // Waits until what is in the exchange has been judged.
  ~Judge() override;

  int run() override;

 private:
  void judge(const Sample& sample);
  void alert(const Sample& sample, const std::string& limit);

  const Settings& m_oSettings;
  const Texts& m_oTexts;
  SampleExchange& m_oExchange;
  std::set<std::string> m_vOver;       // the probes above their limits
  std::set<std::string> m_vFailing;    // and those that cannot be measured
  std::vector<int> m_vAlertProcesses;  // still to be waited for
};

}  // namespace hostwatch

#endif
