// A wildcard pattern and a name, compared with the definition.
#include <vector>

#include "Input.h"
#include "VarnSupport/VarnFindFile.h"

namespace {

// By rows: which beginnings of the name the pattern's beginning matches.
bool matches(const std::string& pattern, const std::string& name) {
  std::vector<bool> row(name.size() + 1, false);
  row[0] = true;
  for (const char c : pattern) {
    std::vector<bool> next(row.size(), false);
    next[0] = c == '*' && row[0];
    for (std::size_t i = 1; i < row.size(); ++i)
      next[i] = c == '*' ? row[i] || next[i - 1] : row[i - 1] && (c == '?' || c == name[i - 1]);
    row.swap(next);
  }
  return row.back();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  const std::string pattern = input.line().c_str();
  const std::string name = input.rest().c_str();
  require(VarnSupport::FindFileImplementation::IsPatternMatch(pattern.c_str(), name.c_str()) ==
              matches(pattern, name),
          "a name matches as defined");
  return 0;
}
