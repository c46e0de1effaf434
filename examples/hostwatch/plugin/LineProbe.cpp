// A plug-in: counts the lines that match a pattern, in all files of a wildcard.
//
//   lines.files=/var/log/*.log     lines.pattern=error     limit.lines=100
#include <fstream>
#include <string>

#include "../Probe.h"

using namespace VarnSupport;

namespace {

double countLines(const hostwatch::Properties& configuration) {
  VarnRegularExpression<std::string> pattern;
  pattern.setPattern(configuration.getProperty("lines.pattern"));
  int count = 0;
  for (VarnFindFile files(configuration.getProperty("lines.files")); files.hasMore();) {
    std::ifstream stream(files.next());
    for (std::string line; std::getline(stream, line);)
      count += pattern.match(line).empty() ? 0 : 1;
  }
  return count;
}

const hostwatch::ProbeRegistration lineProbe("LineProbe", {"lines", "", countLines});

}  // namespace
