// Threads as the system has them, without an object.
#ifndef SUPPORT_RUNTIME_SYSTEMTHREADS_H
#define SUPPORT_RUNTIME_SYSTEMTHREADS_H

#include <pthread.h>

namespace VarnSupport {

// Runs `body`, for what a routine of the relay must not do itself, on a detached thread that has
// the signal mask of a user's thread (SignalRelay.h). False when the system refuses the thread, or
// there is no memory. The name is a literal.
bool startDetached(const char* name, void (*body)(void*), void* argument);

// Starts a detached thread on a stack that is never given back: in the child of a fork, a new
// thread would otherwise stand on the stack of a vanished one, where objects may still be
// registered. False when the system refuses.
bool startOnOwnStack(pthread_t& thread, void* (*routine)(void*));

// Whether the calling thread is the last, but for a main thread that has ended: the system lists
// that, too.
bool isAlone();

}  // namespace VarnSupport

#endif
