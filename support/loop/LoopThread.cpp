#include "loop/LoopThread.h"

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <new>
#include <system_error>
#include <utility>

#include "VarnSupport/VarnException.h"

namespace VarnSupport {

namespace {

struct Start {
  std::string name;
  std::function<void()> body;
};

// On the stack of the thread: its destructor runs when the thread is unwound as well.
class Succession {
 public:
  explicit Succession(const Start& start) : m_oStart(start) {}
  Succession(const Succession&) = delete;
  Succession& operator=(const Succession&) = delete;
  ~Succession() {
    if (!m_bDone)
      startLoopThread(m_oStart.name, m_oStart.body);
  }

  void setDone() { m_bDone = true; }

 private:
  const Start& m_oStart;
  bool m_bDone = false;
};

void* runThread(void* argument) {
  const std::unique_ptr<const Start> start(static_cast<const Start*>(argument));
  pthread_setname_np(pthread_self(), start->name.c_str());
  Succession succession(*start);
  start->body();
  succession.setDone();
  return nullptr;
}

}  // namespace

bool startLoopThread(const std::string& name, std::function<void()> body) {
  auto start = std::make_unique<Start>(Start{name, std::move(body)});
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  pthread_t thread{};
  const bool isStarted = pthread_create(&thread, &attributes, runThread, start.get()) == 0;
  pthread_attr_destroy(&attributes);
  if (isStarted)
    static_cast<void>(start.release());
  return isStarted;
}

int aboveStandardStreams(int descriptor) {
  if (descriptor < 0 || descriptor > STDERR_FILENO)
    return descriptor;
  const int above = fcntl(descriptor, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  const int code = errno;
  close(descriptor);
  errno = code;
  return above;
}

void throwSystemError(const std::string& what, int code) {
  throw VarnException(what + ": " + std::generic_category().message(code), code);
}

}  // namespace VarnSupport
