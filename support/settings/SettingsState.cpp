// The file is taken apart at once; the other layers are asked again for each setting. References
// are replaced from the inside out, by a recursion whose depth is limited; how much text all of
// them together may stand for is limited, too, so that "a=<b><b>", "b=<c><c>" and so on ends soon.
#include "settings/SettingsState.h"

#include <fcntl.h>

#include <algorithm>
#include <cassert>
#include <cstdlib>
#include <filesystem>

#include "runtime/System.h"
#include "settings/References.h"
#include "settings/ValueText.h"
#include "text/Blanks.h"
#include "text/NearText.h"
#include "text/PropertyFile.h"
#include "text/PropertyLine.h"
#include "text/TextColumns.h"

namespace VarnSupport {

namespace {

constexpr std::size_t kLargestFile = 16777216;
constexpr std::size_t kMostReplaced = 16777216;
constexpr std::size_t kCostOfReference = 64;  // in characters, about what both take
constexpr std::size_t kDeepest = 32;
constexpr const char* kByteOrderMark = "\xEF\xBB\xBF";

char inVariableName(char c) {
  if (c >= 'a' && c <= 'z')
    return static_cast<char>(c - 'a' + 'A');
  return (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ? c : '_';
}

char inOptionName(char c) { return c == '.' || c == '_' ? '-' : c; }

std::string mapped(std::string text, char (*map)(char)) {
  std::transform(text.begin(), text.end(), text.begin(), map);
  return text;
}

std::string unreadable(int error) { return std::string("cannot be read: ") + errorText(error); }

// Why a file that is open, or not, is none for settings; empty when it is.
std::string refusalOf(const CharacterSource<char>& source) {
  if (!source.file().isOpen())
    return unreadable(source.error());
  if (!source.file().isRegular())
    return "is not a regular file";
  return source.file().length() > kLargestFile ? "is larger than 16 MiB" : "";
}

}  // namespace

std::string VarnSettings::Sources::folderOf(const SettingsPlace& place) const {
  const bool isOfFile = place.layer == SettingsPlace::FILE && !file.empty();
  return isOfFile ? std::filesystem::path(file).parent_path().string() : workingFolder;
}

VarnSettings::State::State(std::shared_ptr<const Sources> from)
    : sources(std::move(from)), faults(sources->fileName) {
  if (!sources->file.empty())
    load();
}

// Pipes are not waited for.
void VarnSettings::State::load() {
  PropertyFileReader<char> reader(sources->file, O_NONBLOCK | O_NOCTTY, true);
  std::string refusal = refusalOf(reader.source());
  std::vector<std::string_view> block;
  std::size_t number = 0;
  while (refusal.empty() && reader.nextLines(block)) {
    for (const std::string_view line : block)
      addLine(++number, line);
  }
  if (refusal.empty() && reader.source().error() != 0)
    refusal = unreadable(reader.source().error());
  isWhole = refusal.empty();
  if (!isWhole)
    faults.add({}, "", refusal);
}

// What text editors cannot show is refused rather than made a part of a value: a NUL, and a
// carriage return that ends no line.
void VarnSettings::State::addLine(std::size_t number, std::string_view line) {
  assert(number > 0 && line.find('\n') == line.npos);
  const SettingsPlace place{SettingsPlace::FILE, number};
  if (!line.empty() && line.back() == '\r')
    line.remove_suffix(1);
  if (line.find('\0') != line.npos)
    return faults.add(place, "", "has a NUL in it");
  if (line.find('\r') != line.npos)
    return faults.add(place, "", "has a carriage return in its middle");
  if (line.find_first_not_of(" \t") == line.npos || line.front() == '#')
    return;
  const PropertyLine<std::string> property(line, '=');
  if (property.key.empty())
    return faults.add(place, "", "has nothing before its '='");
  const std::string key(property.key);
  linesOf[key].push_back(lines.size());
  lines.push_back({std::string(property.value), key.size() < line.size(), place, key});
}

// The last value, and to `all` every one.
std::optional<GivenValue> VarnSettings::State::onCommandLine(const std::string& key,
                                                             std::vector<GivenValue>* all) const {
  for (const std::string& name : {key, mapped(key, inOptionName)}) {
    const auto entry = sources->commandLine.find(name);
    if (entry == sources->commandLine.end())
      continue;
    const std::vector<std::string>& values = entry->second;
    const SettingsPlace place{SettingsPlace::COMMAND_LINE, 0};
    for (const std::string& value : values) {
      if (all != nullptr)
        all->push_back({value, true, place, name});
    }
    return GivenValue{values.back(), true, place, name};
  }
  return std::nullopt;
}

std::optional<GivenValue> VarnSettings::State::inEnvironment(const std::string& key) const {
  if (sources->prefix.empty())
    return std::nullopt;
  const std::string name = sources->prefix + '_' + mapped(key, inVariableName);
  const char* const value = std::getenv(name.c_str());
  if (value == nullptr)
    return std::nullopt;
  return GivenValue{value, true, {SettingsPlace::ENVIRONMENT, 0}, name};
}

// The value that counts where there can be but one.
std::optional<GivenValue> VarnSettings::State::chosen(const std::string& key) const {
  if (auto value = onCommandLine(key, nullptr))
    return value;
  if (auto value = inEnvironment(key))
    return value;
  const auto positions = linesOf.find(key);
  return positions != linesOf.end() ? std::optional(lines[positions->second.front()])
                                    : std::nullopt;
}

std::vector<GivenValue> VarnSettings::State::given(const std::string& key) const {
  std::vector<GivenValue> values;
  if (onCommandLine(key, &values))
    return values;
  if (auto value = inEnvironment(key)) {
    values.push_back(std::move(*value));
  } else if (const auto positions = linesOf.find(key); positions != linesOf.end()) {
    for (const std::size_t position : positions->second)
      values.push_back(lines[position]);
  }
  return values;
}

// A key that is there twice is a fault at its second line, which tells where the first is; the
// first counts.
std::optional<GivenValue> VarnSettings::State::one(const std::string& key, const Reading& reading) {
  asked.insert(key);
  std::optional<GivenValue> value = chosen(key);
  if (!value) {
    if (reading.isRequired)
      missing(key);
    return std::nullopt;
  }
  if (value->place.layer == SettingsPlace::FILE) {
    for (const std::size_t position : linesOf.find(key)->second) {
      if (lines[position].place != value->place)
        fault(lines[position], "stands in line " + std::to_string(value->place.line) + " already");
    }
  }
  if (!value->hasValue && !reading.mayBeBare) {
    fault(*value, "has no '='");
    return std::nullopt;
  }
  if (reading.hasReferences && !expand(*value, reading.later))
    return std::nullopt;
  found[key] = {value->text};
  return value;
}

// Of a file that could not be read nobody knows what it lacks.
void VarnSettings::State::missing(const std::string& key) {
  if (isWhole)
    faults.add({}, key, "is missing");
}

struct VarnSettings::State::Expansion {
  void add(std::string_view text) {
    result.append(text);
    state.replaced += chain.empty() ? 0 : text.size();
  }
  void addReference(std::string_view reference);
  void replaceIn(std::string_view text) {
    walkReferences(
        text, [this](std::string_view plain) { add(plain); },
        [this](std::string_view name) { addReference(name); });
  }

