// Threads that make the calls of timers, descriptor events and file watches, for those whose
// functions take their time.
//
//   VarnCallbackPool pool(4);
//   VarnFileWatch watch("/var/log/*.log", readOn, &pool);
//
// Without a pool, the one thread of the loop ("vsupt-loop") makes all calls, one after the other.
// A pool has threads of its own ("vsupt-pool-1" and so on), which begin with its first object.
// Calls of one object never overlap; those of different objects do, but for a pool of one thread:
// what only its functions use needs no lock. Safe from any thread.
//
// A pool is made before the objects that use it, and destroyed after them. A function that is to
// run on the pool once is that of a VarnMonotonicTimer, by startOnce(0ms). One that takes more than
// a second is told in the log, at level 1, while others wait for a thread.
//
// In the child of a fork a pool has no threads, until an object is started with it there.
#ifndef VARNSUPPORT_VARNCALLBACKPOOL_H
#define VARNSUPPORT_VARNCALLBACKPOOL_H

#include <memory>

#include "VarnSupport/VarnExport.h"

namespace VarnSupport {

class VSUPT_EXPORT VarnCallbackPool {
 public:
  // From 1 to 256 threads; throws VarnException for other numbers.
  explicit VarnCallbackPool(int threads);
  VarnCallbackPool(const VarnCallbackPool&) = delete;
  VarnCallbackPool& operator=(const VarnCallbackPool&) = delete;
  // Waits for the calls that are under way, but for one that it is called from. Those that have not
  // begun are left out: an object that still has the pool, by mistake, is called no more.
  ~VarnCallbackPool();

  // Of the library itself.
  struct State;

 private:
  friend class Callee;

  const std::shared_ptr<State> m_pState;
};

}  // namespace VarnSupport

#endif
