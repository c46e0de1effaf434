// The options and plain arguments that a program has declared, and how they are looked up.
#ifndef SUPPORT_OPTIONS_OPTIONLIST_H
#define SUPPORT_OPTIONS_OPTIONLIST_H

#include <cstddef>
#include <deque>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace VarnSupport {

// Something that a command line may hold: its name in texts, and what was found.
struct Declared {
  // Gets the data that was found, of which there is some.
  using Store = std::function<void(const std::vector<std::string>& given)>;

  std::string dataName;  // of an option's data, or of the argument
  std::string text;
  bool repeats = false;  // all data counts, not the last alone
  Store store;
  std::vector<std::string> given;
};

struct Option : Declared {
  enum class Data { NONE, OPTIONAL, NEEDED };
  enum class Answer { NONE, HELP, VERSION, COMPLETION };

  // "--name", or the letter where there is no name.
  std::string shown() const;
  // The key of what was given.
  std::string_view key() const { return name.empty() ? std::string_view(&letter, 1) : name; }

  std::string name;  // without dashes; empty when there is only a letter
  char letter = '\0';
  Data data = Data::NONE;
  Answer answer = Answer::NONE;
  bool isStandard = false;  // there without the caller's having declared it
  // What is wrong with data, as "is not a number"; empty for good data.
  std::function<std::string(const std::string& data)> fault;
};

struct Argument : Declared {
  bool isOptional = false;
};

// Reads "-c, --config=FILE" and its kind. Throws VarnException.
Option readOption(const std::string& names);
// Reads "FILE", "[FILE]", "FILE...", "[FILE...]". Throws VarnException.
Argument readArgument(const std::string& name);

// References to options stay valid.
class OptionList {
 public:
  OptionList();
  OptionList(const OptionList&) = delete;
  OptionList& operator=(const OptionList&) = delete;

  // Throw VarnException, with the list as it was, for a name that is there. A standard option gives
  // way, and its answer goes to a flag that stores nothing.
  void add(Option&& option);
  void add(Argument&& argument);

  const std::deque<Option>& options() const { return m_vOptions; }
  const std::vector<Argument>& arguments() const { return m_vArguments; }
  std::vector<Argument>& arguments() { return m_vArguments; }
  // In the order for readers: the standard options last.
  std::vector<const Option*> inOrder() const;

  // Null when there is none.
  Option* byLetter(char letter) const {
    const auto index = static_cast<unsigned char>(letter);
    return index < m_vLetters.size() ? m_vLetters[index] : nullptr;
  }
  Option* byName(std::string_view name) const { return m_vNames[slotOf(name)]; }
  // What texts of callers name; null when it is not declared.
  const Declared* byKey(std::string_view key) const;
  // Those whose names begin so, in the order of the names, `most` at most.
  std::vector<Option*> byBeginning(std::string_view beginning, std::size_t most) const;
  // The declared spelling that is nearest to an unknown name; empty when none is near.
  std::string nearest(std::string_view name) const;

  void forgetGiven();

 private:
  std::size_t slotOf(std::string_view name) const;
  void makeRoom();
  void requireUnused(const Option& option, std::string_view key, const Option* named) const;

  std::deque<Option> m_vOptions;
  std::vector<Argument> m_vArguments;
  // Options with a name, each at its hash or behind that. They are a power of two, and half of them
  // are null.
  std::vector<Option*> m_vNames;
  // By their names, from the first beginning of a name that is looked for to the next addition.
  mutable std::vector<Option*> m_vSorted;
  std::vector<Option*> m_vLetters;  // of ASCII, by their codes
};

}  // namespace VarnSupport

#endif
