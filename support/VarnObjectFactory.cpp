// A factory is two tables under one lock; the lock is never held while a class's function runs, so
// that a creator may use the factory, and wait, as it likes. What keeps a registration alive during
// its call is a list of calls under way: who destroys a registration waits for those of others.
//
// Three things make the rest. A registration that a library brings is hidden from other threads
// until its load ends (LibraryLoad). The library frees no factory of its own making, as threads may
// be inside of it; it empties the factory instead. And a fork takes every lock of this source, so
// that a child can go on creating: ownMutex, the newest factory's lock, the list of loads, the list
// of calls, in this order everywhere.
#include "VarnSupport/VarnObjectFactory.h"

#include <atomic>
#include <mutex>

#include "plugin/LibraryLoad.h"
#include "runtime/CallUnderWay.h"
#include "runtime/Cancellation.h"
#include "runtime/Fork.h"
#include "runtime/ProcessExit.h"

namespace VarnSupport {

namespace {

// A registration's call of its create(), for as long as it runs.
using Creation = CallUnderWay<const VarnObjectFactoryRegistration*>;

// The global factory that was deleted last.
constinit std::atomic<const VarnObjectFactory*> theDeleted = nullptr;

// A new factory may lie where the deleted one did, and is then no longer taken for that.
void noteMade(const VarnObjectFactory& factory) {
  const VarnObjectFactory* deleted = &factory;
  theDeleted.compare_exchange_strong(deleted, nullptr);
}

// Guards the making of the global factory. Taken before a factory's lock.
constinit std::mutex ownMutex;

// A global factory that the library made. The library itself never frees one, as threads may be
// inside it to the very end; callers may.
class OwnFactory final : public VarnObjectFactory {
 public:
  // Requires: ownMutex is held.
  OwnFactory() { newest = this; }
  OwnFactory(const OwnFactory&) = delete;
  OwnFactory& operator=(const OwnFactory&) = delete;
  ~OwnFactory() override {
    const std::lock_guard guard(ownMutex);
    if (newest == this)
      newest = nullptr;
  }

