// The getters: each asks the state for the one value that counts, reads it as its type, and notes
// what is wrong. The state (SettingsState) knows the layers, the references and the faults.
//
// A getter never throws for what a user has written: it notes the fault and goes on with the
// preset, so that finish() can tell of all faults of a file at once. What a getter returns beside a
// fault is therefore a value that its caller can work with, in the asked range.
#include "VarnSupport/VarnSettings.h"

#include <algorithm>
#include <cassert>
#include <filesystem>
#include <limits>
#include <set>
#include <utility>

#include "runtime/Cancellation.h"
#include "settings/FileReplacement.h"
#include "settings/References.h"
#include "settings/SettingsState.h"
#include "settings/UpdatedText.h"
#include "settings/ValueText.h"
#include "text/NumberText.h"
#include "text/TextColumns.h"

namespace VarnSupport {

namespace {

constexpr const char* kUtf16Mark = "\xFF\xFE";

std::string joined(const std::vector<std::string>& texts, const char* separator) {
  std::string all;
  for (const std::string& text : texts)
    all.append(&text == &texts.front() ? "" : separator).append(text);
  return all;
}

// " from A to B", without the ends at which every value of the kind is in the range.
template <typename Number, typename Text>
std::string rangeText(const std::pair<Number, Number>& range, const std::pair<Number, Number>& all,
                      Text text) {
  const bool hasLowest = range.first > all.first;
  const bool hasHighest = range.second < all.second;
  if (hasLowest && hasHighest)
    return " from " + text(range.first) + " to " + text(range.second);
  if (hasLowest)
    return " of at least " + text(range.first);
  return hasHighest ? " of at most " + text(range.second) : "";
}

// What a getter returns when there is nothing that it could read: the preset, or the value of the
// range that is nearest to 0.
template <typename Number, typename Range>
Number otherwise(const Number* preset, const Range& range) {
  assert(range.lowest <= range.highest);
  return preset != nullptr ? *preset : std::clamp(Number{0}, range.lowest, range.highest);
}

// How whole numbers of a unit are read and told of.
struct NumberKind {
  std::optional<long long> (*valueIn)(std::string_view text);
  std::string (*text)(long long value);
  long long lowest;
  const char* name;
  const char* examples;
};

constexpr NumberKind kPlain = {wholeNumberIn,
                               [](long long number) { return std::to_string(number); },
                               std::numeric_limits<long long>::lowest(), "whole number", ""};
constexpr NumberKind kMilliseconds = {millisecondsIn, durationText, 0, "duration",
                                      ", such as 90s or 1h30m"};
constexpr NumberKind kBytes = {bytesIn, bytesText, 0, "size", ", such as 500 or 10MiB"};

}  // namespace

VarnSettingsError::VarnSettingsError(const std::vector<std::string>& faults)
    : VarnException(joined(faults, "\n"), 0), m_vFaults(faults) {}

VarnSettingsError::~VarnSettingsError() = default;

std::string VarnSettingsError::getText() const { return joined(m_vFaults, "\n"); }

VarnSettings::VarnSettings(std::shared_ptr<const Sources> sources)
    : m_pState([&] {
        const CancellationGuard closed;
        return std::make_unique<State>(std::move(sources));
      }()) {}

VarnSettings::~VarnSettings() = default;

auto VarnSettings::makeSources(const std::string& fileName,
                               const VarnProperties<std::string>& commandLine,
                               const std::string& prefix) -> std::shared_ptr<const Sources> {
  const CancellationGuard closed;
  std::error_code unknown;
  const std::filesystem::path folder = std::filesystem::current_path(unknown);
  const std::string file = fileName.empty() ? "" : (folder / fileName).string();
  return std::make_shared<const Sources>(
      Sources{fileName, file, folder.string(), commandLine.getProperties(), prefix});
}

bool VarnSettings::has(const std::string& key) {
  const CancellationGuard closed;
  m_pState->asked.insert(key);
  return !m_pState->given(key).empty();
}

std::string VarnSettings::readText(const std::string& key, const std::string* preset,
                                   const std::vector<std::string>& later) {
  const CancellationGuard closed;
  const auto value = m_pState->one(key, {.isRequired = preset == nullptr, .later = &later});
  return value ? value->text : preset != nullptr ? *preset : std::string();
}

std::vector<std::string> VarnSettings::texts(const std::string& key, std::size_t least) {
  const CancellationGuard closed;
  m_pState->asked.insert(key);
  std::vector<std::string> texts;
  for (GivenValue& value : m_pState->given(key)) {
    if (!value.hasValue)
      m_pState->fault(value, "has no '='");
    const bool isText = value.hasValue && m_pState->expand(value);
    texts.push_back(isText ? std::move(value.text) : std::string());
  }
  if (texts.empty() && least > 0)
    m_pState->missing(key);
  else if (texts.size() < least)
    m_pState->faults.add({}, key,
                         "is there " + std::to_string(texts.size()) + " times, of at least " +
                             std::to_string(least));
  if (!texts.empty())
    m_pState->found[key] = texts;
  return texts;
}

long long VarnSettings::readNumber(const std::string& key, tUnit unit, const long long* preset,
                                   VarnNumberRange range) {
  const CancellationGuard closed;
  const NumberKind& kind = unit == PLAIN ? kPlain : unit == BYTES ? kBytes : kMilliseconds;
  const auto value = m_pState->one(key, {.isRequired = preset == nullptr});
  if (!value)
    return otherwise(preset, range);
  const std::optional<long long> number = kind.valueIn(value->text);
  if (number && *number >= range.lowest && *number <= range.highest)
    return *number;
  const std::pair allowed(range.lowest, range.highest);
  const std::pair all(kind.lowest, std::numeric_limits<long long>::max());
  m_pState->fault(*value, shownValue(value->text) + " is no " + kind.name +
                              rangeText(allowed, all, kind.text) + kind.examples);
  return otherwise(preset, range);
}

double VarnSettings::readReal(const std::string& key, const double* preset, VarnRealRange range) {
  const CancellationGuard closed;
  const auto value = m_pState->one(key, {.isRequired = preset == nullptr});
  if (!value)
    return otherwise(preset, range);
  const std::optional<double> number = realNumberIn(value->text);
  if (number && *number >= range.lowest && *number <= range.highest)
    return *number;
  const VarnRealRange all;
  m_pState->fault(*value, shownValue(value->text) + " is no number" +
                              rangeText(std::pair(range.lowest, range.highest),
                                        std::pair(all.lowest, all.highest), textOfNumber<double>));
  return otherwise(preset, range);
}

// An option of the command line that needs no value comes with an empty one, so "--verbose" and
// "verbose" in a line of its own both switch the flag on.
bool VarnSettings::flag(const std::string& key, bool preset) {
  const CancellationGuard closed;
  const auto value = m_pState->one(key, {.mayBeBare = true});
  if (!value)
    return preset;
  const bool isOption = value->place.layer == SettingsPlace::COMMAND_LINE;
  if (!value->hasValue || (isOption && value->text.empty()))
    return true;
  const std::optional<bool> isSet = flagIn(value->text);
  if (!isSet)
    m_pState->fault(*value,
                    shownValue(value->text) + " is none of true, yes, on, 1, false, no, off, 0");
  return isSet.value_or(preset);
}

std::string VarnSettings::readChoice(const std::string& key, const std::string* preset,
                                     const std::vector<std::string>& choices) {
  const CancellationGuard closed;
  const auto value = m_pState->one(key, {.isRequired = preset == nullptr});
  if (value && std::find(choices.begin(), choices.end(), value->text) != choices.end())
    return value->text;
  if (value)
    m_pState->fault(*value, shownValue(value->text) + " is none of " + joined(choices, ", "));
  return preset != nullptr ? *preset : std::string();
}

VarnRegularExpression<std::string> VarnSettings::readPattern(const std::string& key,
                                                             const std::string* preset) {
  const CancellationGuard closed;
  const auto value = m_pState->one(key, {.isRequired = preset == nullptr, .hasReferences = false});
  VarnRegularExpression<std::string> pattern;
  std::string error;
  if (value && pattern.setPatternImpl(value->text, error))
    return pattern;
  if (value)
    m_pState->fault(*value, shownValue(value->text) + " is no pattern: " + escapedText(error));
  VarnRegularExpression<std::string> instead;  // the tokens before a fault are in force
  if (preset != nullptr)
    instead.setPattern(*preset);
  return instead;
}

std::string VarnSettings::readPath(const std::string& key, const std::string* preset) {
  const CancellationGuard closed;
  const auto value = m_pState->one(key, {.isRequired = preset == nullptr});
  const std::string path = value ? value->text : preset != nullptr ? *preset : std::string();
  const std::filesystem::path folder =
      m_pState->sources->folderOf(value ? value->place : SettingsPlace());
  return path.empty() ? path : (folder / path).string();
}

// In the order of the file, then of the command line. The environment is left out: a name there
// does not tell which of its underscores stands for a dot.
std::vector<std::string> VarnSettings::list(const std::string& prefix, bool groupsAlone) const {
  const CancellationGuard closed;
  std::vector<std::pair<std::size_t, std::string_view>> keys;  // with their first positions
  const auto take = [&](const auto& given, auto positionOf) {
    for (auto at = given.lower_bound(prefix); at != given.end() && at->first.starts_with(prefix);
         ++at)
      keys.emplace_back(positionOf(at->second), at->first);
  };
  take(m_pState->linesOf, [](const auto& positions) { return positions.front(); });
  take(m_pState->sources->commandLine, [&](const auto&) { return m_pState->lines.size(); });
  std::sort(keys.begin(), keys.end());
  std::vector<std::string> listed;
  std::set<std::string> seen;
  for (const auto& [position, key] : keys) {
    const std::size_t end = groupsAlone ? key.find('.', prefix.size()) : key.size();
    if (groupsAlone && (end == key.npos || end == prefix.size()))
      continue;
    const std::size_t begin = groupsAlone ? prefix.size() : 0;
    if (std::string name(key.substr(begin, end - begin)); seen.insert(name).second)
      listed.push_back(std::move(name));
  }
  return listed;
}

void VarnSettings::define(const std::string& name, const std::string& value) {
  const CancellationGuard closed;
  m_pState->defined[name] = value;
}

void VarnSettings::fault(const std::string& key, const std::string& reason, std::size_t index) {
  const CancellationGuard closed;
  const std::vector<GivenValue> values = m_pState->given(key);
  if (index < values.size())
    m_pState->fault(values[index], escapedText(reason));
  else
    m_pState->faults.add({}, key, escapedText(reason));
}

// A copy of the faults is added to, so that a second call says the same.
void VarnSettings::finish() const {
  const CancellationGuard closed;
  SettingsFaults faults = m_pState->faults;
  m_pState->addUselessLines(faults);
  if (const std::vector<std::string> texts = faults.texts(); !texts.empty())
    throw VarnSettingsError(texts);
}

std::map<std::string, std::vector<std::string>> VarnSettings::found() const {
  const CancellationGuard closed;
  return m_pState->found;
}

std::string VarnReplaceReferences(
    const std::string& text,
    const std::function<std::optional<std::string>(const std::string& name)>& look) {
  const CancellationGuard closed;
  std::string result;
  walkReferences(
      text, [&](std::string_view plain) { result.append(plain); },
      [&](std::string_view name) {
        const std::optional<std::string> value = look(std::string(name));
        result += value ? *value : '<' + std::string(name) + '>';
      });
  return result;
}

// The file is not touched when nothing changes, so that who watches it is not woken for nothing.
void VarnUpdatePropertyFile(const std::string& fileName, const VarnProperties<std::string>& set,
                            const std::vector<std::string>& removed) {
  const CancellationGuard closed;
  auto values = set.getProperties();
  checkThatLinesHold(values);
  for (const std::string& key : removed)
    values.try_emplace(key);  // without values no line stays
  FileReplacement file(fileName);
  const std::string now = file.read();
  const std::string updated = updatedText(now, values);
  if (now.starts_with(kUtf16Mark) || updated.starts_with(kUtf16Mark))
    file.refuse("is UTF-16, which is not updated");
  if (updated != now || !file.exists())
    file.replace(updated);
}

}  // namespace VarnSupport
