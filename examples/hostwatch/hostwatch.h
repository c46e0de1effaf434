// What hostwatch is made of: its configuration, its texts, samples of its probes, the service.
#ifndef HOSTWATCH_HOSTWATCH_H
#define HOSTWATCH_HOSTWATCH_H

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "Probe.h"

namespace hostwatch {

// It never changes: a reload makes another one, and whoever uses the old one keeps it meanwhile.
struct Config {
  // What is wrong becomes a fault of `settings`, whose finish() is for the caller; that includes
  // what keeps a service from its work on this host.
  explicit Config(VarnSupport::VarnSettings& settings, bool isForService = true);

  std::string host;
  std::string title;
  std::vector<VarnSupport::VarnSmartPointer<Probe>> probes;
  std::map<std::string, double> limits;  // by name of the probe
  std::chrono::seconds interval;
  int logLevel;
  std::string logFile;  // empty for standard error
  std::string pidFile;  // empty for none
  // A program and its arguments, with references to <name>, <value> and <limit>; empty for none.
  std::vector<std::string> alertCommand;
  std::chrono::milliseconds alertTimeout;
  Properties all;  // what probes are shown
};

using Values = std::map<std::string, std::string>;

// `text` with its <name> references replaced by the values, in which nothing is replaced.
std::string replaced(const std::string& text, const Values& values);
// A text in the language of the environment, with the values in it.
std::string message(const std::string& key, const Values& values = {});
// Throws VarnException when a text is missing: better at the start than when it is needed.
void checkMessages();
// Where what belongs to hostwatch is: beside the program, or else in the prefix that it was
// installed to, unless `inPrefix` is an absolute path.
std::string installedFile(const std::string& besideProgram, const std::string& inPrefix);

// One value of one probe.
struct Sample {
  Sample(const Probe& probe, const Config& config);

  bool isOver() const { return error.empty() && limit && value > *limit; }

  std::string name;
  std::string unit;
  double value = 0;
  std::optional<double> limit;
  std::string error;  // why there is no value; else empty
};

// "41.3", without more digits than mean something.
std::string format(double value);
// Prints a table with a bar per value, coloured on a terminal; or one JSON object on one line.
void printTable(const std::vector<Sample>& samples, const std::string& title);
void printJson(const std::vector<Sample>& samples, const std::string& host);

// Runs until it is told to stop; false when it could not start, or not go on. Without a log file
// the log goes to standard error, which a daemon gives up.
bool runService(VarnSupport::VarnReloaded<Config>& config, bool asDaemon);

}  // namespace hostwatch

#endif
