// What the calling thread is inside of, for code further in that has no other way to it.
//
// All kinds of scopes share one list for each thread. A variable of the thread for each of them
// would take from the little memory that the loader keeps for such variables of libraries which
// programs load late.
#ifndef SUPPORT_RUNTIME_THREADSCOPE_H
#define SUPPORT_RUNTIME_THREADSCOPE_H

#include <cassert>

namespace VarnSupport {

// A member of the list. Objects are local variables, and so end in the reverse order.
class ThreadScope {
 public:
  ThreadScope(const ThreadScope&) = delete;
  ThreadScope& operator=(const ThreadScope&) = delete;

  // Where the calling thread has its list: for who looks at those of other threads.
  static const void* list() { return &t_pInnermost; }

 protected:
  explicit ThreadScope(const void* kind) : m_pKind(kind), m_pOuter(t_pInnermost) {
    t_pInnermost = this;
  }
  ~ThreadScope() {
    assert(t_pInnermost == this);
    t_pInnermost = m_pOuter;
  }

  static ThreadScope* innermost(const void* kind) { return find(t_pInnermost, kind); }
  ThreadScope* outer() const { return find(m_pOuter, m_pKind); }

  // For copies of the first bytes of a scope.
  static bool isOfKind(const void* kind, const void* copy) {
    return static_cast<const ThreadScope*>(copy)->m_pKind == kind;
  }
  static const void* outerOf(const void* copy) {
    return static_cast<const ThreadScope*>(copy)->m_pOuter;
  }

 private:
  static ThreadScope* find(ThreadScope* scope, const void* kind) {
    while (scope != nullptr && scope->m_pKind != kind)
      scope = scope->m_pOuter;
    return scope;
  }

  static constinit thread_local ThreadScope* t_pInnermost;

  const void* const m_pKind;
  ThreadScope* const m_pOuter;
};

// The base of the scopes of one kind, `Scope`.
template <typename Scope>
class ThreadScopeOf : protected ThreadScope {
 public:
  // The innermost scope of this kind on the calling thread, or null.
  static Scope* innermost() { return static_cast<Scope*>(of(ThreadScope::innermost(&kind))); }
  // The next one of this kind around this one, or null.
  Scope* outer() const { return static_cast<Scope*>(of(ThreadScope::outer())); }

 protected:
  ThreadScopeOf() : ThreadScope(&kind) {}
  ~ThreadScopeOf() = default;

  static const void* kindAddress() { return &kind; }

 private:
  static ThreadScopeOf* of(ThreadScope* scope) { return static_cast<ThreadScopeOf*>(scope); }

  static constexpr char kind = 0;
};

}  // namespace VarnSupport

#endif
