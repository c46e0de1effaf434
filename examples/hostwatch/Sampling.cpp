#include "Sampling.h"

#include <sys/wait.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <exception>

using namespace VarnSupport;

namespace hostwatch {

namespace {

constexpr int kCrossing = 1;
constexpr int kSampled = 5;
const std::string kComponent = "hostwatch";

}  // namespace

bool Sample::isOver(const Settings& settings) const {
  const std::optional<double> limit = settings.limitOf(name);
  return error.empty() && limit && value > *limit;
}

Probes makeProbes(const Settings& settings) {
  Probes probes;
  for (const std::string& className : settings.probes()) {
    const auto object = VarnObjectFactory::getGlobalInstance()->construct(className);
    auto* const probe = dynamic_cast<Probe*>(object.operator->());
    if (probe == nullptr)
      throw VarnException("there is no probe " + className, 0);
    probes.push_back(probe);
  }
  return probes;
}

SamplePointer takeSample(Probe& probe, const Settings& settings) {
  SamplePointer sample(new Sample);
  sample->name = probe.name;
  sample->unit = probe.unit;
  try {
    sample->value = probe.measure(settings.expanded());
    if (!std::isfinite(sample->value))
      sample->error = "no number";
  } catch (const VarnException& error) {
    sample->error = error.getText();
  } catch (const std::exception& error) {
    sample->error = error.what();
  }
  return sample;
}

std::string format(double value) {
  char text[64];
  std::snprintf(text, sizeof text, value < 10 && value > -10 ? "%.2f" : "%.1f", value);
  return text;
}

void SampleQueue::clear() {
  const VarnCriticalSection guard(getLock(), true);
  m_vSamples.clear();
}

void SampleQueue::push(const SamplePointer& sample) {
  const VarnCriticalSection guard(getLock(), true);
  m_vSamples.push_back(sample);
}

SamplePointer SampleQueue::pop() {
  const VarnCriticalSection guard(getLock(), true);
  if (m_vSamples.empty())
    return nullptr;
  SamplePointer sample = m_vSamples.front();
  m_vSamples.pop_front();
  return sample;
}

void SampleExchange::give(const SamplePointer& sample) {
  lockSyncMutex();
  m_oQueue.push(sample);
  setSyncEvent();
  unlockSyncMutex();
}

SamplePointer SampleExchange::take() {
  lockSyncMutex();
  SamplePointer sample = m_oQueue.pop();
  while (sample == nullptr && !isSentinel()) {
    waitForSyncEvent();
    sample = m_oQueue.pop();
  }
  unlockSyncMutex();
  return sample;
}

Sampler::Sampler(VarnTimer& timer, const Probes& probes, const Settings& settings,
                 SampleExchange& exchange)
    : VarnEventTimerThread("sampler", timer),
      m_vProbes(probes),
      m_oSettings(settings),
      m_oExchange(exchange) {}

void Sampler::onTimerEvent() {
  for (const auto& probe : m_vProbes)
    m_oExchange.give(takeSample(*probe, m_oSettings));
}

Judge::Judge(const Settings& settings, const Texts& texts, SampleExchange& exchange)
    : VarnThread("judge"), m_oSettings(settings), m_oTexts(texts), m_oExchange(exchange) {}

Judge::~Judge() {
  m_oExchange.produceSentinel(false);
  waitForThreadExit();
}

int Judge::run() {
  for (SamplePointer sample = m_oExchange.take(); sample != nullptr; sample = m_oExchange.take())
    judge(*sample);
  return 0;
}

// Each crossing is told once: when it happens, and when it is over.
void Judge::judge(const Sample& sample) {
  m_vAlertProcesses.erase(
      std::remove_if(m_vAlertProcesses.begin(), m_vAlertProcesses.end(),
                     [](int process) { return waitpid(process, nullptr, WNOHANG) != 0; }),
      m_vAlertProcesses.end());
  if (!sample.error.empty()) {
    if (m_vFailing.insert(sample.name).second)
      VarnLogRecord(kComponent, kCrossing)
          << m_oTexts.text("failed", {{"name", sample.name}, {"reason", sample.error}});
    return;
  }
  m_vFailing.erase(sample.name);
  const std::string value = format(sample.value);
  VarnLogRecord(kComponent, kSampled)
      << m_oTexts.text("sampled", {{"name", sample.name}, {"value", value}, {"unit", sample.unit}});
  const std::optional<double> limit = m_oSettings.limitOf(sample.name);
  const bool isOver = sample.isOver(m_oSettings);
  const bool wasOver = m_vOver.count(sample.name) > 0;
  if (!limit || isOver == wasOver)
    return;
  const std::string limitText = format(*limit);
  VarnLogRecord(kComponent, kCrossing) << m_oTexts.text(
      isOver ? "crossed" : "back",
      {{"name", sample.name}, {"value", value}, {"unit", sample.unit}, {"limit", limitText}});
  if (isOver) {
    m_vOver.insert(sample.name);
    alert(sample, limitText);
  } else {
    m_vOver.erase(sample.name);
  }
}

void Judge::alert(const Sample& sample, const std::string& limit) {
  Properties properties(m_oSettings.expanded());
  properties.setProperty("name", sample.name);
  properties.setProperty("value", format(sample.value) + sample.unit);
  properties.setProperty("limit", limit);
  const std::string none;
  const std::string command =
      VarnExpandString(properties.getProperty("alert.command", none), properties);
  int process = 0;
  // The last byte of a command line may be dropped.
  if (!command.empty() && VarnExecuteProgram(command + ' ', false, &process, nullptr))
    m_vAlertProcesses.push_back(process);
}

}  // namespace hostwatch
