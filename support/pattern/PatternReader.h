// The compiler of patterns: reads the text of one into the tokens of a program.
#ifndef SUPPORT_PATTERN_PATTERNREADER_H
#define SUPPORT_PATTERN_PATTERNREADER_H

#include "pattern/PatternProgram.h"

namespace VarnSupport {

// Reads `text` into an empty program. Returns null, or what is wrong; the tokens before the fault
// are there then. For std::string and std::wstring.
template <typename StringType>
const char* readPattern(const StringType& text, PatternProgram<StringType>& program);

extern template const char* readPattern(const std::string&, PatternProgram<std::string>&);
extern template const char* readPattern(const std::wstring&, PatternProgram<std::wstring>&);

}  // namespace VarnSupport

#endif
