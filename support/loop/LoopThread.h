// How the threads of the loop are started, and how it tells what the system refuses.
#ifndef SUPPORT_LOOP_LOOPTHREAD_H
#define SUPPORT_LOOP_LOOPTHREAD_H

#include <functional>
#include <string>

namespace VarnSupport {

// Starts a detached thread that runs `body`, with the caller's signal mask; false when the system
// refuses. `name` has at most 15 characters. Should code of users end the thread by pthread_exit(),
// another one takes its place, and runs `body` from its beginning.
bool startLoopThread(const std::string& name, std::function<void()> body);

// Throws a VarnException with the system's code and text.
[[noreturn]] void throwSystemError(const std::string& what, int code);

}  // namespace VarnSupport

#endif
