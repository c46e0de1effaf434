#include "VarnSupport/VarnDescriptorEvent.h"

#include <string>
#include <utility>

#include "loop/DescriptorSet.h"
#include "loop/EventLoop.h"
#include "runtime/Cancellation.h"
#include "runtime/ProcessExit.h"

namespace VarnSupport {

struct VSUPT_LOCAL VarnDescriptorEvent::State final : DescriptorCallee {
  State(int itsDescriptor, unsigned events, Function itsFunction, const VarnCallbackPool* pool)
      : DescriptorCallee("VarnDescriptorEvent", itsFunction != nullptr, pool, itsDescriptor,
                         events),
        function(std::move(itsFunction)) {}

  void begin();
  void setWantedLocked(unsigned events);

  std::string describe() const override {
    return std::string(kind()) + " of descriptor " + std::to_string(descriptor());
  }
  void beginCall(MonotonicTime) override {
    noteFirstCall();
    coming = std::exchange(m_nCome, 0);
  }
  void makeCall() override {
    guarded([this] { function(coming); });
  }
  void endCall() override {
    if (!isPending())
      loop().descriptors().release(*this);
  }
  void leaveLoop() override { loop().descriptors().remove(*this); }

  const Function function;
  unsigned coming = 0;  // of the call that is under way
};

void VarnDescriptorEvent::State::begin() {
  const EventLoop::Lock lock;
  enlist();
  loop().descriptors().add(*this);
}

void VarnDescriptorEvent::State::setWantedLocked(unsigned events) {
  if (!isEnlisted())
    return;
  m_nWanted = events & (READABLE | WRITABLE | HUNG_UP);
  m_nCome &= m_nWanted == 0 ? 0 : m_nWanted | HUNG_UP;
  if (m_nCome == 0 && isPending()) {
    unpend();
    if (!isRunning())
      loop().descriptors().release(*this);
  }
  loop().descriptors().update(*this);
}

VarnDescriptorEvent::VarnDescriptorEvent(int descriptor, unsigned events, Function function,
                                         VarnCallbackPool* pool)
    : m_pState(std::make_shared<State>(descriptor, events, std::move(function), pool)) {
  const CancellationGuard closed;
  ProcessExit::watch();
  try {
    m_pState->begin();
  } catch (...) {
    m_pState->withdraw();
    throw;
  }
  ProcessExit::noteObject();
}

VarnDescriptorEvent::~VarnDescriptorEvent() {
  const QuietCancellationGuard closed;
  m_pState->withdraw();
}

void VarnDescriptorEvent::setEvents(unsigned events) {
  const CancellationGuard closed;
  const EventLoop::Lock lock;
  m_pState->setWantedLocked(events);
}

int VarnDescriptorEvent::descriptor() const { return m_pState->descriptor(); }

}  // namespace VarnSupport
