// Two versions and a list of ranges.
#include "Input.h"
#include "VarnSupport/VarnVersion.h"

using namespace VarnSupport;

namespace {

VarnVersion parsed(const std::string& text) {
  try {
    return VarnVersion(text);
  } catch (const VarnException&) {
    return VarnVersion();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  const VarnVersion left = parsed(input.line());
  const VarnVersion right = parsed(input.line());
  const unsigned int order = VarnVersion::compare(left, right);
  const unsigned int opposite = order == 0 ? 0 : 3 - order;
  require(opposite == VarnVersion::compare(right, left), "a comparison turns round");
  const std::string text = left.toString();
  require(text[0] == '.' || VarnVersion::compare(left, VarnVersion(text)) == 0,
          "a version comes back from its text");
  try {
    for (const auto& range : VarnVersion::createRangeVector(input.rest()))
      require(!VarnVersionRange()(range, left) || VarnVersion::compare(range.first, left) != 2,
              "nothing below a range is in it");
  } catch (const VarnException&) {
    return 0;
  }
  return 0;
}
