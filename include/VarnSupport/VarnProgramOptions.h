// Program options: a command line, as a vector of arguments or as one text, taken apart into
// options (a property set of names and values) and plain arguments. Beside it two splitters of
// command lines into words, which differ on purpose.
//
// Objects belong to one thread at a time; only the set of options locks. Wrong command lines are
// reported by VarnException (code 0), which leaves what was recorded before.
#ifndef VARNSUPPORT_VARNPROGRAMOPTIONS_H
#define VARNSUPPORT_VARNPROGRAMOPTIONS_H

#include <cstddef>
#include <deque>
#include <string>
#include <vector>

#include "VarnSupport/VarnExport.h"
#include "VarnSupport/VarnProperties.h"

namespace VarnSupport {

// Splits a text into tokens, one per call. A quote character, anywhere in a token, begins a section
// in which delimiters and the other quote characters are plain; the same character ends it, and
// twice stands for itself. A section that is never closed runs to the end of the text. Delimiters
// at the beginning of the text make an empty first token; callers rely on it. For std::string.
template <typename StringType>
class VSUPT_EXPORT VarnCmdLineTokenizer {
 public:
  VarnCmdLineTokenizer(const StringType& text, const StringType& delimiters,
                       const StringType& quotes)
      : m_sText(text), m_sDelimiters(delimiters), m_sQuotes(quotes) {}

  // The next token; empty when there is none.
  StringType next();
  // True when there is no further token, and always without a text or without delimiters.
  bool isExhausted() const {
    return m_nPosition == kExhausted || m_sText.empty() || m_sDelimiters.empty();
  }

 private:
  static constexpr unsigned int kExhausted = ~0u;

  StringType m_sText;
  StringType m_sDelimiters;
  StringType m_sQuotes;
  unsigned int m_nPosition = 0;
};

extern template class VarnCmdLineTokenizer<std::string>;

// Options begin with '-' or, with `allowSlash`, '/'; everything else is a plain argument. There is
// no marker that ends the options. Without validation every option is accepted, and its text up to
// the first '=' is its name. With it, two texts declare what there is:
//
//   short  "ab:c"                    letters; one that a ':' follows takes data
//   long   ":help:file.:verbose:"    names in colons; one that ends with '.' takes data
//
// A single dash may introduce a long name, whose data is then the next element ("-file x"), or a
// letter with its data behind it or next ("-ox", "-o x"). Kept because callers rely on it: letters
// are not grouped ("-abc" is the option a, if that takes no data); "--name" records nothing for a
// name that takes data, not even as "--name=value"; an option without a name, or one that begins
// with the comment sign '#', is recorded nowhere.
class VSUPT_EXPORT VarnProgramOptions {
 public:
  // Parse at once, with validation when there are declarations. The first of `argv` is the
  // program's name, empty when there is none; a command line has no name.
  VarnProgramOptions(int argc, char** argv, bool allowSlash);
  VarnProgramOptions(int argc, char** argv, const std::string& shortSpec,
                     const std::string& longSpec, bool allowSlash);
  VarnProgramOptions(const std::string& commandLine, bool allowSlash);
  VarnProgramOptions(const std::string& commandLine, const std::string& shortSpec,
                     const std::string& longSpec, bool allowSlash);
  // A copy, and the target of an assignment, begins with its first argument.
  VarnProgramOptions(const VarnProgramOptions& source);
  VarnProgramOptions& operator=(const VarnProgramOptions& source);

  // Adds to the options and arguments that are there; the first of `argv` is not looked at. A null
  // element ends the vector. Throws VarnException for an option that is not declared and for one
  // whose data is missing.
  void parse(int argc, char** argv, const std::string& shortSpec, const std::string& longSpec,
             bool validate, bool allowSlash);
  // The same for the words of a command line, which blanks and tabs separate and double or single
  // quotes hold together.
  void parse(const std::string& commandLine, const std::string& shortSpec,
             const std::string& longSpec, bool validate, bool allowSlash);
  // Records a long option, given without its dashes. False, and nothing recorded, when its name is
  // declared with data. Throws VarnException when it is not declared.
  bool longOption(const std::string& option, const std::string& longSpec, bool validate);

  const std::string& getProgramName() const { return m_sName; }
  VarnProperties<std::string>& getOptions() { return m_oOptions; }
  const VarnProperties<std::string>& getOptions() const { return m_oOptions; }
  const std::deque<std::string>& getArguments() const { return m_vArguments; }
  unsigned int getArgumentCount() const { return static_cast<unsigned int>(m_vArguments.size()); }
  // The reference stays valid when more is parsed. Throws VarnException behind the last one.
  const std::string& getArgument(unsigned int index) const;

  // Steps through the arguments: false, and `argument` as it was, after the last one. Parsing goes
  // back to the first.
  bool nextArgument(std::string& argument);
  void rewindArguments() { m_nCursor = 0; }

 private:
  std::string m_sName;
  VarnProperties<std::string> m_oOptions;
  std::deque<std::string> m_vArguments;
  std::size_t m_nCursor = 0;
};

// Splits a command line at blanks into `out`; an empty one leaves `out` as it was. Tabs do not
// separate, single quotes do not quote, and no token is empty. A double quote begins a quoted
// section only at the start of a token or right after another section; there the token keeps that
// quote and loses its first character instead. Callers rely on it. `commandLine` may be an element
// of `out`.
VSUPT_EXPORT void VarnParseCommandLine(const std::string& commandLine,
                                       std::vector<std::string>& out);

}  // namespace VarnSupport

#endif
