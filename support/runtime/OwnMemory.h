// Memory of this process that may not be there.
#ifndef SUPPORT_RUNTIME_OWNMEMORY_H
#define SUPPORT_RUNTIME_OWNMEMORY_H

#include <cstddef>
#include <cstdint>
#include <span>

namespace VarnSupport {

// Copies what lies at an address, by the system: false where nothing lies there that can be read,
// or where the system refuses. Other threads may be changing it. Async-signal-safe.
bool copyOwnMemory(std::uintptr_t from, void* to, std::size_t bytes);

template <typename Value>
bool copyOwnMemory(std::uintptr_t from, Value& to) {
  return copyOwnMemory(from, &to, std::span(&to, 1).size_bytes());
}

}  // namespace VarnSupport

#endif
