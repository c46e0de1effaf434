// hostwatch as a service: samples on its interval until it is stopped.
#ifndef HOSTWATCH_HOSTSERVICE_H
#define HOSTWATCH_HOSTSERVICE_H

#include <string>

#include "Settings.h"
#include "Texts.h"

namespace hostwatch {

// Runs until SIGTERM or SIGINT; false when it could not start. With an empty log file the log goes
// to standard output, which a daemon gives up. Throws VarnException for a probe that does not
// exist.
bool runService(const Settings& settings, const Texts& texts, const std::string& logFile,
                bool asDaemon);

}  // namespace hostwatch

#endif
