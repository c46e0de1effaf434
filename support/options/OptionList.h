// The options and plain arguments that a program has declared, and how they are looked up.
#ifndef SUPPORT_OPTIONS_OPTIONLIST_H
#define SUPPORT_OPTIONS_OPTIONLIST_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
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

  // Reads "-c, --config=FILE" and its kind. Throws VarnException.
  void declare(const std::string& names);
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

// Reads "FILE", "[FILE]", "FILE...", "[FILE...]". Throws VarnException.
Argument readArgument(const std::string& name);

// References to options stay valid.
class OptionList {
 public:
  OptionList();
  OptionList(const OptionList&) = delete;
  OptionList& operator=(const OptionList&) = delete;

  // Adds what `names` declares, once `complete` has been called with it. Throws VarnException, with
  // the list as it was, for a name that is there, and what `complete` throws. A standard option
  // gives way, and its answer goes to a flag that stores nothing.
  template <typename Complete>
  void add(const std::string& names, Complete complete) {
    Option& option = unused();
    try {
      option.declare(names);
      complete(option);
      enter(option);
    } catch (...) {
      option = {};
      throw;
    }
  }
  // Throws VarnException, with the list as it was, for a name that is there.
  void add(Argument&& argument);

  const std::vector<Option*>& options() const { return m_vOptions; }
  const std::vector<Argument>& arguments() const { return m_vArguments; }
  std::vector<Argument>& arguments() { return m_vArguments; }
  // In the order for readers: the standard options last.
  std::vector<const Option*> inOrder() const;

  // Null when there is none.
  Option* byLetter(char letter) const {
    const auto index = static_cast<unsigned char>(letter);
    return index < m_vLetters.size() ? m_vLetters[index] : nullptr;
  }
  Option* byName(std::string_view name) const { return at(placeOf(name, hashOf(name))); }
  // What texts of callers name; null when it is not declared.
  const Declared* byKey(std::string_view key) const;
  // Those whose names begin so, in the order of the names, `most` at most.
  std::vector<Option*> byBeginning(std::string_view beginning, std::size_t most) const;
  // The declared spelling that is nearest to an unknown name; empty when none is near.
  std::string nearest(std::string_view name) const;

  void forgetGiven();

 private:
  // Of the index of names.
  struct Slot {
    std::uint32_t number = 0;  // of an option in the list, from 1; 0 where there is none
    std::uint32_t hash = 0;    // of its name
  };
  static constexpr std::size_t kBlock = 4;  // options

  static std::uint32_t hashOf(std::string_view name) {
    return static_cast<std::uint32_t>(std::hash<std::string_view>()(name));
  }
  Option* at(std::size_t place) const {
    const std::uint32_t number = m_vNames[place].number;
    return number > 0 ? m_vOptions[number - 1] : nullptr;
  }
  template <typename IsIt>
  static std::size_t firstPlace(const std::vector<Slot>& names, std::uint32_t hash, IsIt isIt);
  std::size_t placeOf(std::string_view name, std::uint32_t hash) const;
  Option& unused();
  void makeRoom();
  void enter(Option& option);
  void requireUnused(const Option& option, std::string_view key, const Option* named) const;

  // Made several at a time, where they stay; those behind the list are not declared yet.
  std::vector<std::unique_ptr<std::array<Option, kBlock>>> m_vBlocks;
  std::vector<Option*> m_vOptions;
  std::vector<Argument> m_vArguments;
  // Each name at its hash or behind that. The slots are a power of two, and half of them are empty.
  std::vector<Slot> m_vNames;
  // By their names, from the first beginning of a name that is looked for to the next addition.
  mutable std::vector<Option*> m_vSorted;
  std::vector<Option*> m_vLetters;  // of ASCII, by their codes
};

}  // namespace VarnSupport

#endif
