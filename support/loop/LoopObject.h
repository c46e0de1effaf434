// What the loop knows of the objects that it serves.
#ifndef SUPPORT_LOOP_LOOPOBJECT_H
#define SUPPORT_LOOP_LOOPOBJECT_H

#include <string>

#include "runtime/CallUnderWay.h"

namespace VarnSupport {

// Called under the lock of the loop.
class LoopObject {
 public:
  // For the log: what is called.
  virtual std::string describe() const = 0;
  // The deadline was reached, and is no more.
  virtual void onDeadline() = 0;

 protected:
  ~LoopObject() = default;
};

using LoopCalls = CallUnderWay<const LoopObject*>;

}  // namespace VarnSupport

#endif
