// The argument that a thread hands to its body.
#ifndef VARNSUPPORT_VARNWORKINFORMATION_H
#define VARNSUPPORT_VARNWORKINFORMATION_H

#include "VarnSupport/VarnExport.h"
#include "VarnSupport/VarnObjectBase.h"

namespace VarnSupport {

// Applications derive from it to carry a work item.
class VSUPT_EXPORT VarnWorkInformation : public VarnObjectBase {
 public:
  VarnWorkInformation();
  VarnWorkInformation(const VarnWorkInformation&) = default;
  VarnWorkInformation& operator=(const VarnWorkInformation&) = default;
  ~VarnWorkInformation() override;
};

extern template class VarnSmartPointer<VarnWorkInformation>;

}  // namespace VarnSupport

#endif
