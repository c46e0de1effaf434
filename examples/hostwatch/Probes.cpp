// The probes that hostwatch has itself.
#include <sys/statvfs.h>

#include <cctype>
#include <fstream>

#include "Probe.h"

using namespace VarnSupport;

namespace hostwatch {

namespace {

// The first number of a file of /proc.
double firstNumberOf(const std::string& file) {
  std::ifstream stream(file);
  double number = 0;
  if (!(stream >> number))
    throw VarnException("cannot read " + file, 0);
  return number;
}

double load(const Properties&) { return firstNumberOf("/proc/loadavg"); }

double uptimeHours(const Properties&) { return firstNumberOf("/proc/uptime") / 3600; }

// The share of the memory that is not available to new programs.
double memoryPercent(const Properties&) {
  Properties memory;
  memory.loadProperties("/proc/meminfo", ':');
  const double total = std::stod(memory.getProperty("MemTotal"));
  return 100 * (1 - std::stod(memory.getProperty("MemAvailable")) / total);
}

// The share of a file system that is used; "disk.path" names a place in it.
double diskPercent(const Properties& configuration) {
  const std::string path = configuration.getProperty("disk.path", "/");
  struct statvfs system {};
  if (statvfs(path.c_str(), &system) != 0 || system.f_blocks == 0)
    throw VarnException("cannot look at the file system of " + path, 0);
  const auto used = static_cast<double>(system.f_blocks - system.f_bfree);
  return 100 * used / (used + static_cast<double>(system.f_bavail));
}

double processes(const Properties&) {
  int count = 0;
  for (VarnFindFile entries("/proc/*"); entries.hasMore();) {
    const std::string entry = entries.next();
    count += std::isdigit(static_cast<unsigned char>(entry[entry.rfind('/') + 1])) != 0 ? 1 : 0;
  }
  return count;
}

const ProbeRegistration loadProbe("LoadProbe", {"load", "", load});
const ProbeRegistration uptimeProbe("UptimeProbe", {"uptime", "h", uptimeHours});
const ProbeRegistration memoryProbe("MemoryProbe", {"memory", "%", memoryPercent});
const ProbeRegistration diskProbe("DiskProbe", {"disk", "%", diskPercent});
const ProbeRegistration processProbe("ProcessProbe", {"processes", "", processes});

}  // namespace

}  // namespace hostwatch
