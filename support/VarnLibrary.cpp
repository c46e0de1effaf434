// Registrations that a library's initialisers make are visible to other threads once the whole
// library is loaded, not while it still initialises itself (LibraryLoad).
#include "VarnSupport/VarnLibrary.h"

#include <dlfcn.h>

#include "VarnSupport/VarnException.h"
#include "plugin/LibraryLoad.h"
#include "runtime/BriefGate.h"
#include "runtime/Cancellation.h"

namespace VarnSupport {

template class VarnSmartPointer<VarnLibrary>;

// The loader's text is taken before any other call can change it. It is translated under the
// platform's lock of the locales.
VarnLibrary::VarnLibrary(const std::string& name, bool exactName) : m_sName(name) {
  const CancellationGuard closed;
  const std::string file = exactName ? name : "lib" + name + ".so";
  const LibraryLoad load;
  m_pHandle = dlopen(file.c_str(), RTLD_NOW);
  if (m_pHandle != nullptr)
    return;
  const char* const reason = BriefGate::inside(dlerror);
  throw VarnException("VarnLibrary::VarnLibrary: failed to load: " + name + ".  " +
                          (reason != nullptr ? reason : ""),
                      0);
}

VarnLibrary::VarnLibrary(const VarnLibrary& source) = default;

// The count stays, as other references to the object do.
VarnLibrary& VarnLibrary::operator=(const VarnLibrary& source) {
  if (this != &source) {
    const CancellationGuard closed;
    m_sName = source.m_sName;
    m_pHandle = source.m_pHandle;
  }
  return *this;
}

VarnLibrary::~VarnLibrary() {
  const QuietCancellationGuard closed;
  if (m_pHandle != nullptr)
    dlclose(m_pHandle);
}

void* VarnLibrary::getProcAddr(const std::string& symbol) {
  if (m_pHandle == nullptr)
    return nullptr;
  const CancellationGuard closed;
  BriefGate::inside(dlerror);  // forgets an earlier error
  void* const address = dlsym(m_pHandle, symbol.c_str());
  return BriefGate::inside(dlerror) == nullptr ? address : nullptr;
}

}  // namespace VarnSupport
