// Starts the process of a command.
#ifndef SUPPORT_COMMAND_COMMANDLAUNCH_H
#define SUPPORT_COMMAND_COMMANDLAUNCH_H

#include <sys/types.h>

#include <string>

#include "command/CommandSettings.h"
#include "runtime/Descriptor.h"

namespace VarnSupport {

struct LaunchedProgram {
  pid_t process = -1;
  Descriptor handle;  // a pidfd, where the system has them
  Descriptor output;  // ends of pipes that do not block; not open for what is not captured
  Descriptor errors;
  // When there is no process: why, and what it was about.
  int error = 0;
  std::string subject;
};

// The caller must wait for the process. Requires: NoCancellation.
LaunchedProgram launchProgram(const CommandSettings& settings) noexcept;

}  // namespace VarnSupport

#endif
