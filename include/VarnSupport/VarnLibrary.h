// Shared libraries, loaded by name for as long as the object lives.
//
// Held by VarnSmartPointer, not copied. Whatever comes from the library (objects, their classes,
// functions) must be gone before the last reference to it. Loading, look-ups and unloading are safe
// from any thread; static objects of the library are built and destroyed on the one that does it.
#ifndef VARNSUPPORT_VARNLIBRARY_H
#define VARNSUPPORT_VARNLIBRARY_H

#include <string>

#include "VarnSupport/VarnExport.h"
#include "VarnSupport/VarnObjectBase.h"

namespace VarnSupport {

class VSUPT_EXPORT VarnLibrary : public VarnObjectBase {
 public:
  // Loads the file `name` itself, or else "lib" + `name` + ".so", and resolves all its symbols.
  // Throws VarnException (code 0) with the loader's text when that fails.
  VarnLibrary(const std::string& name, bool exactName);
  // A copy names the same handle without loading again, and each object closes the handle once, so
  // copies unload too early; callers rely on it. Assigning does not close the target's old handle.
  VarnLibrary(const VarnLibrary& source);
  VarnLibrary& operator=(const VarnLibrary& source);
  // Unloads the library unless something else has loaded it too.
  ~VarnLibrary() override;

  // The address of a symbol, null when there is none.
  void* getProcAddr(const std::string& symbol);

 private:
  std::string m_sName;
  void* m_pHandle;
};

extern template class VarnSmartPointer<VarnLibrary>;

}  // namespace VarnSupport

#endif
