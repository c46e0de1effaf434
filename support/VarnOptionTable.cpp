// A parse gathers all that a command line holds before anything is recorded or stored, so that a
// wrong one changes nothing. Declared options keep two functions of their kind: `fault`, which says
// what is wrong with data, and `store`, which hands it to the program's variable once all is well.
//
// What is wrong with a declaration is a mistake of the program's author, and is thrown as a
// VarnException by the function that declares. What is wrong with a command line is a
// VarnOptionError, whose code is the exit status.
#include "VarnSupport/VarnOptionTable.h"

#include <cassert>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string_view>
#include <utility>

#include "options/CommandLine.h"
#include "options/OptionList.h"
#include "options/OptionTexts.h"
#include "runtime/Cancellation.h"
#include "runtime/System.h"
#include "text/NumberText.h"
#include "text/TextColumns.h"

namespace VarnSupport {

struct VarnOptionTable::State {
  ProgramTexts program;
  OptionList list;
  std::vector<std::string> arguments;
  bool stopsAtArgument = false;

  const Declared& named(const std::string& name) const {
    if (const Declared* const declared = list.byKey(name); declared != nullptr)
      return *declared;
    throw VarnException("VarnOptionTable: nothing is declared as " + name, 0);
  }
  void record(const CommandLine& found);
  void store() const;
  std::string answer(Option::Answer answer) const;
};

namespace {

constexpr int kWrongUse = 2;  // the exit code

// All of `text`, which may begin with a plus sign, as a decimal number in the range.
template <typename Number>
std::optional<Number> numberWithin(std::string_view text, Number lowest, Number highest) {
  if (text.starts_with('+') && !text.starts_with("+-"))
    text.remove_prefix(1);
  const std::optional<Number> number = numberIn<Number>(text);
  return number && *number >= lowest && *number <= highest ? number : std::nullopt;
}

// "1 to 9", with the ends that are of the caller; empty when none is.
template <typename Range>
std::string limitsText(const Range& range) {
  if (range.hasLowest && range.hasHighest)
    return textOfNumber(range.lowest) + " to " + textOfNumber(range.highest);
  if (range.hasLowest)
    return "at least " + textOfNumber(range.lowest);
  return range.hasHighest ? "at most " + textOfNumber(range.highest) : std::string();
}

template <typename Range>
std::string realNumber(const Range& range) {
  const std::string limits = limitsText(range);
  return limits.empty() ? "a number" : "a number of " + limits;
}

// Makes `option` a number's, whose data is read twice: checked while it is parsed, and stored in
// the end. Throws VarnException.
template <typename Range, typename Number>
void completeNumber(Option& option, const std::string& names, const std::string& text,
                    const Range& range, const std::function<void(Number)>& store,
                    const std::string& wanted) {
  if (option.data != Option::Data::NEEDED || !(range.lowest <= range.highest))
    throw VarnException("VarnOptionTable: \"" + names + "\" declares no number", 0);
  const std::string limits = limitsText(range);
  option.text = text + (limits.empty() ? "" : " (" + limits + ')');
  const auto read = [lowest = range.lowest, highest = range.highest](const std::string& data) {
    return numberWithin(data, lowest, highest);
  };
  option.fault = [read, fault = "is not " + wanted](const std::string& data) {
    return read(data) ? std::string() : fault;
  };
  option.store = [read, store](const std::vector<std::string>& given) {
    const std::optional<Number> number = read(given.back());
    assert(number && "only what has no fault is stored");
    store(*number);
  };
}

// Throws VarnException when not all of it can be written.
void print(const std::string& text) {
  errno = 0;
  if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size() || std::fflush(stdout) != 0)
    throw VarnException(std::string("cannot write to standard output: ") + errorText(errno), 0);
}

}  // namespace

VarnOptionError::VarnOptionError(const std::string& text)
    : VarnException(wideText(text), kWrongUse), m_sText(text) {}

VarnOptionError::~VarnOptionError() = default;

// The base keeps wide text only. The bytes are given as they came, as long as nobody has changed
// the text meanwhile.
std::string VarnOptionError::getText() const {
  const CancellationGuard closed;
  return getUText() == wideText(m_sText) ? m_sText : VarnException::getText();
}

void VarnOptionTable::State::record(const CommandLine& found) {
  distribute(found.arguments, list.arguments());
  arguments.assign(found.arguments.begin(), found.arguments.end());
  for (const FoundOption& one : found.options)
    one.option->given.emplace_back(one.data);
}

void VarnOptionTable::State::store() const {
  const auto storeOne = [](const Declared& declared) {
    if (declared.store && !declared.given.empty())
      declared.store(declared.given);
  };
  for (const Option* const option : list.options())
    storeOne(*option);
  for (const Argument& argument : list.arguments())
    storeOne(argument);
}

std::string VarnOptionTable::State::answer(Option::Answer answer) const {
  if (answer == Option::Answer::HELP)
    return usageText(program, list);
  if (answer == Option::Answer::COMPLETION)
    return completionText(program, list);
  return program.name + (program.version.empty() ? "" : ' ' + program.version) + '\n';
}

VarnOptionTable::VarnOptionTable(const std::string& name, const std::string& version,
                                 const std::string& summary)
    : m_pState(std::make_unique<State>()) {
  m_pState->program.name = name.substr(name.rfind('/') + 1);
  m_pState->program.version = version;
  m_pState->program.summary = summary;
}

