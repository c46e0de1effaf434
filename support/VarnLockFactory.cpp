// The factory is a template, all of it in the header. Here are the sets of locks that most programs
// want, so that they are compiled once, and the way of an operation past cancellation, which
// callers of a template cannot include.
#include "VarnSupport/VarnLockFactory.h"

#include "runtime/Cancellation.h"

namespace VarnSupport {

LockFactoryVisit::LockFactoryVisit() { closeCancellation(); }

LockFactoryVisit::~LockFactoryVisit() { openCancellation(); }

template class VarnLockFactory<std::string, VarnCriticalSectionObject>;
template class VarnLockFactory<std::string, VarnMutexObject>;
template class VarnLockFactory<std::string, VarnReadWriteLock>;

}  // namespace VarnSupport
