// Controlling an installed service from outside: not supported on this platform.
#ifndef VARNSUPPORT_VARNSERVICECONTROL_H
#define VARNSUPPORT_VARNSERVICECONTROL_H

#include <cstdint>
#include <string>

#include "VarnSupport/VarnExport.h"

namespace VarnSupport {

// Thrown by every operation below, with code 99 and second value 0.
class VSUPT_EXPORT VarnServiceControlException {
 public:
  VarnServiceControlException(int errorCode, int secondValue)
      : m_nErrorCode(errorCode), m_nSecondValue(secondValue) {}

  int getErrorCode() const { return m_nErrorCode; }
  int getSecondValue() const { return m_nSecondValue; }

 private:
  std::int32_t m_nErrorCode;
  std::int32_t m_nSecondValue;
};

class VSUPT_EXPORT VarnServiceControl {
 public:
  // A control for the service of that name; the caller owns it.
  static VarnServiceControl* CreateVarnServiceControl(const std::string& name);

  virtual ~VarnServiceControl();

  virtual void StartService() = 0;
  virtual void StopService() = 0;
  virtual void RestartService() = 0;
  virtual int GetServiceStatus() = 0;
  virtual int GetServiceStartType() = 0;
  virtual void SetServiceStartType(unsigned int startType) = 0;
  virtual bool IsServiceInstalled() = 0;
};

class VSUPT_EXPORT VarnServiceControlLin : public VarnServiceControl {
 public:
  explicit VarnServiceControlLin(const std::string& name);
  ~VarnServiceControlLin() override;

  void StartService() override;
  void StopService() override;
  void RestartService() override;
  int GetServiceStatus() override;
  int GetServiceStartType() override;
  void SetServiceStartType(unsigned int startType) override;
  bool IsServiceInstalled() override;

 private:
  std::string m_sName;
};

}  // namespace VarnSupport

#endif
