// What a thread waits for, and since when, for whoever asks from outside.
#ifndef SUPPORT_RUNTIME_WAITNOTE_H
#define SUPPORT_RUNTIME_WAITNOTE_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <ctime>

#include "runtime/OwnMemory.h"
#include "runtime/ThreadScope.h"

namespace VarnSupport {

// Made where a wait begins that may be long, on the stack of the thread that waits: nobody is told,
// and nothing is locked or allocated.
class WaitNote : public ThreadScopeOf<WaitNote> {
 public:
  enum tKind : int { SECTION, EVENT };

  // The address is that of the state of what is waited for.
  WaitNote(tKind kind, const void* what) : m_eKind(kind), m_pWhat(what), m_nSince(now()) {}

  tKind kind() const { return m_eKind; }
  const void* what() const { return m_pWhat; }
  // In nanoseconds of now().
  std::int64_t since() const { return m_nSince; }

  // Nanoseconds of the monotonic clock, as of its last tick.
  static std::int64_t now() {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &time);
    return std::int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
  }

  // A copy of the innermost note of a thread that goes on meanwhile, by the address of its list of
  // scopes. What is copied may be gone while it is read: it is a hint.
  class Copy {
   public:
    explicit Copy(std::uintptr_t list) {
      const void* scope = nullptr;
      copyOwnMemory(list, &scope, sizeof scope);
      for (int looks = 0; scope != nullptr && looks < kMostScopes; ++looks) {
        if (!copyOwnMemory(reinterpret_cast<std::uintptr_t>(scope), m_aBytes.data(), kHeader))
          return;
        if (isOfKind(kindAddress(), m_aBytes.data())) {
          m_bThere = copyOwnMemory(reinterpret_cast<std::uintptr_t>(scope), m_aBytes.data(),
                                   m_aBytes.size());
          return;
        }
        scope = outerOf(m_aBytes.data());
      }
    }

    // Null when there is none.
    const WaitNote* get() const {
      return m_bThere ? reinterpret_cast<const WaitNote*>(m_aBytes.data()) : nullptr;
    }

   private:
    static constexpr int kMostScopes = 64;
    static constexpr std::size_t kHeader = 2 * sizeof(void*);

    alignas(std::max_align_t) std::array<std::byte, 48> m_aBytes{};
    bool m_bThere = false;
  };

 private:
  const tKind m_eKind;
  const void* const m_pWhat;
  const std::int64_t m_nSince;
};

static_assert(sizeof(WaitNote) <= 48);

}  // namespace VarnSupport

#endif
