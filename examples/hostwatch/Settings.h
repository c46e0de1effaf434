// The configuration of hostwatch: a property file, only read once it is checked.
#ifndef HOSTWATCH_SETTINGS_H
#define HOSTWATCH_SETTINGS_H

#include <optional>
#include <set>
#include <string>
#include <vector>

#include "Probe.h"

namespace hostwatch {

class Settings {
 public:
  // Throws VarnException when the file cannot be read, or not twice.
  explicit Settings(const std::string& file);

  // Replaces a setting by what the command line says.
  void set(const std::string& name, const std::string& value);
  // All that is wrong, in the order of the file, each as faultAt() says it. The rest may be used
  // only if there is nothing.
  std::vector<std::string> faults() const;
  // What keeps a service with these settings from its work on this host.
  std::vector<std::string> serviceFaults() const;
  // "FILE:LINE: TEXT", or the text alone for what the file does not say.
  std::string faultAt(const std::string& setting, const std::string& text) const;

  // With all references expanded, but for those of the alert command.
  Properties expanded() const;
  // The value with its references expanded; empty when there is none.
  std::string text(const std::string& name) const;
  // Where to log to, with an extension; empty for standard output.
  std::string logFile() const;
  // Class names of the probes to run.
  std::vector<std::string> probes() const { return expanded().getPropertyValues("probe"); }
  std::optional<double> limitOf(const std::string& probe) const;
  long intervalSeconds() const { return number(kInterval).value(); }
  int logLevel() const { return static_cast<int>(number(kLogLevel).value()); }

 private:
  struct Range {
    const char* name;
    long preset, lowest, highest;
  };
  static constexpr Range kInterval{"interval", 60, 1, 86400};
  static constexpr Range kLogLevel{"log.level", 1, -1, 9};

  // The text with its references expanded; nothing when that has no end.
  std::optional<std::string> expand(std::string text) const;
  std::optional<long> number(const Range& range) const;
  std::string faultOf(const std::string& name, const std::string& value) const;
  std::string requirementFault() const;
  bool isSetting(const std::string& name) const;

  std::string m_sFile;
  std::vector<std::string> m_vLines;
  std::set<std::string> m_vOnCommandLine;
  Properties m_oProperties;
};

// Where what belongs to hostwatch is: beside the program, or else in the prefix that it was
// installed to, unless `inPrefix` is an absolute path.
std::string installedFile(const std::string& besideProgram, const std::string& inPrefix);

}  // namespace hostwatch

#endif
