// What the object factory must know of the loading of a library.
#ifndef SUPPORT_LIBRARYLOAD_H
#define SUPPORT_LIBRARYLOAD_H

namespace VarnSupport {

// Exists while the calling thread loads a library. Registrations that are added meanwhile count as
// absent for other threads until the load has ended: of each, only the base may be there yet.
class LibraryLoad {
 public:
  LibraryLoad();
  LibraryLoad(const LibraryLoad&) = delete;
  LibraryLoad& operator=(const LibraryLoad&) = delete;
  ~LibraryLoad();
};

}  // namespace VarnSupport

#endif
