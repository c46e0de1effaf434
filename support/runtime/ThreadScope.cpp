#include "runtime/ThreadScope.h"

namespace VarnSupport {

constinit thread_local ThreadScope* ThreadScope::t_pInnermost = nullptr;

}  // namespace VarnSupport
