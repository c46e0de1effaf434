// The locale of the process.
#ifndef SUPPORT_RUNTIME_GLOBALLOCALE_H
#define SUPPORT_RUNTIME_GLOBALLOCALE_H

#include <locale>

#include "runtime/BriefGate.h"

namespace VarnSupport {

// It is copied under a lock of the C++ library, which a child of a fork must not find locked.
inline std::locale globalLocale() {
  return BriefGate::inside([] { return std::locale(); });
}

}  // namespace VarnSupport

#endif
