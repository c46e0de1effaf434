#include <re2/re2.h>

#include "Footprint.h"

namespace {

void findPattern(const std::string&) {
  const RE2 expression("[a-z]+9");
  const std::string text = Footprint::longText();
  re2::StringPiece match;
  Footprint::require(expression.Match(text, 0, text.size(), RE2::UNANCHORED, &match, 1));
}

}  // namespace

int main(int argc, char** argv) { return Footprint::run(argc, argv, {{"find", findPattern}}); }
