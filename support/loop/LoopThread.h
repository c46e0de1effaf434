// How the threads of the loop are started, and its descriptors opened.
#ifndef SUPPORT_LOOP_LOOPTHREAD_H
#define SUPPORT_LOOP_LOOPTHREAD_H

#include <functional>
#include <string>

namespace VarnSupport {

// Starts a detached thread that runs `body`, with the caller's signal mask; false when the system
// refuses. `name` has at most 15 characters. Should code of users end the thread by pthread_exit(),
// another one takes its place, and runs `body` from its beginning.
bool startLoopThread(const std::string& name, std::function<void()> body);

// The same descriptor, or one instead of it, whose number is none of a standard stream: a program
// may open, or write to, those later. -1, with errno, stays what it is.
int aboveStandardStreams(int descriptor);

// Throws a VarnException with the system's code and text.
[[noreturn]] void throwSystemError(const std::string& what, int code);

}  // namespace VarnSupport

#endif
