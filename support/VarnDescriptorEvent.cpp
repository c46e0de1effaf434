// What has come for an object is gathered until its call takes it. From the moment at which the
// system tells of a descriptor that is told of once, to the end of the call, the object is busy,
// and the descriptor is not looked at: whatever ends the call, or makes it needless, releases it.
// A call whose descriptor was closed meanwhile is for nobody, and is not made.
#include "VarnSupport/VarnDescriptorEvent.h"

#include <sys/epoll.h>

#include <cassert>
#include <string>
#include <utility>

#include "loop/Callee.h"
#include "loop/DescriptorSet.h"
#include "loop/EventLoop.h"
#include "runtime/Cancellation.h"

namespace VarnSupport {

namespace {

using Event = VarnDescriptorEvent;

constexpr unsigned kAll = Event::READABLE | Event::WRITABLE | Event::HUNG_UP;

unsigned toSystem(unsigned wanted) {
  unsigned events = 0;
  if ((wanted & Event::READABLE) != 0)
    events |= EPOLLIN;
  if ((wanted & Event::WRITABLE) != 0)
    events |= EPOLLOUT;
  if ((wanted & Event::HUNG_UP) != 0)
    events |= EPOLLRDHUP;
  return events;
}

// What of the system's events is for an object that wants `wanted`.
unsigned fromSystem(unsigned events, unsigned wanted) {
  unsigned come = 0;
  if ((events & EPOLLIN) != 0)
    come |= Event::READABLE;
  if ((events & EPOLLOUT) != 0)
    come |= Event::WRITABLE;
  if ((events & EPOLLRDHUP) != 0)
    come |= Event::HUNG_UP;
  come &= wanted;
  if (wanted != 0 && (events & (EPOLLHUP | EPOLLERR)) != 0)
    come |= Event::HUNG_UP;
  return come;
}

}  // namespace

struct VSUPT_LOCAL VarnDescriptorEvent::State final : Callee, DescriptorListener {
  State(int itsDescriptor, unsigned events, Function itsFunction, const VarnCallbackPool* pool)
      : Callee("VarnDescriptorEvent", itsFunction != nullptr, pool),
        DescriptorListener(itsDescriptor, (events & EDGE) != 0, pool != nullptr),
        function(std::move(itsFunction)),
        wantedEvents(events & kAll) {}

  void setWantedLocked(unsigned events);

  std::string describe() const override {
    return std::string(kind()) + " of descriptor " + std::to_string(descriptor());
  }
  unsigned wanted() const override { return toSystem(wantedEvents); }
  bool hear(unsigned events) override;

  void enterLoop() override {
    const LoopLock lock;
    enlist();
    loop().descriptors().add(*this);
  }
  void beginCall(MonotonicTime) override {
    noteFirstCall();
    coming = std::exchange(come, 0);
    if (!loop().descriptors().isStillOf(*this))
      coming = 0;
  }
  void makeCall() override {
    if (coming != 0)
      guarded([this] { function(coming); });
  }
  void endCall() override {
    if (!isPending())
      loop().descriptors().release(*this);
  }
  void leaveLoop() override { loop().descriptors().remove(*this); }

  const Function function;
  unsigned wantedEvents;  // without EDGE
  unsigned come = 0;      // since the last call
  unsigned coming = 0;    // of the call that is under way
};

bool VarnDescriptorEvent::State::hear(unsigned events) {
  assert(LoopLock::isHeld());
  const unsigned heard = fromSystem(events, wantedEvents);
  if (heard == 0)
    return false;
  come |= heard;
  pend();
  return true;
}

// What has come and is wanted no more is dropped; an object that is left with nothing is released,
// unless its call is under way, whose end will do so.
void VarnDescriptorEvent::State::setWantedLocked(unsigned events) {
  assert(LoopLock::isHeld());
  if (!isEnlisted())
    return;
  wantedEvents = events & kAll;
  come &= wantedEvents == 0 ? 0 : wantedEvents | HUNG_UP;
  if (come == 0 && isPending()) {
    unpend();
    if (!isRunning())
      loop().descriptors().release(*this);
  }
  loop().descriptors().update(*this);
}

VarnDescriptorEvent::VarnDescriptorEvent(int descriptor, unsigned events, Function function,
                                         VarnCallbackPool* pool)
    : m_pState(std::make_shared<State>(descriptor, events, std::move(function), pool)) {
  m_pState->activate();
}

VarnDescriptorEvent::~VarnDescriptorEvent() {
  const QuietCancellationGuard closed;
  m_pState->withdraw();
}

void VarnDescriptorEvent::setEvents(unsigned events) {
  const CancellationGuard closed;
  const LoopLock lock;
  m_pState->setWantedLocked(events);
}

int VarnDescriptorEvent::descriptor() const { return m_pState->descriptor(); }

}  // namespace VarnSupport
