#include "VarnSupport/VarnObjectFactory.h"

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <mutex>

#include "Cancellation.h"
#include "Fork.h"
#include "LibraryLoad.h"
#include "NeverDestroyed.h"

namespace VarnSupport {

namespace {

// Guards the list of creations and that of unfinished registrations.
constinit std::mutex listMutex;

// A registration whose library is being loaded.
struct Unfinished {
  const VarnObjectFactoryRegistration* registration;
  pthread_t loader;
};

constinit NeverDestroyed<std::vector<Unfinished>> unfinished;
constinit thread_local int t_nLoads __attribute__((tls_model("initial-exec"))) = 0;

void noteIfLoading(const VarnObjectFactoryRegistration& registration) {
  if (t_nLoads == 0)
    return;
  const std::lock_guard guard(listMutex);
  unfinished.value.push_back({&registration, pthread_self()});
}

bool isBeingLoadedElsewhere(const VarnObjectFactoryRegistration& registration) {
  const std::lock_guard guard(listMutex);
  return std::any_of(unfinished.value.begin(), unfinished.value.end(), [&](const auto& entry) {
    return entry.registration == &registration && pthread_equal(entry.loader, pthread_self()) == 0;
  });
}

// One creation under way. The list of them is process-wide, as a creation may outlive its factory.
class Creation {
 public:
  // Requires: the factory's lock is held, so that remove() cannot miss it.
  Creation(const VarnObjectFactory& factory, const std::string& name)
      : m_pFactory(&factory), m_sName(name), m_hThread(pthread_self()) {
    const std::lock_guard guard(listMutex);
    m_pNext = first;
    first = this;
    ++t_nOwn;
  }
  Creation(const Creation&) = delete;
  Creation& operator=(const Creation&) = delete;
  ~Creation() {
    {
      const std::lock_guard guard(listMutex);
      Creation** link = &first;
      while (*link != this)
        link = &(*link)->m_pNext;
      *link = m_pNext;
      --t_nOwn;
    }
    ended.fetch_add(1);
    ended.notify_all();
  }

  // Waits for the creations under one name. A thread that is inside a creation itself does not:
  // others may be waiting for that one.
  static void await(const VarnObjectFactory& factory, const std::string& name) {
    if (t_nOwn > 0)
      return;
    for (unsigned seen = ended; isUnderWay(factory, name); seen = ended)
      ended.wait(seen);
  }

  // After a fork only the creations of the thread that forked go on. Requires: the list is locked.
  static void forgetLost() {
    Creation** link = &first;
    while (*link != nullptr) {
      if (pthread_equal((*link)->m_hThread, pthread_self()) != 0)
        link = &(*link)->m_pNext;
      else
        *link = (*link)->m_pNext;
    }
  }

 private:
  static bool isUnderWay(const VarnObjectFactory& factory, const std::string& name) {
    const std::lock_guard guard(listMutex);
    for (const Creation* creation = first; creation != nullptr; creation = creation->m_pNext) {
      if (creation->m_pFactory == &factory && creation->m_sName == name)
        return true;
    }
    return false;
  }

  static constinit Creation* first;  // guarded by listMutex
  static constinit std::atomic<unsigned> ended;
  static constinit thread_local int t_nOwn;

  const VarnObjectFactory* m_pFactory;
  std::string m_sName;
  pthread_t m_hThread;
  Creation* m_pNext;
};

constinit Creation* Creation::first = nullptr;
constinit std::atomic<unsigned> Creation::ended{0};
constinit thread_local int Creation::t_nOwn = 0;

// The global factory that was deleted last.
constinit std::atomic<const VarnObjectFactory*> theDeleted = nullptr;

// Another factory may lie where that one did.
void noteMade(const VarnObjectFactory& factory) {
  const VarnObjectFactory* deleted = &factory;
  theDeleted.compare_exchange_strong(deleted, nullptr);
}

// A global factory that the library made. The library itself never frees one, as threads may be
// inside it to the very end.
class OwnFactory final : public VarnObjectFactory {
 public:
  // Requires: ownMutex is held.
  OwnFactory() : m_pOlder(newest) { newest = this; }
  OwnFactory(const OwnFactory&) = delete;
  OwnFactory& operator=(const OwnFactory&) = delete;
  ~OwnFactory() override;