  State& state;
  const std::vector<std::string>* later;
  std::string result{};
  std::string refusal{};
  std::vector<std::string> chain{};  // the settings whose references are being replaced
};

void VarnSettings::State::Expansion::addReference(std::string_view reference) {
  if (!refusal.empty())
    return;
  const std::string name(reference);
  if (later != nullptr && std::find(later->begin(), later->end(), name) != later->end())
    return add('<' + name + '>');
  assert(chain.size() <= kDeepest);
  state.replaced += kCostOfReference;
  if (std::find(chain.begin(), chain.end(), name) != chain.end()) {
    refusal = "refers to " + shownValue(name) + ", which leads back to itself";
  } else if (chain.size() == kDeepest) {
    refusal = "refers to " + shownValue(name) + ", which is too many references deep";
  } else if (state.replaced > kMostReplaced) {
    refusal = "refers to " + shownValue(name) + ", where references stand for too much text";
  } else if (const std::optional<GivenValue> value = state.chosen(name)) {
    state.replaced += value->text.size();
    chain.push_back(name);
    replaceIn(value->text);
    chain.pop_back();
  } else if (const auto own = state.defined.find(name); own != state.defined.end()) {
    add(own->second);
  } else if (const char* const variable = std::getenv(name.c_str())) {
    add(variable);
  } else {
    refusal = "refers to " + shownValue(name) + ", which is not set";
  }
}

// The value stays as it is written where a reference is refused: the fault shows what its author
// knows.
bool VarnSettings::State::expand(GivenValue& value, const std::vector<std::string>* later) {
  Expansion expansion{*this, later};
  expansion.replaceIn(value.text);
  if (!expansion.refusal.empty())
    fault(value, expansion.refusal);
  else
    value.text = std::move(expansion.result);
  return expansion.refusal.empty();
}

// What lines refer to is of use, but must be free of faults like what is asked for.
void VarnSettings::State::addUselessLines(SettingsFaults& all) {
  std::set<std::string, std::less<>> referred;
  for (const GivenValue& line : lines) {
    walkReferences(
        line.text, [](std::string_view) {}, [&](std::string_view name) { referred.emplace(name); });
  }
  for (const GivenValue& line : lines) {
    if (asked.count(line.name) > 0)
      continue;
    if (referred.count(line.name) == 0) {
      all.add(line.place, line.name, all.isFull() ? "" : whyUseless(line.name));
      continue;
    }
    Expansion expansion{*this, nullptr};
    expansion.replaceIn(line.text);
    if (!expansion.refusal.empty())
      all.add(line.place, line.name, expansion.refusal);
  }
}

// Tells apart what looks alike to the eye from what is merely misspelt.
std::string VarnSettings::State::whyUseless(const std::string& key) const {
  if (key.starts_with(kByteOrderMark))
    return "begins with a byte order mark, which belongs to the key";
  if (const auto name = withoutBlanks(key); name != key && asked.count(name) > 0)
    return "has blanks beside it, which belong to the key";
  NearText wanted(key);
  const std::string* nearest = nullptr;
  for (const std::string& name : asked) {
    if (wanted.isNearer(name))
      nearest = &name;
  }
  const std::string reason = "there is no such setting";
  return nearest != nullptr ? reason + "; the nearest is " + escapedText(*nearest) : reason;
}

}  // namespace VarnSupport
