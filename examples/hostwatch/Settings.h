// The configuration of hostwatch: a property file, checked once and then only read.
#ifndef HOSTWATCH_SETTINGS_H
#define HOSTWATCH_SETTINGS_H

#include <optional>
#include <string>
#include <vector>

#include "Probe.h"

namespace hostwatch {

class Settings {
 public:
  // Throws VarnException with one line of text when the file cannot be read or holds what is wrong.
  explicit Settings(const std::string& file);

  // Replaces a setting by what the command line says; throws as above.
  void set(const std::string& name, const std::string& value);

  const Properties& properties() const { return m_oProperties; }
  // The value with its references expanded; empty when there is none.
  std::string text(const std::string& name) const;
  // Class names of the probes to run.
  std::vector<std::string> probes() const { return m_oProperties.getPropertyValues("probe"); }
  std::optional<double> limitOf(const std::string& probe) const;
  long intervalSeconds() const { return number("interval", 60, 1, 86400); }
  int logLevel() const { return static_cast<int>(number("log.level", 1, -1, 9)); }

 private:
  long number(const std::string& name, long preset, long lowest, long highest) const;
  void check() const;
  void checkReferences(const std::string& name, std::vector<std::string>& path) const;

  std::string m_sFile;
  mutable Properties m_oProperties;  // expansion takes it as not const
};

// Where the configuration and the messages are: beside the program or in the prefix that it was
// installed to.
std::string installedFile(const std::string& besideProgram, const std::string& inPrefix);

}  // namespace hostwatch

#endif
