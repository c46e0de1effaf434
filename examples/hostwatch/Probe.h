// What hostwatch measures: one value of the host per probe. Plug-ins add probes of their own.
#ifndef HOSTWATCH_PROBE_H
#define HOSTWATCH_PROBE_H

#include <VarnSupport/VarnSupport.h>

#include <functional>
#include <string>
#include <utility>

namespace hostwatch {

using Properties = VarnSupport::VarnProperties<std::string>;
// The value of this moment. Throws VarnException when it cannot be had.
using Measure = std::function<double(const Properties& configuration)>;

// Used by one thread at a time. A new configuration has new probes.
struct Probe : VarnSupport::VarnObjectBase {
  Probe(std::string probeName, std::string probeUnit, Measure measurement)
      : name(std::move(probeName)), unit(std::move(probeUnit)), measure(std::move(measurement)) {}

  // Names the probe in tables and logs, its limit in the configuration ("limit.NAME") and, before a
  // dot, its other settings.
  const std::string name;
  const std::string unit;
  const Measure measure;
};

// Has the global factory make such probes, by a class name, for as long as it exists.
struct ProbeRegistration : VarnSupport::VarnObjectFactoryRegistration {
  ProbeRegistration(const std::string& className, const Probe& probe)
      : VarnObjectFactoryRegistration(className), model(probe) {}
  ~ProbeRegistration() override { unregister(); }

  VarnSupport::VarnSmartPointer<VarnSupport::VarnObjectBase> create() override {
    return new Probe(model);
  }

  const Probe model;
};

}  // namespace hostwatch

#endif