  static OwnFactory* find(const VarnObjectFactory* factory);

  static constinit OwnFactory* newest;  // guarded by ownMutex, as is the list

  OwnFactory* m_pOlder;
};

constinit OwnFactory* OwnFactory::newest = nullptr;

// Guards the making of the global factory. Taken before a factory's lock.
constinit std::mutex ownMutex;

OwnFactory::~OwnFactory() {
  const std::lock_guard guard(ownMutex);
  OwnFactory** link = &newest;
  while (*link != this)
    link = &(*link)->m_pOlder;
  *link = m_pOlder;
}

// Null for one that the library did not make.
OwnFactory* OwnFactory::find(const VarnObjectFactory* factory) {
  const std::lock_guard guard(ownMutex);
  OwnFactory* own = newest;
  while (own != nullptr && own != factory)
    own = own->m_pOlder;
  return own;
}

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

// The library's own factory is emptied instead, which nobody can tell from its deletion.
void VarnObjectFactory::deleteGlobalInstance() {
  const CancellationGuard closed;
  VarnObjectFactory* const factory = m_pGlobalInstance;
  if (factory == nullptr || factory == theDeleted)
    return;
  theDeleted = factory;
  if (OwnFactory* const own = OwnFactory::find(factory))
    own->clear();
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
  const VarnCriticalSection guard(m_oLock, true);
  m_mapFunctions[name] = function;
}

void VarnObjectFactory::add(const std::string& name, VarnObjectFactoryRegistration& registration) {
  const CancellationGuard closed;
  const VarnCriticalSection guard(m_oLock, true);
  noteIfLoading(registration);
  m_mapRegistrations[name] = &registration;
}

void VarnObjectFactory::remove(const std::string& name) {
  const QuietCancellationGuard closed;
  {
    const VarnCriticalSection guard(m_oLock, true);
    if (m_mapRegistrations.erase(name) == 0)
      m_mapFunctions.erase(name);
  }
  Creation::await(*this, name);
}

VarnSmartPointer<VarnObjectBase> VarnObjectFactory::construct(const std::string& name) {
  const CancellationGuard closed;
  VarnCriticalSection guard(m_oLock, true);
  VarnObjectFactoryRegistration* registration = entryOf(m_mapRegistrations, name);
  if (registration != nullptr && isBeingLoadedElsewhere(*registration))
    registration = nullptr;
  const tCreateFunction function = entryOf(m_mapFunctions, name);
  if (registration == nullptr && function == nullptr)
    return nullptr;
  const Creation underWay(*this, name);
  guard.unlock();
  if (registration != nullptr)
    return registration->create();
  return function();
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
  const VarnCriticalSection guard(m_oLock, true);
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
  if (m_pFactory != nullptr)
    m_pFactory->remove(m_sName);
  m_pFactory = nullptr;
}

LibraryLoad::LibraryLoad() { ++t_nLoads; }

LibraryLoad::~LibraryLoad() {
  if (--t_nLoads > 0)
    return;
  const std::lock_guard guard(listMutex);
  std::erase_if(unfinished.value, [](const Unfinished& entry) {
    return pthread_equal(entry.loader, pthread_self()) != 0;
  });
}

struct VarnObjectFactory::Fork {
  static void prepare() VSUPT_UNCHECKED {
    ownMutex.lock();
    for (OwnFactory* own = OwnFactory::newest; own != nullptr; own = own->m_pOlder)
      own->m_oLock.lock();
    listMutex.lock();
  }
  static void release(ForkSide side) VSUPT_UNCHECKED {
    if (side == ForkSide::CHILD)
      Creation::forgetLost();
    listMutex.unlock();
    for (OwnFactory* own = OwnFactory::newest; own != nullptr; own = own->m_pOlder)
      own->m_oLock.unlock();
    ownMutex.unlock();
  }
};

constinit const ForkPart factoryFork{&VarnObjectFactory::Fork::prepare,
                                     &VarnObjectFactory::Fork::release};

}  // namespace VarnSupport
