// The version of the library: that of the headers, to compile by, and that of the shared object
// that a program runs with. Programs run with any later one of the same major version.
#ifndef VARNSUPPORT_VARNLIBRARYVERSION_H
#define VARNSUPPORT_VARNLIBRARYVERSION_H

#include "VarnSupport/VarnExport.h"

#define VSUPT_VERSION_MAJOR 1
#define VSUPT_VERSION_MINOR 1
#define VSUPT_VERSION_PATCH 0
// 10203 for 1.2.3.
#define VSUPT_VERSION \
  (VSUPT_VERSION_MAJOR * 10000 + VSUPT_VERSION_MINOR * 100 + VSUPT_VERSION_PATCH)

namespace VarnSupport {

// What VSUPT_VERSION was when the shared object was built.
VSUPT_EXPORT int VarnGetLibraryVersion() noexcept;

}  // namespace VarnSupport

#endif
