// A thread that startDetached() makes has its name before its first step, and a place for its
// signal handlers where one is wanted (AlternateStack.h). The relay, on a stack of its own, sees to
// both by itself, and so do the threads that have an object (ThreadControl).
#include "runtime/SystemThreads.h"

#include <dirent.h>
#include <sys/mman.h>

#include <array>
#include <cassert>
#include <cerrno>
#include <cstddef>
#include <memory>
#include <new>
#include <utility>

#include "runtime/AlternateStack.h"

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

  void setMask(const sigset_t& mask) { pthread_attr_setsigmask_np(&m_oAttributes, &mask); }
  pthread_attr_t* get() { return &m_oAttributes; }

 private:
  pthread_attr_t m_oAttributes{};
};

struct Start {
  std::string name;
  std::function<void()> body;
};

// Gives the body back when the thread is unwound, too.
void* run(void* given) {
  const std::unique_ptr<const Start> start(static_cast<const Start*>(given));
  pthread_setname_np(pthread_self(), start->name.c_str());
  const AlternateStack stack;
  start->body();
  return nullptr;
}

}  // namespace

// A name of that length needs no memory.
int startDetached(const std::string& name, std::function<void()> body, const sigset_t* mask,
                  pthread_t* started) noexcept {
  assert(name.size() <= 15 && body != nullptr);
  std::unique_ptr<Start> start(new (std::nothrow) Start{name, std::move(body)});
  if (start == nullptr)
    return ENOMEM;
  DetachedAttributes attributes;
  if (mask != nullptr)
    attributes.setMask(*mask);
  pthread_t thread{};
  const int error =
      pthread_create(started != nullptr ? started : &thread, attributes.get(), run, start.get());
  if (error == 0)
    static_cast<void>(start.release());
  return error;
}

std::string nameOfThread() {
  std::array<char, 16> name{};
  pthread_getname_np(pthread_self(), name.data(), name.size());
  return name.data();
}

bool startOnOwnStack(pthread_t& thread, void* (*routine)(void*)) {
  assert(routine != nullptr);
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