VarnOptionTable::~VarnOptionTable() = default;

VarnOptionTable& VarnOptionTable::add(tKind kind, const std::string& names, const std::string& text,
                                      const std::function<void(const tTexts& given)>& store) {
  const CancellationGuard closed;
  if (kind == ARGUMENT || kind == ARGUMENTS) {
    Argument argument = readArgument(names);
    if (kind == ARGUMENT && argument.repeats)
      throw VarnException("VarnOptionTable: \"" + names + "\" needs a vector", 0);
    argument.text = text;
    argument.store = store;
    m_pState->list.add(std::move(argument));
    return *this;
  }
  m_pState->list.add(names, [&](Option& option) {
    if ((kind == FLAG) != (option.data == Option::Data::NONE))
      throw VarnException("VarnOptionTable: \"" + names + '"' +
                              (kind == FLAG ? " is a flag with data" : " does not name its data"),
                          0);
    option.text = text;
    option.repeats = kind == VALUES;
    option.store = store;
  });
  return *this;
}

VarnOptionTable& VarnOptionTable::addNumber(const std::string& names, const std::string& text,
                                            const Range<std::int64_t>& range,
                                            const std::function<void(std::int64_t)>& store) {
  const CancellationGuard closed;
  m_pState->list.add(names, [&](Option& option) {
    completeNumber(
        option, names, text, range, store,
        "a whole number from " + textOfNumber(range.lowest) + " to " + textOfNumber(range.highest));
  });
  return *this;
}

VarnOptionTable& VarnOptionTable::addNumber(const std::string& names, const std::string& text,
                                            const Range<float>& range,
                                            const std::function<void(float)>& store) {
  const CancellationGuard closed;
  m_pState->list.add(names, [&](Option& option) {
    completeNumber(option, names, text, range, store, realNumber(range));
  });
  return *this;
}

VarnOptionTable& VarnOptionTable::addNumber(const std::string& names, const std::string& text,
                                            const Range<double>& range,
                                            const std::function<void(double)>& store) {
  const CancellationGuard closed;
  m_pState->list.add(names, [&](Option& option) {
    completeNumber(option, names, text, range, store, realNumber(range));
  });
  return *this;
}

VarnOptionTable& VarnOptionTable::note(const std::string& text) {
  const CancellationGuard closed;
  m_pState->program.notes.push_back(text);
  return *this;
}

VarnOptionTable& VarnOptionTable::stopAtArgument() {
  m_pState->stopsAtArgument = true;
  return *this;
}

std::optional<int> VarnOptionTable::parse(int argc, const char* const* argv) {
  const CancellationGuard closed;
  m_pState->list.forgetGiven();
  m_pState->arguments.clear();
  const bool stops = m_pState->stopsAtArgument || std::getenv("POSIXLY_CORRECT") != nullptr;
  const CommandLine found = readCommandLine(m_pState->list, argc, argv, stops);
  if (found.answer != Option::Answer::NONE) {
    print(m_pState->answer(found.answer));
    return 0;
  }
  m_pState->record(found);
  m_pState->store();
  return std::nullopt;
}

// An exception of the library counts as wrong use, also when a function that stores has thrown it:
// the program has not begun its work.
std::optional<int> VarnOptionTable::parseOrReport(int argc, const char* const* argv) {
  const CancellationGuard closed;
  try {
    return parse(argc, argv);
  } catch (const VarnException& error) {
    const std::string& name = m_pState->program.name;
    std::string text = name + ": " + error.getText() + '\n';
    const Option* const help = m_pState->list.byName("help");
    if (error.getCode() == kWrongUse && help != nullptr && help->answer == Option::Answer::HELP)
      text += "Try '" + name + " --help'.\n";
    std::fputs(text.c_str(), stderr);
    return kWrongUse;
  }
}

std::size_t VarnOptionTable::count(const std::string& name) const {
  const CancellationGuard closed;
  return m_pState->named(name).given.size();
}

std::vector<std::string> VarnOptionTable::texts(const std::string& name) const {
  const CancellationGuard closed;
  return m_pState->named(name).given;
}

std::vector<std::string> VarnOptionTable::arguments() const {
  const CancellationGuard closed;
  return m_pState->arguments;
}

// In the form that VarnSettings takes for the command line: a flag has a value there, too.
VarnProperties<std::string> VarnOptionTable::values() const {
  const CancellationGuard closed;
  VarnProperties<std::string> all;
  for (const Option* const option : m_pState->list.options()) {
    if (option->given.empty())
      continue;
    const std::string key(option->key());
    if (option->data == Option::Data::NONE)
      all.addProperty(key, "true");
    else if (!option->repeats)
      all.addProperty(key, option->given.back());
    else
      for (const std::string& data : option->given)
        all.addProperty(key, data);
  }
  return all;
}

std::string VarnOptionTable::usage() const {
  const CancellationGuard closed;
  return usageText(m_pState->program, m_pState->list);
}

std::string VarnOptionTable::manual() const {
  const CancellationGuard closed;
  return manualText(m_pState->program, m_pState->list);
}

std::string VarnOptionTable::completion() const {
  const CancellationGuard closed;
  return completionText(m_pState->program, m_pState->list);
}

}  // namespace VarnSupport
