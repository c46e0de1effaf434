// Where settings come from, and what was read of them.
#ifndef SUPPORT_SETTINGS_SETTINGSSTATE_H
#define SUPPORT_SETTINGS_SETTINGSSTATE_H

#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "VarnSupport/VarnSettings.h"
#include "settings/SettingsFaults.h"

namespace VarnSupport {

struct VarnSettings::Sources {
  // Where relative paths of a place begin.
  std::string folderOf(const SettingsPlace& place) const;

  std::string fileName;  // as it was given
  std::string file;      // absolute; empty for none
  std::string workingFolder;
  // Without a lock, which the child of a fork could find held for good: it never changes.
  VarnProperties<std::string>::tProperties commandLine;
  std::string prefix;
};

// A value as a layer gives it.
struct GivenValue {
  std::string text;
  bool hasValue = true;  // false for a line without '='
  SettingsPlace place;
  std::string name;  // of the setting in its layer
};

struct VarnSettings::State {
  // How a single value is read.
  struct Reading {
    bool isRequired = false;
    bool hasReferences = true;
    bool mayBeBare = false;  // a line without '='
    const std::vector<std::string>* later = nullptr;
  };

  explicit State(std::shared_ptr<const Sources> from);

  // All values of the layer that counts.
  std::vector<GivenValue> given(const std::string& key) const;
  // As above, for a setting that was asked for. Nothing when it is not there or wrong.
  std::optional<GivenValue> one(const std::string& key, const Reading& reading);
  bool expand(GivenValue& value, const std::vector<std::string>* later = nullptr);

  void fault(const GivenValue& value, const std::string& reason) {
    faults.add(value.place, value.name, reason);
  }
  void missing(const std::string& key);
  // For the end: lines that nobody has any use for.
  void addUselessLines(SettingsFaults& all);

  const std::shared_ptr<const Sources> sources;
  SettingsFaults faults;
  std::set<std::string, std::less<>> asked;
  std::map<std::string, std::string, std::less<>> defined;
  std::map<std::string, std::vector<std::string>> found;
  std::vector<GivenValue> lines;
  std::map<std::string, std::vector<std::size_t>, std::less<>> linesOf;  // positions in `lines`

 private:
  struct Expansion;

  void load();
  void addLine(std::size_t number, std::string_view line);
  std::optional<GivenValue> onCommandLine(const std::string& key,
                                          std::vector<GivenValue>* all) const;
  std::optional<GivenValue> inEnvironment(const std::string& key) const;
  std::optional<GivenValue> chosen(const std::string& key) const;
  std::string whyUseless(const std::string& key) const;

  std::size_t replaced = 0;  // characters that references have stood for
  bool isWhole = true;       // the file could be read
};

}  // namespace VarnSupport

#endif
