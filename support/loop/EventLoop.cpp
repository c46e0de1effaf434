// One round: what is due is put in line, the thread waits for the first deadline or an event, what
// has come is put in line, and the line as it is then is called. What comes up in calls is for the
// next round, so that nobody is left out.
//
// Who sets a deadline wakes the thread only if it would look later than that. A deadline that is
// taken back leaves it as it is: the thread looks once in vain.
#include "loop/EventLoop.h"

#include <poll.h>

#include <cassert>
#include <cerrno>
#include <thread>

#include "VarnSupport/VarnException.h"
#include "log/OwnRecords.h"
#include "loop/LoopThread.h"
#include "runtime/Fork.h"

namespace VarnSupport {

namespace {

// How long the thread stays when there is no object any more.
constexpr std::chrono::seconds kLinger{1};
constexpr std::chrono::milliseconds kBeforeAnotherTry{10};  // to make the epoll object anew

// For systems before 5.11, whose epoll counts whole milliseconds: ppoll() waits to the nanosecond.
int waitWithoutTimeout(int epoll, epoll_event* events, int size, const timespec* left) {
  pollfd descriptor{epoll, POLLIN, 0};
  const int ready = ppoll(&descriptor, 1, left, nullptr);
  return ready <= 0 ? ready : epoll_wait(epoll, events, size, 0);
}

}  // namespace

constinit EventLoop* EventLoop::m_pCurrent = nullptr;

EventLoop& EventLoop::current() {
  assert(LoopLock::isHeld());
  if (m_pCurrent == nullptr)
    m_pCurrent = new EventLoop;
  return *m_pCurrent;
}

EventLoop::EventLoop() { m_oDescriptors.open(); }

EventLoop::Deadlines::Slot EventLoop::addObject(LoopObject& object) {
  assert(LoopLock::isHeld());
  ensureRunning();
  const Deadlines::Slot slot = m_oDeadlines.acquire(object);
  ++m_nObjects;
  return slot;
}

void EventLoop::removeObject(Deadlines::Slot slot) {
  assert(LoopLock::isHeld() && m_nObjects > 0);
  m_oDeadlines.release(slot);
  if (--m_nObjects == 0)
    wakeFor(monotonicNow() + kLinger);
}

void EventLoop::setDeadline(Deadlines::Slot slot, MonotonicTime deadline) {
  assert(LoopLock::isHeld());
  m_oDeadlines.set(slot, deadline);
  wakeFor(deadline);
}

void EventLoop::wakeFor(MonotonicTime deadline) {
  assert(LoopLock::isHeld());
  if (deadline >= m_oNextLook)
    return;
  m_oNextLook = deadline;
  LoopLock::wakeLater(m_oDescriptors.wakeDescriptor());
}

void EventLoop::openFolders() {
  assert(LoopLock::isHeld());
  if (m_oFolders.isOpen())
    return;
  m_oFolders.open();
  if (m_oDescriptors.addOwn(m_oFolders.descriptor(), DescriptorSet::kFoldersKey))
    return;
  const int error = errno;
  m_oFolders.close();
  throwSystemError("VarnFileWatch", error);
}

// From here on no call begins: what looks whether the exit has begun does so under the lock.
void EventLoop::awaitCallsAtExit() {
  { const LoopLock behindThoseThatHaveLooked; }
  LoopCalls::awaitAllAtExit();
}

void EventLoop::ensureRunning() {
  assert(LoopLock::isHeld());
  ProcessExit::callAtBegin(&EventLoop::awaitCallsAtExit);
  if (!m_bRunning)
    m_bRunning = startLoopThread("vsupt-loop", [this] { run(); });
  if (!m_bRunning)
    throw VarnException("vsupt-loop: the system refuses a thread", 0);
  m_oStalls.ensureRunning();
}

void EventLoop::run() {
  StallWatch::Worker worker(m_oStalls);
  LoopLock lock;
  while (waitForWork(lock, worker)) {
    const std::size_t round = m_oQueue.size();
    lock.unlock();
    for (std::size_t call = 0; call < round && m_oQueue.callFirst(worker); ++call) {
    }
    lock.lock();
  }
}

// False when the thread is to end: there is nothing left to wait for, the process exits, or this is
// the child of a fork in a call. While the thread is awake its next look counts as past, so that
// nobody wakes it: it looks at all deadlines before it sleeps.
bool EventLoop::waitForWork(LoopLock& lock, StallWatch::Worker& worker) {
  if (!isCurrent(this) || ProcessExit::hasBegun())
    return false;
  pendDue();
  const bool isUnused = m_nObjects == 0;
  MonotonicTime until = isUnused ? monotonicNow() + kLinger : m_oDeadlines.first();
  if (m_oQueue.size() > 0)
    until = MonotonicTime();
  else
    worker.rest();
  m_oNextLook = until;
  lock.unlock();
  Events events;
  const int count = wait(events, until);
  lock.lock();
  m_oNextLook = MonotonicTime::min();
  if (isUnused && m_nObjects == 0 && count == 0 && monotonicNow() >= until) {
    m_bRunning = false;
    m_oStalls.stop();
    return false;
  }
  take(events, count);
  const bool isWhole = m_oDescriptors.repair(count < 0);
  const std::vector<int> closed = m_oDescriptors.takeClosed();
  if (closed.empty() && isWhole)
    return true;
  lock.unlock();
  for (const int descriptor : closed)
    OwnRecords::write(OwnRecords::FAILURE, "VarnDescriptorEvent of descriptor ", descriptor,
                      ": it was closed before the object, which is called no more");
  if (!isWhole)
    std::this_thread::sleep_for(kBeforeAnotherTry);
  lock.lock();
  return true;
}

// Below zero when the epoll object is gone.
int EventLoop::wait(Events& events, MonotonicTime until) const {
  timespec left{};
  if (until != MonotonicTime::max())
    left = timeLeft(until);
  const timespec* const timeout = until != MonotonicTime::max() ? &left : nullptr;
  const int epoll = m_oDescriptors.epoll();
  const int size = static_cast<int>(events.size());
  int count = epoll_pwait2(epoll, events.data(), size, timeout, nullptr);
  if (count < 0 && (errno == ENOSYS || errno == EPERM))
    count = waitWithoutTimeout(epoll, events.data(), size, timeout);
  return count < 0 && errno == EINTR ? 0 : count;
}

void EventLoop::take(const Events& events, int count) {
  pendDue();
  for (int i = 0; i < count; ++i) {
    const epoll_event& event = events[static_cast<std::size_t>(i)];
    if (event.data.u64 == DescriptorSet::kFoldersKey)
      m_oFolders.read();
    else if (event.data.u64 != DescriptorSet::kWakeKey)
      m_oDescriptors.deliver(event);
  }
}

void EventLoop::pendDue() {
  assert(LoopLock::isHeld());
  if (m_oDeadlines.first() == Deadlines::kNever)
    return;
  const MonotonicTime now = monotonicNow();
  while (LoopObject* const object = m_oDeadlines.takeDue(now))
    object->onDeadline();
}

struct EventLoop::Fork {
  static void prepare() {
    LoopLock::prepareFork();
    LoopCalls::lockList();
    PoolThread::lockList();
  }

  // The child only closes: what the descriptors stand for is shared with the parent.
  static void release(ForkSide side) {
    if (side == ForkSide::CHILD) {
      LoopCalls::forgetLost();
      PoolThread::forgetLost();
      if (m_pCurrent != nullptr)
        leaveBehind(*m_pCurrent);
      m_pCurrent = nullptr;
    }
    PoolThread::unlockList();
    LoopCalls::unlockList();
    LoopLock::releaseFork(side);
  }

 private:
  static void leaveBehind(EventLoop& loop) {
    loop.m_oDescriptors.closeInChild();
    loop.m_oFolders.close();
    loop.m_oStalls.closeInChild();
    keepForever(&loop);
  }
};

constinit const ForkPart loopFork{&EventLoop::Fork::prepare, &EventLoop::Fork::release};

}  // namespace VarnSupport
