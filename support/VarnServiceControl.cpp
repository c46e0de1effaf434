// Services are the system's service manager's here. The operations exist so that programs which
// have a control part build and can report that it is not there.
#include "VarnSupport/VarnServiceControl.h"

#include "runtime/Cancellation.h"

namespace VarnSupport {

namespace {

constexpr int kNotSupported = 99;

[[noreturn]] void throwNotSupported() { throw VarnServiceControlException(kNotSupported, 0); }

}  // namespace

VarnServiceControl* VarnServiceControl::CreateVarnServiceControl(const std::string& name) {
  const CancellationGuard closed;
  return new VarnServiceControlLin(name);
}

VarnServiceControl::~VarnServiceControl() = default;

VarnServiceControlLin::VarnServiceControlLin(const std::string& name) : m_sName(name) {}

VarnServiceControlLin::~VarnServiceControlLin() = default;

void VarnServiceControlLin::StartService() { throwNotSupported(); }

void VarnServiceControlLin::StopService() { throwNotSupported(); }

void VarnServiceControlLin::RestartService() { throwNotSupported(); }

int VarnServiceControlLin::GetServiceStatus() { throwNotSupported(); }

int VarnServiceControlLin::GetServiceStartType() { throwNotSupported(); }

void VarnServiceControlLin::SetServiceStartType(unsigned int) { throwNotSupported(); }

bool VarnServiceControlLin::IsServiceInstalled() { throwNotSupported(); }

}  // namespace VarnSupport
