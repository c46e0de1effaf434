#include <locale>

#include "Footprint.h"

int main(int argc, char** argv) {
  const std::locale locale("");
  Footprint::require(!locale.name().empty());
  return Footprint::run(argc, argv, {});
}
