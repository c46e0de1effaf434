// What hostwatch prints.
#ifndef HOSTWATCH_REPORT_H
#define HOSTWATCH_REPORT_H

#include <vector>

#include "Sampling.h"

namespace hostwatch {

// Prints the samples as a table with a bar per value, coloured on a terminal.
void printTable(const std::vector<SamplePointer>& samples, const Settings& settings,
                const Texts& texts);

// Prints them as one JSON object on one line.
void printJson(const std::vector<SamplePointer>& samples, const Settings& settings);

// Prints the classes of probes, those in `builtIn` apart from the others.
void printProbes(const std::vector<std::string>& builtIn, const Texts& texts);

}  // namespace hostwatch

#endif
