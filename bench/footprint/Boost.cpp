#include <boost/property_tree/ini_parser.hpp>
#include <boost/property_tree/ptree.hpp>

#include "Footprint.h"

namespace {

using Tree = boost::property_tree::ptree;

void loadProperties(const std::string& folder) {
  Tree set;
  boost::property_tree::read_ini(Footprint::propertyFile(folder), set);
  Footprint::require(set.get_child("all").size() == 100000);
}

void buildTree(const std::string&) {
  Tree root;
  for (int i = 0; i < Footprint::kNodes; ++i)
    root.put(Footprint::pathOf(i), "");
  Footprint::require(static_cast<bool>(root.get_child_optional(Footprint::pathOf(7))));
}

}  // namespace

int main(int argc, char** argv) {
  return Footprint::run(argc, argv, {{"properties", loadProperties}, {"tree", buildTree}});
}
