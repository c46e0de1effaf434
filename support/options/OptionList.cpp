// The standard options are the first of the list, and the last for readers. A program that declares
// "--help" itself takes the place of the standard one; a letter of a standard option that a program
// takes for another one is taken away from it.
#include "options/OptionList.h"

#include <algorithm>
#include <cassert>
#include <iterator>
#include <utility>

#include "VarnSupport/VarnException.h"
#include "text/NearText.h"

namespace VarnSupport {

namespace {

constexpr std::size_t kStandardOptions = 3;
constexpr std::size_t kFirstNames = 32;
constexpr std::size_t kLetters = 128;

[[noreturn]] void refuse(const std::string& names, const char* problem) {
  throw VarnException("VarnOptionTable: \"" + names + "\" " + problem, 0);
}

bool isGraphic(char c) { return static_cast<unsigned char>(c) > ' ' && c != '\x7f'; }

// What neither the rules of a command line nor those of a declaration give another meaning.
bool isOfName(char c) { return isGraphic(c) && c != '=' && c != ',' && c != '['; }

// Bytes of UTF-8 are no letters: a letter is one byte in a group such as "-xvf". A colon and a
// semicolon have a meaning of their own to getopt().
bool isLetter(char c) {
  return isOfName(c) && static_cast<unsigned char>(c) < 0x80 && c != '-' && c != ':' && c != ';';
}

bool isDataName(std::string_view name) {
  return !name.empty() &&
         std::all_of(name.begin(), name.end(), [](char c) { return isGraphic(c) || c == ' '; });
}

bool takePrefix(std::string_view& text, std::string_view prefix) {
  const bool is = text.starts_with(prefix);
  text.remove_prefix(is ? prefix.size() : 0);
  return is;
}

bool takeSuffix(std::string_view& text, std::string_view suffix) {
  const bool is = text.ends_with(suffix);
  text.remove_suffix(is ? suffix.size() : 0);
  return is;
}

// Reads what stands behind the last name: nothing, data behind `separator`, or both in brackets.
bool readData(std::string_view rest, std::string_view separator, Option& option) {
  if (rest.empty())
    return true;
  const bool isOptional = rest.front() == '[';
  if (isOptional && (!takePrefix(rest, "[") || !takeSuffix(rest, "]")))
    return false;
  if (!takePrefix(rest, separator))
    return false;
  option.data = isOptional ? Option::Data::OPTIONAL : Option::Data::NEEDED;
  option.dataName = rest;
  return isDataName(rest);
}

// "-c, --config=FILE", "-c FILE", "--config[=FILE]", "-q": the forms in which usage texts are
// written.
bool readNames(std::string_view rest, Option& option) {
  if (rest.size() > 1 && rest[0] == '-' && isLetter(rest[1])) {
    option.letter = rest[1];
    rest.remove_prefix(2);
    if (!takePrefix(rest, ", "))
      return readData(rest, rest.starts_with('[') ? "" : " ", option);
  }
  if (!takePrefix(rest, "--"))
    return false;
  const auto end = std::find_if_not(rest.begin(), rest.end(), isOfName);
  option.name.assign(rest.begin(), end);
  rest.remove_prefix(option.name.size());
  return !option.name.empty() && option.name[0] != '-' && readData(rest, "=", option);
}

}  // namespace

std::string Option::shown() const { return name.empty() ? std::string{'-', letter} : "--" + name; }

void Option::declare(const std::string& names) {
  if (!readNames(names, *this))
    refuse(names, "declares no option");
}

Argument readArgument(const std::string& name) {
  Argument argument;
  std::string_view rest = name;
  argument.repeats = takeSuffix(rest, "...");
  argument.isOptional = takePrefix(rest, "[");
  const bool isClosed = !argument.isOptional || takeSuffix(rest, "]");
  argument.repeats = takeSuffix(rest, "...") || argument.repeats;
  argument.dataName = rest;
  if (!isClosed || !isDataName(rest) || rest[0] == '-')
    refuse(name, "declares no argument");
  return argument;
}

OptionList::OptionList() : m_vNames(kFirstNames), m_vLetters(kLetters) {
  const auto addStandard = [this](const char* names, const char* text, Option::Answer answer) {
    add(names, [text, answer](Option& option) {
      option.text = text;
      option.answer = answer;
      option.isStandard = true;
    });
  };
  addStandard("-h, --help", "print this text", Option::Answer::HELP);
  addStandard("-V, --version", "print the version", Option::Answer::VERSION);
  addStandard("--completion", "print a completion script for bash", Option::Answer::COMPLETION);
  assert(m_vOptions.size() == kStandardOptions);
}

// The next one of the list, with nothing declared.
Option& OptionList::unused() {
  const std::size_t count = m_vOptions.size();
  if (count == kBlock * m_vBlocks.size())
    m_vBlocks.push_back(std::make_unique<std::array<Option, kBlock>>());
  return (*m_vBlocks[count / kBlock])[count % kBlock];
}

// The first place from that of the hash on which is free or has what is looked for.
template <typename IsIt>
std::size_t OptionList::firstPlace(const std::vector<Slot>& names, std::uint32_t hash, IsIt isIt) {
  const std::size_t mask = names.size() - 1;
  assert((names.size() & mask) == 0);
  std::size_t place = hash & mask;
  while (names[place].number > 0 && !isIt(place))
    place = (place + 1) & mask;
  return place;
}

// The place of a name in the index, or the free one for it.
std::size_t OptionList::placeOf(std::string_view name, std::uint32_t hash) const {
  assert(2 * m_vOptions.size() <= m_vNames.size());
  return firstPlace(m_vNames, hash, [this, name, hash](std::size_t place) {
    return m_vNames[place].hash == hash && at(place)->name == name;
  });
}

// For one more name.
void OptionList::makeRoom() {
  if (2 * (m_vOptions.size() + 1) <= m_vNames.size())
    return;
  std::vector<Slot> names(2 * m_vNames.size());
  for (const Slot& slot : m_vNames) {
    if (slot.number > 0)
      names[firstPlace(names, slot.hash, [](std::size_t) { return false; })] = slot;
  }
  m_vNames.swap(names);
}

// `named` is what has the key for its name.
void OptionList::requireUnused(const Option& option, std::string_view key,
                               const Option* named) const {
  const auto isTaken = [](const Option* other) { return other != nullptr && !other->isStandard; };
  // A letter that is alone and a long name of one letter would be one key.
  const Option* const other = key.size() == 1 ? byLetter(key[0]) : nullptr;
  const bool isOfLetter = other != nullptr && other->name.empty();
  const bool isArgument =
      std::any_of(m_vArguments.begin(), m_vArguments.end(),
                  [key](const Argument& argument) { return argument.dataName == key; });
  if (isTaken(named) || isOfLetter || isArgument)
    refuse(option.shown(), "is declared twice");
  if (isTaken(byLetter(option.letter)))
    refuse(std::string{'-', option.letter}, "is declared twice");
}

// `option` is the one that is not used. It takes the place of a standard one in the list.
void OptionList::enter(Option& option) {
  assert(option.letter != '\0' || !option.name.empty());
  makeRoom();
  const std::string_view key = option.key();
  const std::uint32_t hash = hashOf(key);
  const std::size_t place = placeOf(key, hash);
  requireUnused(option, key, at(place));
  Option* placed = option.name.empty() ? nullptr : at(place);
  if (placed == nullptr) {
    placed = m_vOptions.emplace_back(&option);
    m_vSorted.clear();
    if (!option.name.empty())
      m_vNames[place] = {static_cast<std::uint32_t>(m_vOptions.size()), hash};
  } else {
    if (placed->letter != '\0')
      m_vLetters[static_cast<unsigned char>(placed->letter)] = nullptr;
    if (option.data == Option::Data::NONE && !option.store)
      option.answer = placed->answer;
    *placed = std::exchange(option, {});
  }
  if (placed->letter == '\0')
    return;
  Option*& owner = m_vLetters[static_cast<unsigned char>(placed->letter)];
  assert(owner == nullptr || owner->isStandard);
  if (owner != nullptr)
    owner->letter = '\0';
  owner = placed;
}

void OptionList::add(Argument&& argument) {
  const bool isSecond =
      argument.repeats && std::any_of(m_vArguments.begin(), m_vArguments.end(),
                                      [](const Argument& other) { return other.repeats; });
  if (isSecond)
    refuse(argument.dataName, "is the second argument that is repeated");
  if (byKey(argument.dataName) != nullptr)
    refuse(argument.dataName, "is declared twice");
  m_vArguments.push_back(std::move(argument));
}

std::vector<const Option*> OptionList::inOrder() const {
  std::vector<const Option*> all(m_vOptions.begin(), m_vOptions.end());
  assert(all.size() >= kStandardOptions);
  std::rotate(all.begin(), all.begin() + kStandardOptions, all.end());
  return all;
}

const Declared* OptionList::byKey(std::string_view key) const {
  if (const Option* const option = byName(key); option != nullptr)
    return option;
  if (const Option* const option = key.size() == 1 ? byLetter(key[0]) : nullptr; option != nullptr)
    return option;
  const auto argument =
      std::find_if(m_vArguments.begin(), m_vArguments.end(),
                   [key](const Argument& other) { return other.dataName == key; });
  return argument != m_vArguments.end() ? &*argument : nullptr;
}

std::vector<Option*> OptionList::byBeginning(std::string_view beginning, std::size_t most) const {
  if (m_vSorted.empty()) {
    std::vector<Option*> sorted;
    std::copy_if(m_vOptions.begin(), m_vOptions.end(), std::back_inserter(sorted),
                 [](const Option* option) { return !option->name.empty(); });
    std::sort(sorted.begin(), sorted.end(),
              [](const Option* a, const Option* b) { return a->name < b->name; });
    m_vSorted.swap(sorted);
  }
  const auto isLess = [](const Option* option, std::string_view name) {
    return option->name < name;
  };
  std::vector<Option*> found;
  auto option = std::lower_bound(m_vSorted.begin(), m_vSorted.end(), beginning, isLess);
  for (; option != m_vSorted.end() && (*option)->name.starts_with(beginning); ++option) {
    if (found.size() == most)
      break;
    found.push_back(*option);
  }
  return found;
}

std::string OptionList::nearest(std::string_view name) const {
  NearText wanted(name);
  const Option* near = nullptr;
  for (const Option* const option : m_vOptions) {
    if (!option->name.empty() && wanted.isNearer(option->name))
      near = option;
  }
  return near != nullptr ? near->shown() : std::string();
}

void OptionList::forgetGiven() {
  for (Option* const option : m_vOptions)
    option->given.clear();
  for (Argument& argument : m_vArguments)
    argument.given.clear();
}

}  // namespace VarnSupport
