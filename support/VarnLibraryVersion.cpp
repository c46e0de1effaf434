#include "VarnSupport/VarnLibraryVersion.h"

namespace VarnSupport {

static_assert(VSUPT_VERSION == VSUPT_BUILT_VERSION,
              "the header and the build name different versions");

int VarnGetLibraryVersion() noexcept { return VSUPT_VERSION; }

}  // namespace VarnSupport
