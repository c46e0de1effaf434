// A plug-in that makes trouble: "odd.does" says which.
#include <pthread.h>

#include "../../../examples/hostwatch/Probe.h"

namespace {

double makeTrouble(const hostwatch::Properties& configuration) {
  static int calls = 0;
  const std::string trouble = configuration.getProperty("odd.does");
  if (trouble == "throw" && ++calls > 1)
    throw 7;
  if (trouble == "complain")
    throw VarnSupport::VarnException("at <reason> and <name>", 0);
  if (trouble == "starve") {  // from now on no thread has room for its stack
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, std::size_t{1} << 50);
    pthread_setattr_default_np(&attributes);
  }
  return 0;
}

const hostwatch::ProbeRegistration oddProbe("OddProbe", {"odd", "", makeTrouble});

}  // namespace
