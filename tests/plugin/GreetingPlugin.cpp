// A plug-in that adds a class to the global factory while it is loaded.
#include "VarnSupport/VarnObjectFactory.h"

using namespace VarnSupport;

namespace {

class Greeting : public VarnObjectBase {
 public:
  std::string getClassName() const override { return "Greeting"; }
};

class GreetingRegistration : public VarnObjectFactoryRegistration {
 public:
  GreetingRegistration() : VarnObjectFactoryRegistration("Greeting") {}
  ~GreetingRegistration() override { unregister(); }

  VarnSmartPointer<VarnObjectBase> create() override { return new Greeting; }
};

GreetingRegistration registration;

}  // namespace

extern "C" __attribute__((visibility("default"))) int greetingVersion() { return 7; }
