// Marks what the shared library exports, and states which lock guards what.
//
// Everything else is hidden. The VSUPT_GUARDED_BY family is checked by Clang's thread-safety
// analysis and means nothing to other compilers.
#ifndef VARNSUPPORT_VARNEXPORT_H
#define VARNSUPPORT_VARNEXPORT_H

#define VSUPT_EXPORT __attribute__((visibility("default")))
// For members of exported classes that are of the library itself.
#define VSUPT_LOCAL __attribute__((visibility("hidden")))

#if defined(__clang__)
#define VSUPT_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define VSUPT_THREAD_ANNOTATION(x)
#endif

#define VSUPT_CAPABILITY(name) VSUPT_THREAD_ANNOTATION(capability(name))
#define VSUPT_SCOPED_CAPABILITY VSUPT_THREAD_ANNOTATION(scoped_lockable)
#define VSUPT_GUARDED_BY(lock) VSUPT_THREAD_ANNOTATION(guarded_by(lock))
#define VSUPT_REQUIRES(...) VSUPT_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define VSUPT_ACQUIRE(...) VSUPT_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define VSUPT_TRY_ACQUIRE(...) VSUPT_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define VSUPT_RELEASE(...) VSUPT_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define VSUPT_UNCHECKED VSUPT_THREAD_ANNOTATION(no_thread_safety_analysis)

#endif
