#include "Footprint.h"
#include "VarnSupport/VarnSupport.h"

using namespace VarnSupport;

namespace {

void loadProperties(const std::string& folder) {
  VarnProperties<std::string> set;
  set.loadProperties(Footprint::propertyFile(folder), '=');
  Footprint::require(set.size() == 100001);  // the group is a key of its own
}

void findPattern(const std::string&) {
  VarnRegularExpression<std::string> expression;
  expression.setPattern("[a-z]+9");
  const std::string text = Footprint::longText();
  unsigned int length = 0;
  Footprint::require(expression.find(text, length, 0) == 0 && length == text.size());
}

void buildTree(const std::string&) {
  const VarnSmartPointer<VarnTreeNode> root(new VarnTreeNode);
  for (int i = 0; i < Footprint::kNodes; ++i)
    root->add(new VarnTreeNode(Footprint::pathOf(i)), ".");
  Footprint::require(root->getNode(Footprint::pathOf(7), ".") != nullptr);
}

void beIdle(const std::string& folder) {
  VarnLogging log(folder + "/ours", VarnLogging::kToFile, 5);
  VarnLogging::setInstance(log);
  VarnLogRecord(5) << "idle";
  VarnTimer timer(60, 0, false);
  timer.start(60, 0, false);
  Footprint::beIdle();
}

}  // namespace

int main(int argc, char** argv) {
  return Footprint::run(argc, argv,
                        {{"properties", loadProperties},
                         {"find", findPattern},
                         {"tree", buildTree},
                         {"idle", beIdle}});
}