  static constinit OwnFactory* newest;  // guarded by ownMutex
};

constinit OwnFactory* OwnFactory::newest = nullptr;

template <typename Value>
Value entryOf(const std::map<std::string, Value>& table, const std::string& name) {
  const auto found = table.find(name);
  return found != table.end() ? found->second : nullptr;
}

}  // namespace

constinit VarnObjectFactory* VarnObjectFactory::m_pGlobalInstance = nullptr;

// Threads that race for the first call get the same factory. Its lock is used once, so that a fork
// need not make the lock's state.
VarnObjectFactory* VarnObjectFactory::getGlobalInstance() {
  const CancellationGuard closed;
  const std::atomic_ref<VarnObjectFactory*> instance(m_pGlobalInstance);
  VarnObjectFactory* factory = instance.load(std::memory_order_acquire);
  if (factory != nullptr)
    return factory;
  const std::lock_guard guard(ownMutex);
  factory = instance.load(std::memory_order_acquire);
  if (factory == nullptr) {
    factory = new OwnFactory;
    factory->clear();
    instance.store(factory, std::memory_order_release);
  }
  return factory;
}

// The library's own factory is emptied, not deleted: threads may still be inside it, and callers
// cannot tell the difference.
void VarnObjectFactory::deleteGlobalInstance() {
  const CancellationGuard closed;
  VarnObjectFactory* const factory = m_pGlobalInstance;
  if (factory == nullptr || factory == theDeleted)
    return;
  theDeleted = factory;
  if (dynamic_cast<OwnFactory*>(factory) != nullptr)
    factory->clear();
  else
    delete factory;
}

VarnObjectFactory::VarnObjectFactory() { noteMade(*this); }

VarnObjectFactory::VarnObjectFactory(const VarnObjectFactory& source)
    : m_mapFunctions(source.m_mapFunctions) {
  noteMade(*this);
}

VarnObjectFactory& VarnObjectFactory::operator=(const VarnObjectFactory& source) {
  if (this != &source) {
    const CancellationGuard closed;
    Functions copy(source.m_mapFunctions);
    m_mapFunctions.swap(copy);
  }
  return *this;
}

VarnObjectFactory::~VarnObjectFactory() = default;

void VarnObjectFactory::add(const std::string& name, tCreateFunction function) {
  const CancellationGuard closed;
  const VarnCriticalSection guard(m_oLock);
  m_mapFunctions[name] = function;
}

void VarnObjectFactory::add(const std::string& name, VarnObjectFactoryRegistration& registration) {
  const CancellationGuard closed;
  const VarnCriticalSection guard(m_oLock);
  LibraryLoad::note(registration);
  ProcessExit::noteObject();
  m_mapRegistrations[name] = &registration;
}

void VarnObjectFactory::remove(const std::string& name) {
  const QuietCancellationGuard closed;
  const VarnCriticalSection guard(m_oLock);
  if (m_mapRegistrations.erase(name) == 0)
    m_mapFunctions.erase(name);
}

VarnSmartPointer<VarnObjectBase> VarnObjectFactory::construct(const std::string& name) {
  const CancellationGuard closed;
  VarnCriticalSection guard(m_oLock);
  VarnObjectFactoryRegistration* registration = entryOf(m_mapRegistrations, name);
  if (registration != nullptr && LibraryLoad::isElsewhere(*registration))
    registration = nullptr;
  if (registration != nullptr) {
    const Creation underWay(registration);
    guard.unlock();
    ProcessExit::watch();
    return registration->create();
  }
  const tCreateFunction function = entryOf(m_mapFunctions, name);
  guard.unlock();
  return function != nullptr ? function() : nullptr;
}

std::vector<std::string> VarnObjectFactory::getRegisteredClasses() const {
  const CancellationGuard closed;
  std::vector<std::string> names;
  names.reserve(m_mapFunctions.size() + m_mapRegistrations.size());
  for (const auto& entry : m_mapFunctions)
    names.push_back(entry.first);
  for (const auto& entry : m_mapRegistrations)
    names.push_back(entry.first);
  return names;
}

void VarnObjectFactory::clear() {
  const VarnCriticalSection guard(m_oLock);
  m_mapFunctions.clear();
  m_mapRegistrations.clear();
}

VarnObjectFactoryRegistration::VarnObjectFactoryRegistration(const std::string& name,
                                                             VarnObjectFactory* factory)
    : m_sName(name), m_pFactory(factory) {
  if (m_pFactory != nullptr)
    m_pFactory->add(m_sName, *this);
}

VarnObjectFactoryRegistration::~VarnObjectFactoryRegistration() { unregister(); }

void VarnObjectFactoryRegistration::unregister() {
  const QuietCancellationGuard closed;
  if (m_pFactory == nullptr)
    return;
  m_pFactory->remove(m_sName);
  m_pFactory = nullptr;
  // A thread inside of a creation does not wait: its own, or one that waits for that, would never
  // end.
  if (!Creation::isInside())
    Creation::await(this);
  else
    Creation::forget(this);
}

struct VarnObjectFactory::Fork {
  static void prepare() VSUPT_UNCHECKED {
    ownMutex.lock();
    if (OwnFactory::newest != nullptr)
      OwnFactory::newest->m_oLock.lock();
    LibraryLoad::lockList();
    Creation::lockList();
  }
  static void release(ForkSide side) VSUPT_UNCHECKED {
    if (side == ForkSide::CHILD) {
      Creation::forgetLost();
      LibraryLoad::forgetLost();
    }
    Creation::unlockList();
    LibraryLoad::unlockList();
    if (OwnFactory::newest != nullptr)
      OwnFactory::newest->m_oLock.unlock();
    ownMutex.unlock();
  }
};

constinit const ForkPart factoryFork{&VarnObjectFactory::Fork::prepare,
                                     &VarnObjectFactory::Fork::release};

}  // namespace VarnSupport
