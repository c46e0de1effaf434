#include "VarnSupport/VarnWorkInformation.h"

namespace VarnSupport {

template class VarnSmartPointer<VarnWorkInformation>;

VarnWorkInformation::VarnWorkInformation() = default;

VarnWorkInformation::~VarnWorkInformation() = default;

}  // namespace VarnSupport
