#include "runtime/OwnMemory.h"

#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

namespace VarnSupport {

bool copyOwnMemory(std::uintptr_t from, void* to, std::size_t bytes) {
  const iovec there{to, bytes};
  const iovec here{reinterpret_cast<void*>(from), bytes};
  return syscall(SYS_process_vm_readv, getpid(), &there, 1UL, &here, 1UL, 0UL) ==
         static_cast<long>(bytes);
}

}  // namespace VarnSupport
