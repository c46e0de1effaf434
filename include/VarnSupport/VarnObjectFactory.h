// Objects by class name: creation functions, and registrations that come and go with a plug-in.
//
// add(), remove() and construct() are safe from any thread; creators run without the factory's lock
// and may use the factory. getRegisteredClasses() and copying take no lock: nobody may register at
// the same time. A plug-in whose static registration adds a class to the global factory takes it
// away when it is unloaded; objects that it made must be gone by then, and plain functions that it
// added must be removed by hand.
#ifndef VARNSUPPORT_VARNOBJECTFACTORY_H
#define VARNSUPPORT_VARNOBJECTFACTORY_H

#include <map>
#include <string>
#include <vector>

#include "VarnSupport/VarnCriticalSection.h"
#include "VarnSupport/VarnExport.h"
#include "VarnSupport/VarnObjectBase.h"

namespace VarnSupport {

class VarnObjectFactoryRegistration;

class VSUPT_EXPORT VarnObjectFactory {
 public:
  // Returns a new object, or null.
  typedef VarnObjectBase* (*tCreateFunction)();

  // The factory of the process, made on first use; the library owns it.
  static VarnObjectFactory* getGlobalInstance();
  // Deletes the global factory, once; the pointer stays as it is. Part of the library's unload.
  // Requires: getGlobalInstance() is not used any more.
  static void deleteGlobalInstance();

  VarnObjectFactory();
  // Registrations belong to one factory: a copy has the functions only, and an assignment replaces
  // the target's functions and leaves its registrations.
  VarnObjectFactory(const VarnObjectFactory& source) VSUPT_UNCHECKED;
  VarnObjectFactory& operator=(const VarnObjectFactory& source) VSUPT_UNCHECKED;
  // Does not touch the registrations, none of which may be used or destroyed afterwards.
  virtual ~VarnObjectFactory();

  // Each replaces an entry of its own kind and the same name. The registration must outlive its
  // entry.
  void add(const std::string& name, tCreateFunction function);
  void add(const std::string& name, VarnObjectFactoryRegistration& registration);
  // Removes the registration of that name or, only if there is none, the function. Creations that
  // are under way go on.
  void remove(const std::string& name);
  // A new object from the registration of that name, else from the function; empty when there is
  // neither, or when the creator returns null. What a creator throws passes through.
  VarnSmartPointer<VarnObjectBase> construct(const std::string& name);
  // The names of the functions, ascending, then those of the registrations. A name may be in both.
  std::vector<std::string> getRegisteredClasses() const VSUPT_UNCHECKED;

  static VarnObjectFactory* m_pGlobalInstance;

  struct Fork;  // of the library itself

 private:
  using Functions = std::map<std::string, tCreateFunction>;
  using Registrations = std::map<std::string, VarnObjectFactoryRegistration*>;

  void clear();

  VarnCriticalSectionObject m_oLock;
  Functions m_mapFunctions VSUPT_GUARDED_BY(m_oLock);
  Registrations m_mapRegistrations VSUPT_GUARDED_BY(m_oLock);
};

// A class of a factory, typically a static object of a plug-in. Its entry is there from its
// construction on; other threads can use it once the VarnLibrary that brings it is there. Made in
// any other way while other threads construct objects of that name, a derived class must be
// complete when its base is. If it may go while create() is under way on another thread, its
// destructor must call unregister(), which waits. Nobody may hold a lock then that create() wants:
// the caller none of its own, and where the last VarnLibrary of a plug-in may go, create() loads no
// libraries, as the loader holds its lock.
class VSUPT_EXPORT VarnObjectFactoryRegistration {
 public:
  // Adds itself to the factory, which must outlive it; null: to none.
  explicit VarnObjectFactoryRegistration(
      const std::string& name, VarnObjectFactory* factory = VarnObjectFactory::getGlobalInstance());
  VarnObjectFactoryRegistration(const VarnObjectFactoryRegistration&) = delete;
  VarnObjectFactoryRegistration& operator=(const VarnObjectFactoryRegistration&) = delete;
  // Calls unregister(), unless that was called: whoever holds its name by now is removed.
  virtual ~VarnObjectFactoryRegistration();

  virtual VarnSmartPointer<VarnObjectBase> create() = 0;

 protected:
  // Calls remove() with its name, and then waits until no other thread is inside create(). Does not
  // wait in a creator, nor for long while the process exits.
  void unregister();

 private:
  std::string m_sName;
  VarnObjectFactory* m_pFactory;  // null once unregistered
};

}  // namespace VarnSupport

#endif
