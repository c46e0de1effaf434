#include "VarnSupport/VarnLibraryVersion.h"

namespace VarnSupport {

static_assert(VSUPT_VERSION_MAJOR == VSUPT_PROJECT_VERSION_MAJOR &&
                  VSUPT_VERSION_MINOR == VSUPT_PROJECT_VERSION_MINOR &&
                  VSUPT_VERSION_PATCH == VSUPT_PROJECT_VERSION_PATCH,
              "the header and the build name different versions");

int VarnGetLibraryVersion() noexcept { return VSUPT_VERSION; }

}  // namespace VarnSupport
