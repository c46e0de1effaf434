// A plug-in that adds a class to the global factory while it is loaded.
#include "VarnSupport/VarnObjectFactory.h"
#include "VarnSupport/VarnTimer.h"

#include <unistd.h>

#include <cstdlib>

using namespace VarnSupport;

namespace {

class Greeting : public VarnObjectBase {
 public:
  std::string getClassName() const override { return "Greeting"; }
};

struct Pause {
  Pause() {
    usleep(1000);
    over = true;
  }
  bool over;  // false while the static object is not complete
};

// Takes a while to be complete.
class GreetingRegistration : public VarnObjectFactoryRegistration {
 public:
  GreetingRegistration() : VarnObjectFactoryRegistration("Greeting") {}
  ~GreetingRegistration() override { unregister(); }

  VarnSmartPointer<VarnObjectBase> create() override {
    if (!m_oPause.over)
      std::abort();
    return new Greeting;
  }

 private:
  Pause m_oPause;
};

GreetingRegistration registration;

}  // namespace

extern "C" __attribute__((visibility("default"))) int greetingVersion() { return 7; }

// For programs that are not linked with the library.
extern "C" __attribute__((visibility("default"))) void useTimer() {
  VarnTimer(1000, false).reset();
}

// Until the plug-in is unloaded.
extern "C" __attribute__((visibility("default"))) void keepTimer() {
  static VarnTimer timer(1, true);
  timer.reset();
}
