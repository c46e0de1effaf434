// hostwatch as a service: samples on its interval until it is stopped.
#ifndef HOSTWATCH_HOSTSERVICE_H
#define HOSTWATCH_HOSTSERVICE_H

#include "Settings.h"
#include "Texts.h"

namespace hostwatch {

// Runs until it is told to stop; false when it could not start, or not go on. Without a log file
// the log goes to standard output, which a daemon gives up. Throws VarnException for a probe that
// does not exist.
bool runService(const Settings& settings, const Texts& texts, bool asDaemon);

}  // namespace hostwatch

#endif
