// What the object factory must know of the loading of a library.
#ifndef SUPPORT_PLUGIN_LIBRARYLOAD_H
#define SUPPORT_PLUGIN_LIBRARYLOAD_H

#include "VarnSupport/VarnObjectFactory.h"

namespace VarnSupport {

// Exists while the calling thread loads a library. Registrations that are added meanwhile count as
// absent for other threads until the load has ended: of each, only the base may be there yet.
class LibraryLoad {
 public:
  LibraryLoad();
  LibraryLoad(const LibraryLoad&) = delete;
  LibraryLoad& operator=(const LibraryLoad&) = delete;
  ~LibraryLoad();

  // Notes that the calling thread adds a registration, which matters when it is loading a library.
  static void note(const VarnObjectFactoryRegistration& registration);
  // Whether another thread has added the registration in a load that has not ended.
  static bool isElsewhere(const VarnObjectFactoryRegistration& registration);

  // Around a fork.
  static void lockList();
  static void unlockList();
  // In a child: what other threads were loading stays incomplete for ever. Requires: the list is
  // locked.
  static void forgetLost();
};

}  // namespace VarnSupport

#endif
