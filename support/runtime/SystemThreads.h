// Threads as the system has them, without an object.
#ifndef SUPPORT_RUNTIME_SYSTEMTHREADS_H
#define SUPPORT_RUNTIME_SYSTEMTHREADS_H

#include <pthread.h>

#include <csignal>
#include <functional>
#include <string>

namespace VarnSupport {

// Runs `body` on a detached thread that begins with the mask of its caller, or with `mask`. The
// name has at most 15 characters. Returns 0, with the thread in `started` before it can go on if
// the caller has a lock that the body takes; or the system's code. Throws nothing.
int startDetached(const std::string& name, std::function<void()> body,
                  const sigset_t* mask = nullptr, pthread_t* started = nullptr) noexcept;

// The name of the calling thread, as `ps -L` and gdb show it.
std::string nameOfThread();

// Starts a detached thread on a stack that is never given back: in the child of a fork, a new
// thread would otherwise stand on the stack of a vanished one, where objects may still be
// registered. False when the system refuses.
bool startOnOwnStack(pthread_t& thread, void* (*routine)(void*));

// Whether the calling thread is the last, but for a main thread that has ended: the system lists
// that, too.
bool isAlone();

}  // namespace VarnSupport

#endif
