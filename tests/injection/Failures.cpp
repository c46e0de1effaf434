#include "Failures.h"

#include <dlfcn.h>
#include <poll.h>
#include <pthread.h>

#include <cerrno>
#include <cstdarg>
#include <new>

#include "TestTools.h"

extern "C" void letCallsSucceed();  // also when the counts of covered lines are written

namespace {

constinit std::atomic<int> everyOf[2] = {0, 0};  // by kind; 0: none fails
constinit std::atomic<int> calls{0};
constinit std::atomic<int> failed{0};

bool fails(Failures::tKind kind, int error) {
  const int every = everyOf[kind].load();
  if (every == 0 || ++calls % every != 0 || failed == Failures::kMost)
    return false;
  ++failed;
  errno = error;
  return true;
}

// The function that this program stands in front of.
template <typename Result, typename... Arguments>
class Real {
 public:
  explicit constexpr Real(const char* name) : m_sName(name) {}
  Result operator()(Arguments... arguments) {
    auto* function = m_pFunction.load(std::memory_order_relaxed);
    if (function == nullptr)
      m_pFunction = function =
          reinterpret_cast<Result (*)(Arguments...)>(dlsym(RTLD_NEXT, m_sName));
    return function(arguments...);
  }

 private:
  const char* m_sName;
  std::atomic<Result (*)(Arguments...)> m_pFunction{nullptr};
};

[[maybe_unused]] constinit Real<void*, std::size_t> realMalloc("malloc");
[[maybe_unused]] constinit Real<void*, void*, std::size_t> realRealloc("realloc");
constinit Real<int, pthread_t*, const pthread_attr_t*, void* (*)(void*), void*> realCreate(
    "pthread_create");
constinit Real<pid_t> realFork("fork");
[[maybe_unused]] constinit Real<int, int*> realPipe("pipe");
constinit Real<int, int, int> realDup2("dup2");
constinit Real<int, const char*, int, mode_t> realOpen("open");
constinit Real<std::FILE*, const char*, const char*> realFopen("fopen");
constinit Real<ssize_t, int, const void*, std::size_t> realWrite("write");
constinit Real<int, pollfd*, nfds_t, const timespec*, const sigset_t*> realPpoll("ppoll");

bool noMemory() { return fails(Failures::MEMORY, ENOMEM); }

}  // namespace

Failures::Failures(tKind kind, int every) {
  calls = 0;
  everyOf[kind] = every;
}

Failures::~Failures() { letCallsSucceed(); }

std::atomic<void (*)()> Failures::beforeThreadFails{nullptr};

int Failures::count() { return failed; }

extern "C" {

void letCallsSucceed() {
  for (auto& every : everyOf)
    every = 0;
}

// Behind another malloc() the sanitizers do not start, and they use pipe() for checks of their own.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
void* malloc(std::size_t size) noexcept { return noMemory() ? nullptr : realMalloc(size); }

void* realloc(void* block, std::size_t size) noexcept {
  return noMemory() ? nullptr : realRealloc(block, size);
}

int pipe(int* ends) noexcept { return fails(Failures::SYSTEM, EMFILE) ? -1 : realPipe(ends); }
#endif

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*routine)(void*),
                   void* argument) noexcept {
  if (!fails(Failures::SYSTEM, 0))
    return realCreate(thread, attributes, routine, argument);
  if (void (*const hook)() = Failures::beforeThreadFails)
    hook();
  return EAGAIN;
}

pid_t fork() noexcept { return fails(Failures::SYSTEM, EAGAIN) ? -1 : realFork(); }

pid_t vfork() noexcept { return fork(); }

int dup2(int from, int to) noexcept {
  return fails(Failures::SYSTEM, EMFILE) ? -1 : realDup2(from, to);
}

int open(const char* name, int flags, ...) {
  std::va_list list;
  va_start(list, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(list, mode_t) : 0;
  va_end(list);
  return fails(Failures::SYSTEM, EMFILE) ? -1 : realOpen(name, flags, mode);
}

std::FILE* fopen(const char* name, const char* mode) {
  return fails(Failures::SYSTEM, EMFILE) ? nullptr : realFopen(name, mode);
}

ssize_t write(int descriptor, const void* bytes, std::size_t count) {
  return fails(Failures::SYSTEM, ENOSPC) ? -1 : realWrite(descriptor, bytes, count);
}

int ppoll(pollfd* polled, nfds_t count, const timespec* time, const sigset_t* mask) {
  return fails(Failures::SYSTEM, ENOMEM) ? -1 : realPpoll(polled, count, time, mask);
}

}  // extern "C"

void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return noMemory() ? nullptr : std::malloc(size);
}

void* operator new(std::size_t size) {
  void* const block = operator new(size, std::nothrow);
  if (block == nullptr)
    throw std::bad_alloc();
  return block;
}

void operator delete(void* block) noexcept { std::free(block); }
void operator delete(void* block, std::size_t) noexcept { std::free(block); }
