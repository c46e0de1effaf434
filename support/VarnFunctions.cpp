#include "VarnSupport/VarnFunctions.h"

#include <cxxabi.h>

#include <cstdlib>
#include <typeinfo>

#include "runtime/Cancellation.h"
#include "threads/LatchState.h"
#include "threads/Uncaught.h"

namespace VarnSupport {

LatchState& stateOf(VarnLatchedEvent& event);

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
  const StopScope scope(stateOf(state->stop));
  try {
    return state->function(*this);
  } catch (...) {
    passOnCancellation();
    constexpr int kFailed = 255;
    Uncaught::report([&] { return "thread " + state->name; });
    return kFailed;
  }
}

namespace {

std::string nameOf(const std::type_info& type) {
  int status = 0;
  const std::unique_ptr<char, decltype(&std::free)> name(
      abi::__cxa_demangle(type.name(), nullptr, nullptr, &status), &std::free);
  return name != nullptr ? name.get() : type.name();
}

template <typename Exception>
std::exception_ptr nestedIn(const Exception& exception) {
  const auto* const nested = dynamic_cast<const std::nested_exception*>(&exception);
  return nested != nullptr ? nested->nested_ptr() : nullptr;
}

// The text of an exception alone; `nested` becomes what is nested in it.
std::string textOf(const std::exception_ptr& exception, std::exception_ptr& nested) {
  try {
    std::rethrow_exception(exception);
  } catch (const VarnException& thrown) {
    nested = nestedIn(thrown);
    return thrown.getText();
  } catch (const std::exception& thrown) {
    nested = nestedIn(thrown);
    return thrown.what();
  } catch (const std::string& thrown) {
    return thrown;
  } catch (const char* thrown) {
    return thrown != nullptr ? thrown : "";
  } catch (int thrown) {
    return std::to_string(thrown);
  } catch (...) {
    const std::type_info* const type = abi::__cxa_current_exception_type();
    return type != nullptr ? nameOf(*type) : "unknown exception";
  }
}

}  // namespace

std::string VarnWhat(const std::exception_ptr& exception) {
  const CancellationGuard closed;
  std::string text;
  std::exception_ptr next = exception;
  while (next != nullptr) {
    std::exception_ptr nested;
    const std::string part = textOf(next, nested);
    text += (text.empty() ? "" : ": ") + part;
    next = nested;
  }
  return text;
}

// A handler for all exceptions may have caught what is none.
std::string VarnWhat() {
  const std::exception_ptr exception = std::current_exception();
  if (exception == nullptr && isInHandlerOfExceptions())
    throw;
  return VarnWhat(exception);
}

}  // namespace VarnSupport
