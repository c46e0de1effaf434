#include <Poco/AutoPtr.h>
#include <Poco/FileChannel.h>
#include <Poco/Logger.h>
#include <Poco/Timer.h>
#include <Poco/Util/PropertyFileConfiguration.h>

#include "Footprint.h"

namespace {

void loadProperties(const std::string& folder) {
  const Poco::AutoPtr<Poco::Util::PropertyFileConfiguration> set(
      new Poco::Util::PropertyFileConfiguration(Footprint::propertyFile(folder)));
  Footprint::require(set->has("Setting1099999"));
}

struct Observer {
  void handle(Poco::Timer&) {}
};

void beIdle(const std::string& folder) {
  const Poco::AutoPtr<Poco::FileChannel> file(new Poco::FileChannel(folder + "/POCO"));
  Poco::Logger::create("Worker", file, Poco::Message::PRIO_INFORMATION).information("idle");
  Observer observer;
  Poco::Timer timer(60000, 60000);
  timer.start(Poco::TimerCallback<Observer>(observer, &Observer::handle));
  Footprint::beIdle();
}

}  // namespace

int main(int argc, char** argv) {
  return Footprint::run(argc, argv, {{"properties", loadProperties}, {"idle", beIdle}});
}
