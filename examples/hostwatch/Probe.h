// What hostwatch measures: one value of the host per probe. Plug-ins add probes of their own.
#ifndef HOSTWATCH_PROBE_H
#define HOSTWATCH_PROBE_H

#include <VarnSupport/VarnSupport.h>

#include <string>

namespace hostwatch {

using Properties = VarnSupport::VarnProperties<std::string>;

// Made by the global object factory under its class name. Used by one thread at a time.
class Probe : public VarnSupport::VarnObjectBase {
 public:
  Probe(const std::string& probeName, const std::string& probeUnit)
      : name(probeName), unit(probeUnit) {}
  // The value of this moment. Throws VarnException when it cannot be had.
  virtual double measure(const Properties& configuration) = 0;

  // Names the probe in tables and logs, and its limit in the configuration ("limit.NAME").
  const std::string name;
  const std::string unit;
};

// Puts a class of probes into the global factory for as long as it exists.
template <typename ProbeClass>
class ProbeRegistration : public VarnSupport::VarnObjectFactoryRegistration {
 public:
  explicit ProbeRegistration(const std::string& className)
      : VarnObjectFactoryRegistration(className) {}
  ~ProbeRegistration() override { unregister(); }

  VarnSupport::VarnSmartPointer<VarnSupport::VarnObjectBase> create() override {
    return new ProbeClass;
  }
};

}  // namespace hostwatch

#endif
