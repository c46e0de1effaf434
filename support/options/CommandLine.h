// A command line, taken apart by the rules of getopt_long.
#ifndef SUPPORT_OPTIONS_COMMANDLINE_H
#define SUPPORT_OPTIONS_COMMANDLINE_H

#include <string_view>
#include <vector>

#include "options/OptionList.h"

namespace VarnSupport {

struct FoundOption {
  Option* option;
  std::string_view data;  // empty when there is none
};

// Views of the elements, in their order.
struct CommandLine {
  std::vector<FoundOption> options;
  std::vector<std::string_view> arguments;
  // What ends the program; what follows it is not looked at.
  Option::Answer answer = Option::Answer::NONE;
};

// The first element is not looked at; a null one is the end. Throws VarnOptionError for the first
// option that is wrong.
CommandLine readCommandLine(const OptionList& list, int argc, const char* const* argv,
                            bool stopsAtArgument);

// Gives each argument of the list what is for it: each that must be there one, then each that may
// be, from the left, and the rest to the one that is repeated. Throws VarnOptionError when there
// are too few or too many; then nothing is given.
void distribute(const std::vector<std::string_view>& found, std::vector<Argument>& arguments);

}  // namespace VarnSupport

#endif
