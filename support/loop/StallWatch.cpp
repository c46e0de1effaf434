// A timer of the system (timerfd) wakes the thread a second after the first of the calls began that
// are under way; those that began later it is set for then. When a thread that makes calls has
// nothing more to do and no other is at work, the timer is taken back: two calls of the system for
// a series of calls, and no wake-up.
#include "loop/StallWatch.h"

#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <cstdint>
#include <new>
#include <utility>

#include "log/OwnRecords.h"
#include "loop/LoopLock.h"
#include "loop/LoopObject.h"
#include "loop/LoopThread.h"
#include "runtime/LinkedNodes.h"

namespace VarnSupport {

namespace {

// Without memory nothing is told.
void noteDescription(std::vector<std::string>& descriptions, const LoopObject& object) {
  try {
    descriptions.push_back(object.describe());
  } catch (const std::bad_alloc&) {
    return;
  }
}

}  // namespace

// Workers are linked where they lie, on the stacks of their threads.
StallWatch::Worker::Worker(StallWatch& watch, const std::size_t* waiting)
    : m_oWatch(watch), m_pWaiting(waiting) {
  const LoopLock lock;
  m_pNext = watch.m_pWorkers;
  watch.m_pWorkers = this;
}

StallWatch::Worker::~Worker() {
  const LoopLock lock;
  takeOut(m_oWatch.m_pWorkers, *this, &Worker::m_pNext);
}

void StallWatch::Worker::begin(const LoopObject& object, MonotonicTime now) {
  assert(LoopLock::isHeld() && m_pObject == nullptr);
  m_pObject = &object;
  m_oBegin = now;
  m_bTold = false;
  if (!m_oWatch.m_bArmed)
    m_oWatch.arm(now + kPatience);
}

void StallWatch::ensureRunning() {
  assert(LoopLock::isHeld());
  m_bStopping = false;
  if (m_bRunning)
    return;
  if (!m_oTimer.isOpen())
    m_oTimer = Descriptor(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC));
  m_bRunning = m_oTimer.isOpen() && startLoopThread("vsupt-stalls", [this] { run(); });
}

void StallWatch::stop() {
  assert(LoopLock::isHeld());
  m_bStopping = true;
  arm(monotonicNow());
}

void StallWatch::arm(MonotonicTime time) {
  assert(LoopLock::isHeld());
  itimerspec value{};
  value.it_value = toTimespec(time);
  m_bArmed =
      m_oTimer.isOpen() && timerfd_settime(m_oTimer.get(), TFD_TIMER_ABSTIME, &value, nullptr) == 0;
}

void StallWatch::disarmIfIdle() {
  assert(LoopLock::isHeld());
  if (!m_bArmed || m_bStopping)
    return;
  for (const Worker* worker = m_pWorkers; worker != nullptr; worker = worker->m_pNext) {
    if (worker->m_pObject != nullptr)
      return;
  }
  const itimerspec none{};
  timerfd_settime(m_oTimer.get(), 0, &none, nullptr);
  m_bArmed = false;
}

// Sets the timer for the calls that are not stalled yet.
std::vector<std::string> StallWatch::takeStalled() {
  assert(LoopLock::isHeld());
  std::vector<std::string> stalled;
  const MonotonicTime now = monotonicNow();
  MonotonicTime next = MonotonicTime::max();
  m_bArmed = false;
  for (Worker* worker = m_pWorkers; worker != nullptr; worker = worker->m_pNext) {
    if (worker->m_pObject == nullptr || worker->m_bTold)
      continue;
    if (worker->m_oBegin + kPatience > now) {
      next = std::min(next, worker->m_oBegin + kPatience);
    } else if (!worker->holdsUpOthers()) {
      next = std::min(next, now + kPatience);
    } else {
      worker->m_bTold = true;
      noteDescription(stalled, *worker->m_pObject);
    }
  }
  if (next != MonotonicTime::max())
    arm(next);
  return stalled;
}

// Records are written without the lock, by this thread alone: the log may be what hangs.
void StallWatch::run() {
  while (true) {
    std::uint64_t expiries = 0;
    const ssize_t length =
        retrying([&] { return read(m_oTimer.get(), &expiries, sizeof expiries); });
    std::vector<std::string> stalled;
    {
      const LoopLock lock;
      if (std::exchange(m_bStopping, false) || length < 0) {
        m_bRunning = m_bArmed = false;
        return;
      }
      stalled = takeStalled();
    }
    if (!stalled.empty())
      ProcessExit::watch();
    for (const std::string& object : stalled)
      OwnRecords::write(OwnRecords::FAILURE, object,
                        ": the function runs for more than a second; others wait for its thread");
  }
}

}  // namespace VarnSupport
