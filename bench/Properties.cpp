// Property files of 100,000 lines, loaded and saved; look-ups among 1,000 keys.
#include <fstream>
#include <map>
#include <memory>
#include <vector>

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

namespace {

using Bench::Workload;

const Bench::TemporaryFolder g_oFolder;

std::string keyOf(int number) { return "Setting" + std::to_string(1000000 + number); }
std::string valueOf(int number) { return "value " + std::to_string(number * 7); }

// A file of `lines` properties; with a group, as some sides need one.
std::string fileOf(int lines, const std::string& group) {
  const std::string name = g_oFolder / (std::to_string(lines) + group);
  if (!std::filesystem::exists(name)) {
    std::ofstream file(name);
    file << group;
    for (int i = 0; i < lines; ++i)
      file << keyOf(i) << '=' << valueOf(i) << '\n';
  }
  return name;
}

// Each side loads a file, looks a key up (empty when there is none) as it does best, and saves.

template <typename StringType>
class Ours {
 public:
  using Key = StringType;
  static constexpr const char* kGroup = "";

  void load(const std::string& file) { m_oSet.loadProperties(file, '='); }
  const StringType& find(const StringType& key) const {
    static const StringType none;
    return m_oSet.getProperty(key, none);
  }
  void save(const std::string& file) { m_oSet.saveProperties(file); }

 private:
  VarnSupport::VarnProperties<StringType> m_oSet;
};

class StandardMap {
 public:
  using Key = std::string;
  static constexpr const char* kGroup = "";

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
  void save(const std::string& file) const {
    std::ofstream stream(file);
    for (const auto& [key, values] : m_mapValues)
      stream << key << '=' << values.front() << '\n';
  }

 private:
  std::map<std::string, std::vector<std::string>> m_mapValues;
};

#ifdef PEER_POCO
class WithPoco {
 public:
  using Key = std::string;
  static constexpr const char* kGroup = "";

  void load(const std::string& file) { m_pSet->load(file); }
  std::string find(const std::string& key) const { return m_pSet->getString(key, ""); }
  void save(const std::string& file) const { m_pSet->save(file); }

 private:
  Poco::AutoPtr<Poco::Util::PropertyFileConfiguration> m_pSet{
      new Poco::Util::PropertyFileConfiguration};
};
#endif

#ifdef PEER_BOOST
class WithBoost {
 public:
  using Key = std::string;
  static constexpr const char* kGroup = "";

  void load(const std::string& file) { boost::property_tree::read_ini(file, m_oSet); }
  std::string find(const std::string& key) const { return m_oSet.get<std::string>(key, ""); }
  void save(const std::string& file) const { boost::property_tree::write_ini(file, m_oSet); }

 private:
  boost::property_tree::ptree m_oSet;
};
#endif

#ifdef PEER_GLIB
class WithGLib {
 public:
  using Key = std::string;
  static constexpr const char* kGroup = "[all]\n";

  void load(const std::string& file) {
    g_key_file_load_from_file(m_pSet.get(), file.c_str(), G_KEY_FILE_NONE, nullptr);
  }
  std::string find(const std::string& key) const {
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

template <typename Side>
void load(benchmark::State& state, int lines) {
  const std::string file = fileOf(lines, Side::kGroup);
  const auto last = textFor<Side>(keyOf(lines - 1));
  Bench::measure(state, lines, true, [&] {
    Side side;
    side.load(file);
    return side.find(last) == textFor<Side>(valueOf(lines - 1));
  });
}

template <typename Side>
void addLoad(const std::string& name) {
  Workload("properties, load, per line").side(name, [](benchmark::State& state) {
    load<Side>(state, 100000);
  });
}

template <typename Side>
void addLookUp(const std::string& name) {
  constexpr int kKeys = 1000;
  for (const bool hit : {true, false}) {
    Workload(hit ? "properties, look-up" : "properties, look-up that fails")
        .side(name, [hit](benchmark::State& state) {
          Side side;
          side.load(fileOf(kKeys, Side::kGroup));
          std::vector<typename Side::Key> keys;
          for (int i = 0; i < kKeys; ++i)
            keys.push_back(textFor<Side>(keyOf(i * 7 % kKeys) + (hit ? "" : "x")));
          Bench::require(state, side.find(keys[1]) == textFor<Side>(hit ? valueOf(7) : ""));
          std::size_t turn = 0;
          for (auto _ : state) {
            turn = turn + 1 == keys.size() ? 0 : turn + 1;
            benchmark::DoNotOptimize(side.find(keys[turn]).size());
          }
        });
  }
}

template <typename Side>
void addSave(const std::string& name) {
  Workload("properties, save, per line").side(name, [](benchmark::State& state) {
    constexpr int kLines = 100000;
    const std::string out = g_oFolder / "saved";
    Side side;
    side.load(fileOf(kLines, Side::kGroup));
    side.save(out);
    const std::string saved = Bench::contentsOf(out);
    for (const int line : {0, kLines - 1}) {
      Bench::require(state, saved.find(keyOf(line)) != std::string::npos &&
                                saved.find(valueOf(line) + "\n") != std::string::npos);
    }
    for (auto _ : state)
      side.save(out);
    state.SetItemsProcessed(state.iterations() * kLines);
  });
}

template <typename Side>
void addGrowth(const std::string& name) {
  for (const int lines : {1000, 10000, 100000}) {
    Workload("growth of property load, per line of " + std::to_string(lines))
        .side(name, [lines](benchmark::State& state) { load<Side>(state, lines); });
  }
}

template <typename Side>
void add(const std::string& name) {
  addLoad<Side>(name);
  addSave<Side>(name);
  addLookUp<Side>(name);
}

const bool g_bAdded = [] {
  add<Ours<std::string>>("ours");
  addGrowth<Ours<std::string>>("ours");
  addLoad<Ours<VarnSupport::ci_string>>("ours, case-insensitive");
  addLookUp<Ours<VarnSupport::ci_string>>("ours, case-insensitive");
  add<StandardMap>("std");
  addGrowth<StandardMap>("std");
#ifdef PEER_POCO
  add<WithPoco>("POCO");
#endif
#ifdef PEER_BOOST
  add<WithBoost>("Boost");
#endif
#ifdef PEER_GLIB
  add<WithGLib>("GLib");
#endif
  return true;
}();

}  // namespace
