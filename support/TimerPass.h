// Passes of the timers on the calling thread.
#ifndef SUPPORT_TIMERPASS_H
#define SUPPORT_TIMERPASS_H

namespace VarnSupport {

class TimerPass {
 public:
  // What the calling thread counts for as a user of the manager, which cannot wait for the pass that
  // it is shut down from. Above 0 in the callbacks of timers: while these last, no other timer is
  // set.
  static int ownUses();
};

}  // namespace VarnSupport

#endif
