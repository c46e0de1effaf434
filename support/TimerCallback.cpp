#include "TimerCallback.h"

namespace VarnSupport {

constinit std::mutex TimerCallback::mutex;
constinit TimerCallback* TimerCallback::first = nullptr;
constinit std::atomic<unsigned> TimerCallback::ended{0};

TimerCallback::TimerCallback(VarnTimer& timer) : m_pTimer(&timer), m_hThread(pthread_self()) {
  const std::lock_guard guard(mutex);
  m_pNext = first;
  first = this;
}

TimerCallback::~TimerCallback() {
  {
    const std::lock_guard guard(mutex);
    TimerCallback** link = &first;
    while (*link != this)
      link = &(*link)->m_pNext;
    *link = m_pNext;
  }
  ended.fetch_add(1);
  ended.notify_all();
}

void TimerCallback::await(const VarnTimer& timer) {
  while (true) {
    const unsigned seen = ended.load();
    if (!isUnderWay(timer))
      return;
    ended.wait(seen);
  }
}

bool TimerCallback::isUnderWay(const VarnTimer& timer) {
  const std::lock_guard guard(mutex);
  for (const TimerCallback* call = first; call != nullptr; call = call->m_pNext) {
    if (call->m_pTimer == &timer && !call->isOwn())
      return true;
  }
  return false;
}

VarnTimer* TimerCallback::dropLost() {
  TimerCallback** link = &first;
  while (*link != nullptr && (*link)->isOwn())
    link = &(*link)->m_pNext;
  if (*link == nullptr)
    return nullptr;
  VarnTimer* const timer = (*link)->m_pTimer;
  *link = (*link)->m_pNext;
  return timer;
}

}  // namespace VarnSupport
