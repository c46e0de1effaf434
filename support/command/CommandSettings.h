// What a command is told before it runs.
#ifndef SUPPORT_COMMAND_COMMANDSETTINGS_H
#define SUPPORT_COMMAND_COMMANDSETTINGS_H

#include <chrono>
#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "VarnSupport/VarnCommand.h"

namespace VarnSupport {

struct CommandSettings {
  struct Stream {
    VarnCommand::tStream kind = VarnCommand::CAPTURED;
    std::size_t limitBytes = VarnCommand::kCaptureBytes;
  };

  std::vector<std::string> arguments;
  bool inheritsEnvironment = true;
  std::map<std::string, std::optional<std::string>> variables;  // nothing for what is unset
  std::optional<std::string> folder;
  bool inheritsInput = false;
  std::string input;
  Stream output;
  Stream errors;
  std::chrono::milliseconds limit{0};
  std::chrono::milliseconds grace = VarnCommand::kGrace;
};

}  // namespace VarnSupport

#endif
