// Lines that declare options and arguments, each behind a character for its kind, an empty line,
// and an element of a command line on each of the lines that follow.
#include <memory>
#include <optional>
#include <vector>

#include "Input.h"
#include "VarnSupport/VarnOptionTable.h"

using namespace VarnSupport;

namespace {

struct Target {
  bool flag = false;
  int whole = 0;
  float real = 0;
  std::string text;
  std::vector<std::string> texts;
};

void declare(VarnOptionTable& table, const std::string& line, Target& target) {
  const std::string names = line.substr(1);
  try {
    switch (line[0]) {
      case 'f':
        table.flag(names, names, target.flag);
        break;
      case 'i':
        table.number(names, names, target.whole, -5, 5);
        break;
      case 'r':
        table.number(names, names, target.real);
        break;
      case 'v':
        table.value(names, names, target.text);
        break;
      case 'm':
        table.values(names, names, target.texts);
        break;
      default:
        table.argument(names, names);
    }
  } catch (const VarnException& error) {
    require(error.getCode() == 0, "a declaration is refused with the code 0");
  }
}

// Elements in arrays of their own, so that nothing may be read beyond them.
std::vector<std::unique_ptr<char[]>> elementsOf(Input& input) {
  std::vector<std::unique_ptr<char[]>> elements;
  while (!input.isEmpty()) {
    const std::string element = input.line();
    elements.push_back(std::make_unique<char[]>(element.size() + 1));
    element.copy(elements.back().get(), element.size());
  }
  return elements;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  VarnOptionTable table("program", "1", input.line());
  // What is asked for is not printed over and over.
  Target target;
  for (const char* const name : {"f-h, --help", "f-V, --version", "f--completion"})
    declare(table, std::string(name), target);
  for (std::string line = input.line(); !line.empty(); line = input.line())
    declare(table, line, target);
  require(table.usage().back() == '\n' && table.manual().back() == '\n' &&
              table.completion().back() == '\n',
          "texts end with a line feed");

  const auto elements = elementsOf(input);
  std::vector<const char*> argv(1, "program");
  for (const auto& element : elements)
    argv.push_back(element.get());
  try {
    require(!table.parse(static_cast<int>(argv.size()), argv.data()), "nothing is to be answered");
    require(table.arguments().size() <= elements.size(), "an argument is an element");
    require(target.whole >= -5 && target.whole <= 5, "a number is in its range");
  } catch (const VarnOptionError& error) {
    require(error.getCode() == 2 && !error.getText().empty(), "a refusal has its code and a text");
    for (const char c : error.getText())
      require(static_cast<unsigned char>(c) >= ' ' && c != '\x7f', "a refusal is one line");
    require(table.arguments().empty() && table.values().size() == 0, "nothing is found then");
    require(!target.flag && target.whole == 0 && target.text.empty() && target.texts.empty(),
            "and nothing is changed");
  }
  return 0;
}
