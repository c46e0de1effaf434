// The probes that hostwatch has itself.
#include <sys/statvfs.h>

#include <cctype>
#include <fstream>
#include <string>

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

class LoadProbe : public Probe {
 public:
  LoadProbe() : Probe("load", "") {}
  double measure(const Properties&) override { return firstNumberOf("/proc/loadavg"); }
};

class UptimeProbe : public Probe {
 public:
  UptimeProbe() : Probe("uptime", "h") {}
  double measure(const Properties&) override { return firstNumberOf("/proc/uptime") / 3600; }
};

// The share of the memory that is not available to new programs.
class MemoryProbe : public Probe {
 public:
  MemoryProbe() : Probe("memory", "%") {}
  double measure(const Properties&) override {
    Properties memory;
    memory.loadProperties("/proc/meminfo", ':');
    const double total = std::stod(memory.getProperty("MemTotal"));
    const double available = std::stod(memory.getProperty("MemAvailable"));
    return 100 * (total - available) / total;
  }
};

// The share of a file system that is used; "disk.path" names a place in it.
class DiskProbe : public Probe {
 public:
  DiskProbe() : Probe("disk", "%") {}
  double measure(const Properties& configuration) override {
    const std::string root = "/";
    const std::string path = configuration.getProperty("disk.path", root);
    struct statvfs system {};
    if (statvfs(path.c_str(), &system) != 0 || system.f_blocks == 0)
      throw VarnException("cannot look at the file system of " + path, 0);
    const auto used = static_cast<double>(system.f_blocks - system.f_bfree);
    return 100 * used / (used + static_cast<double>(system.f_bavail));
  }
};

class ProcessProbe : public Probe {
 public:
  ProcessProbe() : Probe("processes", "") {}
  double measure(const Properties&) override {
    int count = 0;
    for (VarnFindFile entries("/proc/*"); entries.hasMore();) {
      const std::string entry = entries.next();
      count += std::isdigit(static_cast<unsigned char>(entry[entry.rfind('/') + 1])) != 0 ? 1 : 0;
    }
    return count;
  }
};

const ProbeRegistration<LoadProbe> loadProbe("LoadProbe");
const ProbeRegistration<UptimeProbe> uptimeProbe("UptimeProbe");
const ProbeRegistration<MemoryProbe> memoryProbe("MemoryProbe");
const ProbeRegistration<DiskProbe> diskProbe("DiskProbe");
const ProbeRegistration<ProcessProbe> processProbe("ProcessProbe");

}  // namespace

}  // namespace hostwatch
