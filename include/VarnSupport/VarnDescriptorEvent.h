// Calls a function when a descriptor (a socket, a pipe, a terminal, an eventfd ...) can be read or
// written, or was hung up.
//
//   VarnDescriptorEvent requests(listener, VarnDescriptorEvent::READABLE,
//                                [&](unsigned) { serve(accept(listener, nullptr, nullptr)); });
//
// The thread of the loop ("vsupt-loop") waits for all of them by epoll, and makes the calls, one
// after the other; with a VarnCallbackPool its threads make them, and meanwhile the descriptor is
// not looked at. An object is active from its construction on. The descriptor stays the caller's,
// who destroys the object before he closes it: no object hears of a descriptor that was closed
// first, nor of the next one of that number. Several objects may have the same descriptor.
//
// Safe from any thread, from their own functions too. What a function throws is written to the log
// at level 1, and a function that runs for more than a second is told there as well. In the child
// of a fork an object is inert; a new one works. When the process exits, no call begins any more.
#ifndef VARNSUPPORT_VARNDESCRIPTOREVENT_H
#define VARNSUPPORT_VARNDESCRIPTOREVENT_H

#include <functional>
#include <memory>

#include "VarnSupport/VarnCallbackPool.h"
#include "VarnSupport/VarnExport.h"

namespace VarnSupport {

class VSUPT_EXPORT VarnDescriptorEvent {
 public:
  // Bits of what is waited for, and of what has come.
  enum tEvents : unsigned {
    READABLE = 1,
    WRITABLE = 2,
    // The other side writes no more, or there is an error. The end of both directions, and an
    // error, are told whether they are asked for or not.
    HUNG_UP = 4,
    // Tells of what is new alone. Without it calls are repeated as long as there is something to be
    // read, or room to write, or the descriptor is hung up.
    EDGE = 8,
  };
  // Gets what has come: READABLE, WRITABLE and HUNG_UP.
  using Function = std::function<void(unsigned events)>;

  // `pool` must outlive it; null is the thread of the loop. Throws VarnException, with the system's
  // code, for what cannot be waited for: no descriptor, a file on a disk; and with code 0 when
  // there is no function, and when another object has the descriptor with EDGE and this one has
  // not, or the other way round.
  VarnDescriptorEvent(int descriptor, unsigned events, Function function,
                      VarnCallbackPool* pool = nullptr);
  VarnDescriptorEvent(const VarnDescriptorEvent&) = delete;
  VarnDescriptorEvent& operator=(const VarnDescriptorEvent&) = delete;
  // Waits for a call that is under way on another thread. No call runs afterwards, but for one that
  // it is called from.
  ~VarnDescriptorEvent();

  // What is waited for from here on; EDGE stays as it was. 0 is nothing, not even a hang-up.
  void setEvents(unsigned events);
  int descriptor() const;

 private:
  struct State;

  const std::shared_ptr<State> m_pState;
};

}  // namespace VarnSupport

#endif
