#include <vector>

#include "Footprint.h"

namespace {

void loadProperties(const std::string& folder) {
  std::map<std::string, std::vector<std::string>> set;
  std::ifstream stream(Footprint::propertyFile(folder));
  for (std::string line; std::getline(stream, line);) {
    const std::size_t separator = line.find('=');
    if (separator != std::string::npos)
      set[line.substr(0, separator)].push_back(line.substr(separator + 1));
  }
  Footprint::require(set.size() == 100000);
}

}  // namespace

int main(int argc, char** argv) {
  return Footprint::run(argc, argv, {{"properties", loadProperties}});
}
