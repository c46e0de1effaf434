// A thread of the loop may be ended by a function that it calls, with pthread_exit() or by a
// cancellation. The loop needs it all the same, so the thread starts its successor while its stack
// is being unwound.
#include "loop/LoopThread.h"

#include <new>
#include <utility>

#include "VarnSupport/VarnException.h"
#include "runtime/System.h"
#include "runtime/SystemThreads.h"

namespace VarnSupport {

namespace {

// On the stack of the thread: its destructor runs when the thread is unwound as well.
class Succession {
 public:
  Succession(const std::string& name, const std::function<void()>& body)
      : m_sName(name), m_oBody(body) {}
  Succession(const Succession&) = delete;
  Succession& operator=(const Succession&) = delete;
  ~Succession() {
    try {
      if (!m_bDone)
        startLoopThread(m_sName, m_oBody);
    } catch (const std::bad_alloc&) {
      // There is none then, as when the system has no thread to give.
    }
  }

  void setDone() { m_bDone = true; }

 private:
  const std::string& m_sName;
  const std::function<void()>& m_oBody;
  bool m_bDone = false;
};

}  // namespace

bool startLoopThread(const std::string& name, std::function<void()> body) {
  return startDetached(name, [name, body = std::move(body)] {
           Succession succession(name, body);
           body();
           succession.setDone();
         }) == 0;
}

void throwSystemError(const std::string& what, int code) {
  throw VarnException(what + ": " + errorText(code), code);
}

}  // namespace VarnSupport
