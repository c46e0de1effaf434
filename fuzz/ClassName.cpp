// Run-time type names of any form.
#include <stdexcept>

#include "Input.h"
#include "VarnSupport/VarnObjectBase.h"

namespace {

// Of a count that is one character.
constexpr std::size_t kMostComponents = 127 - '0';

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string rawName = Input(data, size).rest();
  try {
    const std::string name = VarnSupport::VarnObjectBase::normalizeClassName(rawName);
    require(name.size() <= 3 * rawName.size() + 2 * kMostComponents,
            "a name grows by its separators alone");
  } catch (const std::out_of_range&) {
    return 0;
  }
  return 0;
}
