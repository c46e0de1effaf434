// What is wrong with a configuration, and where.
#ifndef SUPPORT_SETTINGS_SETTINGSFAULTS_H
#define SUPPORT_SETTINGS_SETTINGSFAULTS_H

#include <cstddef>
#include <string>
#include <vector>

namespace VarnSupport {

// Where a value comes from. What has no line is the file as a whole.
struct SettingsPlace {
  enum tLayer : int { COMMAND_LINE, ENVIRONMENT, FILE };

  tLayer layer = FILE;
  std::size_t line = 0;

  bool operator==(const SettingsPlace&) const = default;
};

// The first hundred faults, each once; of the others there is a number.
class SettingsFaults {
 public:
  // An empty file name is left out of texts.
  explicit SettingsFaults(const std::string& fileName) : m_sFileName(fileName) {}

  // Further faults are only counted.
  bool isFull() const { return m_vFaults.size() == kMost; }
  // `key` is empty for a fault of a line or file as such.
  void add(const SettingsPlace& place, const std::string& key, const std::string& reason);
  // By place, those of one place in the order in which they came.
  std::vector<std::string> texts() const;

 private:
  static constexpr std::size_t kMost = 100;

  struct Fault {
    SettingsPlace place;
    std::string text;

    bool operator==(const Fault&) const = default;
  };

  std::string m_sFileName;
  std::vector<Fault> m_vFaults;
  std::size_t m_nMore = 0;
};

}  // namespace VarnSupport

#endif
