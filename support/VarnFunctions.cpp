// Each run has a share of the state, which holds the function and the request to stop: a function
// may destroy the object of its thread, and goes on to its end. What it waits for meanwhile finds
// the request by the scope that is on its stack.
#include "VarnSupport/VarnFunctions.h"

#include "runtime/Cancellation.h"
#include "threads/LatchState.h"
#include "threads/Uncaught.h"

namespace VarnSupport {

// The function may go on without its object, when it destroys that itself.
struct VarnFunctionThread::State {
  State(std::string itsName, tFunction itsFunction)
      : name(std::move(itsName)), function(std::move(itsFunction)) {}

  const std::string name;
  const tFunction function;
  VarnLatchedEvent stop;
};

std::shared_ptr<VarnFunctionThread::State> VarnFunctionThread::makeState(const std::string& name,
                                                                         tFunction function) {
  const CancellationGuard closed;
  return std::make_shared<State>(name, std::move(function));
}

VarnFunctionThread::~VarnFunctionThread() {
  const QuietCancellationGuard closed;
  requestStop();
  joinFinally();
}

VarnLatchedEvent& VarnFunctionThread::stopEvent() const { return m_pState->stop; }

int VarnFunctionThread::run() {
  const std::shared_ptr<State> state = m_pState;
  const StopScope scope(latchOf(state->stop));
  try {
    return state->function(*this);
  } catch (...) {
    passOnCancellation();
    constexpr int kFailed = 255;
    Uncaught::report([&] { return "thread " + state->name; });
    return kFailed;
  }
}

}  // namespace VarnSupport
