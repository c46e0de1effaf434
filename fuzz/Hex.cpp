// Text as hexadecimal digits, and bytes as text.
#include <memory>

#include "Input.h"
#include "VarnSupport/VarnStringUtilities.h"

using namespace VarnSupport;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text = Input(data, size).rest();
  const auto half = std::make_unique<char[]>(size / 2);
  require(VarnHexToBytes(half.get(), text) == static_cast<int>(size / 2),
          "two digits give a byte, whatever they are");

  const std::string hex = VarnBytesToHex(text.data(), static_cast<int>(size));
  const auto bytes = std::make_unique<char[]>(size);
  const int length = VarnHexToBytes(bytes.get(), hex);
  require(text == std::string(bytes.get(), static_cast<std::size_t>(length)),
          "bytes come back from their digits");
  return 0;
}
