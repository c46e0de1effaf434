// Texts of the program go into the manual and the script as data: whatever is special to roff or to
// the shell is escaped, and both see no control character but the line feeds of this source.
//
// The manual uses the macros of man(7) only, and the escapes that both groff and mandoc know. The
// completion is a function for the `complete` of bash, without its helper package, which need not
// be installed.
#include "options/OptionTexts.h"

#include <algorithm>
#include <cassert>
#include <string_view>

#include "text/TextColumns.h"

namespace VarnSupport {

namespace {

constexpr std::size_t kWidestNames = 28;

std::string inUsage(const Argument& argument) {
  const std::string name = argument.dataName + (argument.repeats ? "..." : "");
  return argument.isOptional ? '[' + name + ']' : name;
}

// What stands behind a name or a letter; a letter has a blank in front of data that it needs.
std::string behind(bool isName, const Option& option, const std::string& data, const char* blank) {
  if (option.data == Option::Data::NONE)
    return {};
  const bool isOptional = option.data == Option::Data::OPTIONAL;
  std::string text = isOptional ? "[" : "";
  text += isName ? "=" : isOptional ? "" : blank;
  text += data;
  text += isOptional ? "]" : "";
  return text;
}

// "-c, --config=FILE", "-o FILE", "    --colour[=WHEN]".
std::string inUsage(const Option& option) {
  std::string text = option.letter != '\0' ? std::string{'-', option.letter} : "  ";
  if (!option.name.empty())
    text.append(option.letter != '\0' ? ", --" : "  --").append(option.name);
  return text + behind(!option.name.empty(), option, option.dataName, " ");
}

struct Entry {
  std::string names;
  const std::string& text;
};

// The texts begin in one column; names that reach into it have a line of their own.
void putEntries(WrappedText& out, const std::vector<Entry>& entries, std::size_t column) {
  for (const Entry& entry : entries) {
    out.indent(2);
    out.put(entry.names);
    if (out.column() + 2 > column)
      out.endLine();
    out.indent(column);
    out.wrap(entry.text);
    out.endLine();
    out.indent(0);
  }
}

std::string roffEscaped(std::string_view text) {
  std::string escaped;
  bool isOfOption = false;  // where a hyphen is a minus sign, as the reader may copy it
  char last = ' ';
  for (const char c : text) {
    if (last == ' ' || last == '\n')
      isOfOption = c == '-';
    switch (c) {
      case '\\':
        escaped += "\\e";
        break;
      case '-':
        escaped += isOfOption ? "\\-" : "-";
        break;
      case '\'':
        escaped += "\\(aq";
        break;
      case '`':
        escaped += "\\(ga";
        break;
      case '^':
        escaped += "\\(ha";
        break;
      case '~':
        escaped += "\\(ti";
        break;
      case '.':
        escaped += last == '\n' || escaped.empty() ? "\\&." : ".";
        break;
      case '\n':
        escaped += "\n.br\n";
        break;
      default:
        escaped += static_cast<unsigned char>(c) < ' ' || c == '\x7f' ? ' ' : c;
    }
    last = c;
  }
  return escaped;
}

// In a font, without a place for a line to break.
std::string roffIn(char font, std::string_view text) {
  assert(font == 'B' || font == 'I');
  std::string escaped;
  for (const char c : text) {
    if (c == '-')
      escaped += "\\-";
    else if (c == ' ')
      escaped += "\\ ";
    else
      escaped += roffEscaped(std::string_view(&c, 1));
  }
  return std::string("\\f") + font + escaped + "\\fR";
}

std::string roffBehind(bool isName, const Option& option) {
  return behind(isName, option, roffIn('I', option.dataName), "\\ ");
}

std::string roffNames(const Option& option) {
  std::string text;
  if (option.letter != '\0')
    text = roffIn('B', std::string{'-', option.letter});
  if (!option.name.empty())
    text.append(text.empty() ? "" : ", ").append(roffIn('B', "--" + option.name));
  return text + roffBehind(!option.name.empty(), option);
}

// 'text', of which the shell expands nothing.
std::string shellQuoted(std::string_view text) {
  std::string quoted = "'";
  for (const char c : text)
    quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + '\'';
}

// Names of programs may have characters that a function's may not.
std::string functionName(std::string_view program) {
  std::string name = "_";
  for (const char c : program) {
    const bool isPlain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
    name += isPlain ? c : '_';
  }
  return name + "_options";
}

// Offers options alone, and none behind "--" or for the data of an option: there the shell's own
// completion of file names goes on.
const char kScript[] = R"(() {
  local current=${COMP_WORDS[COMP_CWORD]} previous='' word quoted
  COMPREPLY=()
  for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
    [[ $word != -- ]] || return 0
    previous=$word
  done
  [[ $current == -* && $previous != = ]] || return 0
  for word in "${withData[@]}"; do
    [[ $word != "$previous" ]] || return 0
  done
  for word in "${options[@]}"; do
    [[ $word == "$current"* ]] || continue
    printf -v quoted %q "$word"
    COMPREPLY+=("$quoted")
  done
  if [[ ${#COMPREPLY[@]} == 1 && ${COMPREPLY[0]} == *= ]]; then
    compopt -o nospace 2>/dev/null
  fi
  return 0
}
)";

}  // namespace

std::string usageText(const ProgramTexts& program, const OptionList& list) {
  WrappedText out;
  constexpr std::string_view kIntroduction = "usage: ";
  out.put(kIntroduction);
  out.indent(kIntroduction.size());
  out.put(program.name);
  out.wrap(" [OPTION...]");
  std::vector<Entry> arguments;
  for (const Argument& argument : list.arguments()) {
    out.wrap(' ' + inUsage(argument));
    if (!argument.text.empty())
      arguments.push_back({argument.dataName, argument.text});
  }
  out.endLine();
  out.indent(0);
  if (!program.summary.empty())
    out.text() += '\n';
  out.wrap(program.summary);
  out.endLine();
  std::vector<Entry> options;
  for (const Option* const option : list.inOrder())
    options.push_back({inUsage(*option), option->text});
  const auto groups = {&arguments, &options};
  std::size_t widest = 0;
  for (const auto* const entries : groups) {
    for (const Entry& entry : *entries) {
      if (const std::size_t columns = columnsOf(entry.names); columns <= kWidestNames)
        widest = std::max(widest, columns);
    }
  }
  for (const auto* const entries : groups) {
    if (!entries->empty())
      out.text() += '\n';
    putEntries(out, *entries, widest + 4);
  }
  for (const std::string& note : program.notes) {
    out.text() += '\n';
    out.wrap(note);
    out.endLine();
  }
  return std::move(out.text());
}

// Only the two sections that are made of options: the rest of the page is its author's.
std::string manualText(const ProgramTexts& program, const OptionList& list) {
  std::string text = ".SH SYNOPSIS\n" + roffIn('B', program.name);
  for (const Option* const option : list.inOrder()) {
    if (option->answer != Option::Answer::NONE)
      continue;
    const bool isName = option->letter == '\0';
    const std::string name = isName ? option->shown() : std::string{'-', option->letter};
    text += "\n[" + roffIn('B', name) + roffBehind(isName, *option);
    text += option->repeats ? "]..." : "]";
  }
  for (const Argument& argument : list.arguments()) {
    const std::string name = roffIn('I', argument.dataName) + (argument.repeats ? "..." : "");
    text += '\n' + (argument.isOptional ? '[' + name + ']' : name);
  }
  text += "\n.SH OPTIONS\n";
  for (const Argument& argument : list.arguments()) {
    if (!argument.text.empty())
      text += ".TP\n" + roffIn('I', argument.dataName) + '\n' + roffEscaped(argument.text) + '\n';
  }
  for (const Option* const option : list.inOrder())
    text += ".TP\n" + roffNames(*option) + '\n' + roffEscaped(option->text) + '\n';
  return text;
}

std::string completionText(const ProgramTexts& program, const OptionList& list) {
  std::string options;
  std::string withData;
  for (const Option* const option : list.inOrder()) {
    const bool needsData = option->data == Option::Data::NEEDED;
    const std::string letter{'-', option->letter};
    if (!option->name.empty())
      options += ' ' + shellQuoted(option->shown() + (needsData ? "=" : ""));
    else
      options += ' ' + shellQuoted(letter);
    if (needsData && !option->name.empty())
      withData += ' ' + shellQuoted(option->shown());
    if (needsData && option->letter != '\0')
      withData += ' ' + shellQuoted(letter);
  }
  const std::string script = kScript;
  const std::string begin = "() {\n";
  const std::string function = functionName(program.name);
  return function + begin + "  local -a options=(" + options + ")\n  local -a withData=(" +
         withData + ")\n" + script.substr(begin.size()) + "complete -o default -F " + function +
         " -- " + shellQuoted(program.name) + '\n';
}

}  // namespace VarnSupport
