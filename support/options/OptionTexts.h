// What a table of options says about itself.
#ifndef SUPPORT_OPTIONS_OPTIONTEXTS_H
#define SUPPORT_OPTIONS_OPTIONTEXTS_H

#include <string>
#include <vector>

#include "options/OptionList.h"

namespace VarnSupport {

struct ProgramTexts {
  std::string name;
  std::string version;
  std::string summary;
  std::vector<std::string> notes;
};

std::string usageText(const ProgramTexts& program, const OptionList& list);
std::string manualText(const ProgramTexts& program, const OptionList& list);
std::string completionText(const ProgramTexts& program, const OptionList& list);

}  // namespace VarnSupport

#endif
