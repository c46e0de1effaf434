// The sides of the benchmarks of properties, and the files that they load.
#ifndef BENCH_PROPERTYSIDES_H
#define BENCH_PROPERTYSIDES_H

#include <fstream>
#include <map>
#include <memory>
#include <type_traits>
#include <vector>

#include "Data.h"
#include "Workload.h"

#ifdef PEER_POCO
#include <Poco/Util/PropertyFileConfiguration.h>
#endif
#ifdef PEER_BOOST
#include <boost/property_tree/ini_parser.hpp>
#include <boost/property_tree/ptree.hpp>
#endif
#ifdef PEER_GLIB
#include <glib.h>
#endif

namespace Bench {

inline const TemporaryFolder& folderOfProperties() {
  static const TemporaryFolder folder;
  return folder;
}

// A file of `lines` properties; with a group, as some sides need one.
inline std::string fileOf(int lines, const std::string& group) {
  const std::string name = folderOfProperties() / (std::to_string(lines) + group);
  if (!std::filesystem::exists(name)) {
    std::ofstream file(name);
    file << group;
    for (const auto& [key, value] : properties(lines))
      file << key << '=' << value << '\n';
  }
  return name;
}

// Each side loads a file, looks a key up (empty when there is none) by a reference where it has
// that and by a copy, and saves. Where it locks, threads may use and change it at any time.

template <typename StringType>
class OurProperties {
 public:
  using Key = StringType;
  static constexpr const char* kGroup = "";
  static constexpr bool kLocks = true;

  void load(const std::string& file) { m_oSet.loadProperties(file, '='); }
  const StringType& find(const StringType& key) const {
    static const StringType none;
    return m_oSet.getProperty(key, none);
  }
  StringType copy(const StringType& key) const { return m_oSet.getProperty(key, StringType()); }
  static std::string referenceTo(const std::string& key) { return "<" + key + ">"; }
  std::string expand(const std::string& text) requires std::is_same_v<StringType, std::string> {
    return VarnSupport::VarnExpandString(text, m_oSet);
  }
  void save(const std::string& file) { m_oSet.saveProperties(file); }

 private:
  VarnSupport::VarnProperties<StringType> m_oSet;
};

class StandardMap {
 public:
  using Key = std::string;
  static constexpr const char* kGroup = "";
  static constexpr bool kLocks = false;

  void load(const std::string& file) {
    std::ifstream stream(file);
    for (std::string line; std::getline(stream, line);) {
      const std::size_t separator = line.find('=');
      m_mapValues[line.substr(0, separator)].push_back(line.substr(separator + 1));
    }
  }
  const std::string& find(const std::string& key) const {
    static const std::string none;
    const auto found = m_mapValues.find(key);
    return found == m_mapValues.end() ? none : found->second.front();
  }
  std::string copy(const std::string& key) const { return find(key); }
  void save(const std::string& file) const {
    std::ofstream stream(file);
    for (const auto& [key, values] : m_mapValues)
      stream << key << '=' << values.front() << '\n';
  }

 private:
  std::map<std::string, std::vector<std::string>> m_mapValues;
};

#ifdef PEER_POCO
class PocoProperties {
 public:
  using Key = std::string;
  static constexpr const char* kGroup = "";
  static constexpr bool kLocks = true;

  void load(const std::string& file) { m_pSet->load(file); }
  std::string copy(const std::string& key) const { return m_pSet->getString(key, ""); }
  static std::string referenceTo(const std::string& key) { return "${" + key + "}"; }
  std::string expand(const std::string& text) const { return m_pSet->expand(text); }
  void save(const std::string& file) const { m_pSet->save(file); }

 private:
  Poco::AutoPtr<Poco::Util::PropertyFileConfiguration> m_pSet{
      new Poco::Util::PropertyFileConfiguration};
};
#endif

#ifdef PEER_BOOST
class BoostProperties {
 public:
  using Key = std::string;
  static constexpr const char* kGroup = "";
  static constexpr bool kLocks = false;

  void load(const std::string& file) { boost::property_tree::read_ini(file, m_oSet); }
  std::string copy(const std::string& key) const { return m_oSet.get<std::string>(key, ""); }
  void save(const std::string& file) const { boost::property_tree::write_ini(file, m_oSet); }

 private:
  boost::property_tree::ptree m_oSet;
};
#endif

#ifdef PEER_GLIB
class GLibProperties {
 public:
  using Key = std::string;
  static constexpr const char* kGroup = "[all]\n";
  static constexpr bool kLocks = false;

  void load(const std::string& file) {
    g_key_file_load_from_file(m_pSet.get(), file.c_str(), G_KEY_FILE_NONE, nullptr);
  }
  std::string copy(const std::string& key) const {
    const std::unique_ptr<char, void (*)(void*)> value(
        g_key_file_get_string(m_pSet.get(), "all", key.c_str(), nullptr), g_free);
    return value == nullptr ? "" : value.get();
  }
  void save(const std::string& file) const {
    g_key_file_save_to_file(m_pSet.get(), file.c_str(), nullptr);
  }

 private:
  std::unique_ptr<GKeyFile, void (*)(GKeyFile*)> m_pSet{g_key_file_new(), g_key_file_free};
};
#endif

template <typename Side>
typename Side::Key textFor(const std::string& text) {
  return {text.data(), text.size()};
}

// Calls `add` with each side: a type, in std::type_identity, and its name.
template <typename Add>
void addPropertySides(Add add) {
  add(std::type_identity<OurProperties<std::string>>(), "ours");
  add(std::type_identity<OurProperties<VarnSupport::ci_string>>(), "ours, case-insensitive");
  add(std::type_identity<StandardMap>(), "std");
#ifdef PEER_POCO
  add(std::type_identity<PocoProperties>(), "POCO");
#endif
#ifdef PEER_BOOST
  add(std::type_identity<BoostProperties>(), "Boost");
#endif
#ifdef PEER_GLIB
  add(std::type_identity<GLibProperties>(), "GLib");
#endif
}

}  // namespace Bench

#endif
