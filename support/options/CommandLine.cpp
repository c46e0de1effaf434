// Where getopt_long moves plain arguments behind the options, they are gathered here: both give the
// same order. Of its other steps none is left out, so that the data of an option is the next
// element whatever that looks like, and "--" is taken for data there.
#include "options/CommandLine.h"

#include <algorithm>
#include <cassert>
#include <string>
#include <utility>

#include "VarnSupport/VarnOptionTable.h"
#include "runtime/Utf8.h"
#include "text/TextColumns.h"

namespace VarnSupport {

namespace {

constexpr std::size_t kMostCandidates = 6;

[[noreturn]] void refuse(const std::string& text) { throw VarnOptionError(text); }

std::string question(const std::string& nearest) {
  return nearest.empty() ? std::string() : "; did you mean " + nearest + "?";
}

// An option as the command line has it.
struct Spelling {
  std::string shown() const {
    return isName ? "--" + option.name : std::string{'-', option.letter};
  }
  std::string with(const std::string& data) const { return shown() + (isName ? '=' : ' ') + data; }

  Option& option;
  bool isName;  // not the letter
};

class Reader {
 public:
  Reader(const OptionList& list, int argc, const char* const* argv) : m_rList(list) {
    if (argv == nullptr || argc < 1)
      return;
    m_pNext = argv + 1;
    m_pEnd = std::find(m_pNext, argv + argc, nullptr);
    const auto count = static_cast<std::size_t>(m_pEnd - m_pNext);
    m_oFound.options.reserve(count);
    m_oFound.arguments.reserve(count);
  }

  CommandLine read(bool stopsAtArgument) {
    bool onlyArguments = false;
    while (m_pNext != m_pEnd && m_oFound.answer == Option::Answer::NONE) {
      const std::string_view element = *m_pNext++;
      if (onlyArguments || element.size() < 2 || element[0] != '-') {
        m_oFound.arguments.push_back(element);
        onlyArguments = onlyArguments || stopsAtArgument;
      } else if (element == "--") {
        onlyArguments = true;
      } else if (element[1] == '-') {
        readName(element.substr(2));
      } else {
        readLetters(element);
      }
    }
    return std::move(m_oFound);
  }

 private:
  // "--name=data" and "--name data"; data that may be left out is found behind the '=' alone.
  void readName(std::string_view text) {
    const std::size_t end = std::min(text.find('='), text.size());
    Option& option = named(text.substr(0, end));
    const Spelling spelling{option, true};
    if (end == text.size())
      note(spelling, option.data == Option::Data::NEEDED ? nextElement(spelling) : "");
    else if (option.data != Option::Data::NONE)
      note(spelling, text.substr(end + 1));
    else
      refuse(spelling.shown() + " takes no data: " + shownText("--" + std::string(text)));
  }

  // The option of that name or, if there is none, the only one whose name begins so.
  Option& named(std::string_view name) const {
    if (Option* const option = m_rList.byName(name); option != nullptr)
      return *option;
    const std::vector<Option*> candidates = m_rList.byBeginning(name, kMostCandidates);
    if (candidates.size() == 1)
      return *candidates[0];
    const std::string shown = "--" + shownText(name);
    if (candidates.empty())
      refuse("unknown option " + shown + question(m_rList.nearest(name)));
    std::string text = shown + " may be ";
    for (std::size_t i = 0; i < candidates.size(); ++i) {
      if (i + 1 == kMostCandidates)
        text += ", ...";
      else
        text += (i == 0 ? "" : i + 1 == candidates.size() ? " or " : ", ") + candidates[i]->shown();
    }
    refuse(text);
  }

  // A letter that takes data takes the rest of its element, or else the next one.
  void readLetters(std::string_view element) {
    for (std::string_view rest = element.substr(1); !rest.empty();) {
      Option* const option = m_rList.byLetter(rest[0]);
      if (option == nullptr)
        refuseLetter(element, rest);
      const Spelling spelling{*option, false};
      rest.remove_prefix(1);
      if (option->data == Option::Data::NONE) {
        note(spelling, "");
        if (m_oFound.answer != Option::Answer::NONE)
          return;
        continue;
      }
      const bool isNext = rest.empty() && option->data == Option::Data::NEEDED;
      note(spelling, isNext ? nextElement(spelling) : rest);
      return;
    }
  }

  // A single dash in front of a name is a slip that letters cannot be made out of.
  [[noreturn]] void refuseLetter(std::string_view element, std::string_view rest) const {
    assert(!rest.empty() && element.size() > rest.size());
    std::string text = "unknown option -" + shownText(rest.substr(0, firstCharacter(rest).length));
    if (element.size() == 2)
      refuse(text);
    const std::string_view name = element.substr(1, element.find('=') - 1);
    refuse(text + " in " + shownText(element) +
           question(name.size() > 2 ? m_rList.nearest(name) : std::string()));
  }

  std::string_view nextElement(const Spelling& spelling) {
    assert(spelling.option.data == Option::Data::NEEDED);
    if (m_pNext == m_pEnd)
      refuse(spelling.shown() + " needs data: " + spelling.with(spelling.option.dataName));
    return *m_pNext++;
  }

  void note(const Spelling& spelling, std::string_view data) {
    Option& option = spelling.option;
    if (option.fault) {
      if (const std::string fault = option.fault(std::string(data)); !fault.empty())
        refuse(spelling.with(shownText(data)) + ' ' + fault);
    }
    m_oFound.options.push_back({&option, data});
    m_oFound.answer = option.answer;
  }

  const OptionList& m_rList;
  const char* const* m_pNext = nullptr;
  const char* const* m_pEnd = nullptr;
  CommandLine m_oFound;
};

}  // namespace

CommandLine readCommandLine(const OptionList& list, int argc, const char* const* argv,
                            bool stopsAtArgument) {
  return Reader(list, argc, argv).read(stopsAtArgument);
}

// Arguments that must be there come first to their share, then those that may be left out, in their
// order, and what is left goes to the one that is repeated.
void distribute(const std::vector<std::string_view>& found, std::vector<Argument>& arguments) {
  std::size_t needed = 0;
  std::size_t optional = 0;
  bool hasRepeated = false;
  for (const Argument& argument : arguments) {
    ++(argument.isOptional ? optional : needed);
    if (needed > found.size())
      refuse(argument.dataName + " is missing");
    hasRepeated = hasRepeated || argument.repeats;
  }
  if (!hasRepeated && found.size() > needed + optional)
    refuse("there is no use for " + shownText(found[needed + optional]));
  optional = std::min(optional, found.size() - needed);
  const std::size_t rest = found.size() - needed - optional;
  auto next = found.begin();
  for (Argument& argument : arguments) {
    std::size_t count = argument.repeats ? rest : 0;
    if (!argument.isOptional)
      ++count;
    else if (optional > 0) {
      ++count;
      --optional;
    }
    const auto first = std::exchange(next, next + static_cast<std::ptrdiff_t>(count));
    argument.given.assign(first, next);
  }
  assert(next == found.end());
}

}  // namespace VarnSupport
