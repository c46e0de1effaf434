// Functions in place of classes: for notifications, as threads, and for exceptions that nobody
// caught. Queues and events that remember come along, from headers of their own.
//
// All operations are safe from any thread, but moving a connection and destroying an object are for
// the owner. Functions may be anything that can be called and moved, and belong to the object that
// is made with them. They are called without a lock; what they throw goes into the log, level 1,
// and no further.
#ifndef VARNSUPPORT_VARNFUNCTIONS_H
#define VARNSUPPORT_VARNFUNCTIONS_H

#include <chrono>
#include <exception>
#include <functional>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>

#include "VarnSupport/VarnCollaborator.h"
#include "VarnSupport/VarnEvent.h"
#include "VarnSupport/VarnException.h"
#include "VarnSupport/VarnExport.h"
#include "VarnSupport/VarnLatchedEvent.h"
#include "VarnSupport/VarnQueue.h"
#include "VarnSupport/VarnThread.h"

namespace VarnSupport {

// Has a function called for the notifications of a collaborator, thread, event or timer, on the
// thread that notifies, for as long as the object lives and is not moved from. The connections of a
// source are called in the order in which they were made, all at the place of the first one among
// its dependents, and one that goes away never makes another miss its call. A connection that is
// made during a notification gets the next.
//
// The source may go first: the connection does nothing from then on. It goes on in the child of a
// fork, so its function must not rely on what was on the stacks of other threads there.
class VSUPT_EXPORT VarnConnection {
 public:
  VarnConnection() noexcept = default;
  // The function is called with the notification (`const VarnNotification&`), or without anything,
  // maybe before the constructor returns. It may use this object, unless that is moved meanwhile.
  template <typename Function>
  VarnConnection(VarnCollaborator& source, Function function) {
    connect(&source, nullptr, adapted(std::move(function)));
  }
  template <typename Function>
  VarnConnection(VarnEvent& source, Function function) {
    connect(nullptr, &source, adapted(std::move(function)));
  }
  // A move takes the connection along, also while its function runs.
  VarnConnection(VarnConnection&&) noexcept = default;
  VarnConnection& operator=(VarnConnection&& other) noexcept {
    if (this != &other) {
      disconnect();
      m_pState = std::move(other.m_pState);
    }
    return *this;
  }
  ~VarnConnection() { disconnect(); }

  // Afterwards the function is not called any more, and calls on other threads have returned.
  // Inside the function it does not wait for calls whose threads are in here themselves, and
  // returns at once if no other thread is in it. The function must therefore not wait for a lock
  // that the caller has.
  void disconnect();
  // False once it was disconnected or moved from, or its source has gone.
  bool isConnected() const;

 private:
  using tFunction = std::function<void(const VarnNotification&)>;
  friend class ConnectionHub;
  struct State;

  template <typename Function>
  static tFunction adapted(Function function) {
    const auto shared = std::make_shared<Function>(std::move(function));
    return [shared](const VarnNotification& notification) {
      if constexpr (std::is_invocable_v<Function&, const VarnNotification&>)
        static_cast<void>((*shared)(notification));
      else
        static_cast<void>((*shared)());
    };
  }
  void connect(VarnCollaborator* source, VarnEvent* event, tFunction function);

  std::shared_ptr<State> m_pState;
};

// A thread that runs a function, from the constructor on.
//
// It can be asked to stop, which the function notices by stopRequested(), and which ends the waits
// that it makes from then on: here, for a VarnLatchedEvent and at a VarnQueue. When an exception
// leaves the function its text is logged with the thread's name, and the exit code is 255. In the
// child of a fork the thread does not run.
class VSUPT_EXPORT VarnFunctionThread final : public VarnThread {
 public:
  // The function is called with this object, or without anything; its result, if it has one, is the
  // exit code. Throws VarnException when the system refuses a thread.
  template <typename Function>
  VarnFunctionThread(const std::string& name, Function function)
      : VarnThread(name), m_pState(makeState(name, adapted(std::move(function)))) {
    if (!launch())
      throw VarnException("VarnFunctionThread " + name + ": the system refuses a thread", 0);
  }
  // Asks the thread to stop and waits for its very end, whatever it is marked for, and also when it
  // was killed. In the function itself it does not wait.
  ~VarnFunctionThread() override;

  // Asks the thread to stop, for good. Does not wait.
  void requestStop() { stopEvent().set(); }
  // The same.
  void stop() override { requestStop(); }
  bool stopRequested() const { return stopEvent().isSet(); }
  // Set by requestStop(), for waits together with other events. Nobody else sets or resets it.
  VarnLatchedEvent& stopEvent() const;

  // For the function: sleeps. False when the thread was asked to stop before, at once if it was.
  template <typename Number, typename Period>
  bool sleepFor(const std::chrono::duration<Number, Period>& time) {
    return !stopEvent().waitFor(time);
  }

  using VarnThread::run;
  int run() override;

 private:
  using tFunction = std::function<int(VarnFunctionThread&)>;
  struct State;

  static std::shared_ptr<State> makeState(const std::string& name, tFunction function);

  template <typename Function>
  static tFunction adapted(Function function) {
    const auto shared = std::make_shared<Function>(std::move(function));
    return [shared](VarnFunctionThread& thread) -> int {
      static_cast<void>(thread);
      const auto call = [&]() -> decltype(auto) {
        if constexpr (std::is_invocable_v<Function&, VarnFunctionThread&>)
          return (*shared)(thread);
        else
          return (*shared)();
      };
      if constexpr (std::is_void_v<decltype(call())>)
        return call(), 0;
      else
        return static_cast<int>(call());
    };
  }

  std::shared_ptr<State> m_pState;
};

// Told of an exception that left the function of `origin`, on the thread that it left, which is not
// killed meanwhile: "thread NAME", "a timer", "a connection"; for what a thread of the library
// calls, what it is called for, as "VarnCommand" or "VarnFileWatch of PATH". What the handler
// throws is dropped.
using tUncaughtHandler = void (*)(const std::string& origin, std::exception_ptr exception);

// Has all exceptions told to `handler` that leave the body of any VarnThread, the callback of a
// timer, the function of a connection, or one that the loop, a pool, a command or a signal calls;
// all of these are dropped afterwards, as they are without a handler. Null, as at first, tells
// nobody. Returns the handler before, which may still be running.
VSUPT_EXPORT tUncaughtHandler VarnSetUncaughtHandler(tUncaughtHandler handler) noexcept;

// The text of an exception: of a VarnException, of a standard one, with what is nested in it after
// ": ", or a text or number that was thrown itself; else its type. Empty for null.
VSUPT_EXPORT std::string VarnWhat(const std::exception_ptr& exception);
// Of the exception that is being handled, for `catch (...)`; empty outside of handlers. When that
// is the unwinding of a killed thread, lets it go on.
VSUPT_EXPORT std::string VarnWhat();

}  // namespace VarnSupport

#endif
