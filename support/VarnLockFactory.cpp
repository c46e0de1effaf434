#include "VarnSupport/VarnLockFactory.h"

#include "runtime/Cancellation.h"

namespace VarnSupport {

LockFactoryVisit::LockFactoryVisit() { closeCancellation(); }

LockFactoryVisit::~LockFactoryVisit() { openCancellation(); }

template class VarnLockFactory<std::string, VarnCriticalSectionObject>;
template class VarnLockFactory<std::string, VarnMutexObject>;
template class VarnLockFactory<std::string, VarnReadWriteLock>;

}  // namespace VarnSupport
