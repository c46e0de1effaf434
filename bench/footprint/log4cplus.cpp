#include <log4cplus/initializer.h>
#include <log4cplus/logger.h>

#include "Footprint.h"

namespace {

void makeLogger(const std::string&) {
  const log4cplus::Initializer initializer;
  log4cplus::Logger::getInstance(LOG4CPLUS_TEXT("Worker"));
}

}  // namespace

int main(int argc, char** argv) { return Footprint::run(argc, argv, {{"logger", makeLogger}}); }
