// Below the stack lies a page that nobody may touch, lest a handler that needs too much of it
// writes elsewhere.
#include "runtime/AlternateStack.h"

#include <sys/mman.h>

#include <csignal>
#include <cstddef>

#include "runtime/SignalSet.h"

namespace VarnSupport {

namespace {

constexpr std::size_t kGuardBytes = std::size_t{1} << 12;
// Processors with large registers want some ten KiB for each signal.
constexpr std::size_t kStackBytes = std::size_t{1} << 16;

}  // namespace

constinit std::atomic<bool> AlternateStack::m_bWanted{false};

// A fault whose signal is blocked ends the process without a handler.
void AlternateStack::set() {
  const sigset_t faults = signalSet({SIGSEGV, SIGBUS, SIGFPE});
  pthread_sigmask(SIG_UNBLOCK, &faults, nullptr);
  stack_t present{};
  if (sigaltstack(nullptr, &present) != 0 || (present.ss_flags & SS_DISABLE) == 0)
    return;
  void* const memory = mmap(nullptr, kGuardBytes + kStackBytes, PROT_READ | PROT_WRITE,
                            MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0);
  if (memory == MAP_FAILED)
    return;
  stack_t stack{};
  stack.ss_sp = static_cast<char*>(memory) + kGuardBytes;
  stack.ss_size = kStackBytes;
  if (mprotect(memory, kGuardBytes, PROT_NONE) == 0 && sigaltstack(&stack, nullptr) == 0)
    m_pMemory = memory;
  else
    munmap(memory, kGuardBytes + kStackBytes);
}

// On another thread, or where somebody has set another stack, the memory stays: it may be in use.
void AlternateStack::giveBack() {
  stack_t present{};
  if (sigaltstack(nullptr, &present) != 0 ||
      present.ss_sp != static_cast<char*>(m_pMemory) + kGuardBytes)
    return;
  stack_t none{};
  none.ss_flags = SS_DISABLE;
  if (sigaltstack(&none, nullptr) == 0)
    munmap(m_pMemory, kGuardBytes + kStackBytes);
}

}  // namespace VarnSupport
