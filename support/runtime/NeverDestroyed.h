// Process-wide objects that other threads may still use while the process exits.
#ifndef SUPPORT_RUNTIME_NEVERDESTROYED_H
#define SUPPORT_RUNTIME_NEVERDESTROYED_H

#include <utility>

namespace VarnSupport {

// Holds a T whose destructor never runs. With a constant initialiser it exists before any code
// runs.
template <typename T>
union NeverDestroyed {
  template <typename... Arguments>
  explicit constexpr NeverDestroyed(Arguments&&... arguments)
      : value(std::forward<Arguments>(arguments)...) {}
  constexpr ~NeverDestroyed() {}

  T value;
};

}  // namespace VarnSupport

#endif
