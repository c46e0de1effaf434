#include "runtime/SystemThreads.h"

#include <dirent.h>
#include <sys/mman.h>

#include <cstddef>
#include <memory>
#include <new>

#include "runtime/SignalRelay.h"

namespace VarnSupport {

namespace {

class DetachedAttributes {
 public:
  DetachedAttributes() {
    pthread_attr_init(&m_oAttributes);
    pthread_attr_setdetachstate(&m_oAttributes, PTHREAD_CREATE_DETACHED);
  }
  DetachedAttributes(const DetachedAttributes&) = delete;
  DetachedAttributes& operator=(const DetachedAttributes&) = delete;
  ~DetachedAttributes() { pthread_attr_destroy(&m_oAttributes); }

  pthread_attr_t* get() { return &m_oAttributes; }

 private:
  pthread_attr_t m_oAttributes{};
};

struct Start {
  const char* name;
  void (*body)(void*);
  void* argument;
};

void* run(void* given) {
  const Start start = *std::unique_ptr<Start>(static_cast<Start*>(given));
  pthread_setname_np(pthread_self(), start.name);
  SignalRelay::adoptCallersMask();
  start.body(start.argument);
  return nullptr;
}

}  // namespace

bool startDetached(const char* name, void (*body)(void*), void* argument) {
  std::unique_ptr<Start> start(new (std::nothrow) Start{name, body, argument});
  if (start == nullptr)
    return false;
  DetachedAttributes attributes;
  pthread_t thread{};
  if (pthread_create(&thread, attributes.get(), run, start.get()) != 0)
    return false;
  static_cast<void>(start.release());
  return true;
}

bool startOnOwnStack(pthread_t& thread, void* (*routine)(void*)) {
  constexpr std::size_t kGuardBytes = std::size_t{1} << 16;  // a page at least
  constexpr std::size_t kStackBytes = std::size_t{1} << 20;
  void* const memory = mmap(nullptr, kGuardBytes + kStackBytes, PROT_NONE,
                            MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0);
  if (memory == MAP_FAILED)
    return false;
  DetachedAttributes attributes;
  void* const stack = static_cast<char*>(memory) + kGuardBytes;
  if (mprotect(stack, kStackBytes, PROT_READ | PROT_WRITE) == 0 &&
      pthread_attr_setstack(attributes.get(), stack, kStackBytes) == 0 &&
      pthread_create(&thread, attributes.get(), routine, nullptr) == 0)
    return true;
  munmap(memory, kGuardBytes + kStackBytes);
  return false;
}

bool isAlone() {
  int tasks = 0;
  DIR* const folder = opendir("/proc/self/task");
  if (folder == nullptr)
    return false;
  while (const dirent* const entry = readdir(folder)) {
    if (entry->d_name[0] != '.')
      ++tasks;
  }
  closedir(folder);
  return tasks <= 2;
}

}  // namespace VarnSupport
