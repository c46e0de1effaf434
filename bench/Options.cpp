// A command line of 20 arguments taken apart: options into a map, the rest into a list; with few
// options declared, and in the growth rows with many.
#include <getopt.h>

#include <map>
#include <vector>

#include "Data.h"
#include "Workload.h"

#ifdef PEER_CXXOPTS
#include <cxxopts.hpp>
#endif
#ifdef PEER_BOOST
#include <boost/program_options.hpp>
#endif
#ifdef PEER_POCO
#include <Poco/Util/Option.h>
#include <Poco/Util/OptionProcessor.h>
#include <Poco/Util/OptionSet.h>
#endif

namespace {

using Texts = std::vector<std::string>;

// What a side has found, for the check: some data and the number of the plain arguments.
using Found = std::pair<std::string, std::size_t>;

// Options that are declared, beside -o with data and -q without, and arguments in an order that is
// drawn.
class CommandLine {
 public:
  // Of `more` further options without data none is given.
  explicit CommandLine(int more) : withData(Bench::ofShape(kWithData)) {
    for (int i = 0; i < more; ++i)
      flags.push_back("other-" + std::to_string(1000 + i));
    std::vector<Texts> groups = {{"-o", draw.text(3, 9)}, {"-q"}};
    expected = {groups[0][1], 5};
    for (const std::string& name : withData) {
      groups.push_back({"--" + name, draw.text(1, 12)});
      expected.first += " " + groups.back()[1];
    }
    for (const char* const flag : {"verbose", "dry-run"}) {
      flags.push_back(flag);
      groups.push_back({std::string("--").append(flag)});
    }
    for (std::size_t i = 0; i < expected.second; ++i)
      groups.push_back({draw.text(4, 10)});
    draw.shuffle(groups);
    m_vWords.push_back("program");
    for (const Texts& group : groups)
      m_vWords.insert(m_vWords.end(), group.begin(), group.end());
  }

  int count() const { return static_cast<int>(m_vWords.size()); }
  // Single dashes introduce what has data for VarnProgramOptions: with two it records nothing.
  std::vector<char*> arguments(bool singleDashes = false) {
    std::vector<char*> all;
    for (std::string& word : m_vWords) {
      const bool hasData = std::find(withData.begin(), withData.end(),
                                     word.substr(word.find_first_not_of('-'))) != withData.end();
      all.push_back(word.data() + (singleDashes && hasData && word[0] == '-' ? 1 : 0));
    }
    all.push_back(nullptr);
    return all;
  }

  Bench::Draw draw{"options"};
  Texts withData;
  Texts flags;
  Found expected;

 private:
  static const Texts kWithData[3];

  Texts m_vWords;
};

const Texts CommandLine::kWithData[3] = {
    {"file", "level", "port", "host", "user"},
    {"configuration-directory", "maximum-number-of-connections", "listen-address",
     "log-file-pattern", "pid-file"},
    {"input-a", "input-b", "input-c", "input-d", "input-e"},
};

// What `data` gives for -o and then for each option with data, and the number of plain arguments.
template <typename Data>
Found found(const CommandLine& line, std::size_t plain, Data data) {
  Found all(data("o"), plain);
  for (const std::string& name : line.withData)
    all.first.append(" ").append(data(name));
  return all;
}

// Each side makes, once, what takes the line apart over and over.
using Parse = std::function<Found()>;

Parse ours(CommandLine& line) {
  std::string longNames(":");
  for (const std::string& name : line.withData)
    longNames += name + ".:";
  for (const std::string& name : line.flags)
    longNames += name + ":";
  return [&line, longNames, all = line.arguments(true)]() mutable {
    static const std::string shortNames("o:q");
    const VarnSupport::VarnProgramOptions options(line.count(), all.data(), shortNames, longNames,
                                                  false);
    return found(line, options.getArgumentCount(), [&options](const std::string& name) {
      return options.getOptions().getProperty(name);
    });
  };
}

// Declared anew each time, as a program does when it starts; so do the peers.
Parse withTable(CommandLine& line) {
  return [&line, all = line.arguments()] {
    VarnSupport::VarnOptionTable options("program", "1", "");
    options.value("-o X", "").flag("-q", "").argument("[REST...]", "");
    for (const std::string& name : line.withData)
      options.value("--" + name + "=X", "");
    for (const std::string& name : line.flags)
      options.flag("--" + name, "");
    options.parse(line.count(), all.data());
    return found(line, options.count("REST"),
                 [&options](const std::string& name) { return options.text(name); });
  };
}

Parse withGetopt(CommandLine& line) {
  std::vector<option> options;
  for (const std::string& name : line.withData)
    options.push_back({name.c_str(), required_argument, nullptr, 0});
  for (const std::string& name : line.flags)
    options.push_back({name.c_str(), no_argument, nullptr, 0});
  options.push_back({nullptr, 0, nullptr, 0});
  return [&line, options, given = line.arguments()] {
    std::vector<char*> all = given;  // which are reordered
    std::map<std::string, Texts> values;
    optind = 0;
    int index = 0;
    for (int letter = getopt_long(line.count(), all.data(), "o:q", options.data(), &index);
         letter != -1;
         letter = getopt_long(line.count(), all.data(), "o:q", options.data(), &index)) {
      const std::string name = letter == 0 ? options[static_cast<std::size_t>(index)].name
                                           : std::string(1, static_cast<char>(letter));
      values[name].emplace_back(optarg == nullptr ? "" : optarg);
    }
    const Texts rest(all.begin() + optind, all.begin() + line.count());
    return found(line, rest.size(),
                 [&values](const std::string& name) { return values[name].front(); });
  };
}

// What callers of a table do for each parse: they make the texts of its declarations, which it
// keeps.
Parse withTexts(CommandLine& line) {
  return [&line, parse = withGetopt(line)] {
    Texts declared;
    for (const std::string& name : line.withData)
      declared.push_back("--" + name + "=X");
    for (const std::string& name : line.flags)
      declared.push_back("--" + name);
    benchmark::DoNotOptimize(declared.data());
    return parse();
  };
}

#ifdef PEER_CXXOPTS
Parse withCxxopts(CommandLine& line) {
  return [&line, all = line.arguments()] {
    cxxopts::Options options("program");
    options.add_options()("o", "", cxxopts::value<std::string>())("q", "");
    for (const std::string& name : line.withData)
      options.add_options()(name, "", cxxopts::value<std::string>());
    for (const std::string& name : line.flags)
      options.add_options()(name, "");
    const auto values = options.parse(line.count(), all.data());
    return found(line, values.unmatched().size(),
                 [&values](const std::string& name) { return values[name].as<std::string>(); });
  };
}
#endif

#ifdef PEER_BOOST
Parse withBoost(CommandLine& line) {
  namespace po = boost::program_options;
  return [&line, all = line.arguments()] {
    po::options_description options;
    options.add_options()("o,o", po::value<std::string>(), "")("q,q", "");
    for (const std::string& name : line.withData)
      options.add_options()(name.c_str(), po::value<std::string>(), "");
    for (const std::string& name : line.flags)
      options.add_options()(name.c_str(), "");
    options.add_options()("rest", po::value<Texts>(), "");
    po::positional_options_description rest;
    rest.add("rest", -1);
    po::variables_map values;
    po::store(
        po::command_line_parser(line.count(), all.data()).options(options).positional(rest).run(),
        values);
    return found(line, values["rest"].as<Texts>().size(),
                 [&values](const std::string& name) { return values[name].as<std::string>(); });
  };
}
#endif

#ifdef PEER_POCO
Parse withPoco(CommandLine& line) {
  using Poco::Util::Option;
  return [&line, all = line.arguments()] {
    Poco::Util::OptionSet options;
    options.addOption(Option("o", "o").argument("x"));
    options.addOption(Option("quiet", "q"));
    for (const std::string& name : line.withData)
      options.addOption(Option(name, "").argument("x"));
    for (const std::string& name : line.flags)
      options.addOption(Option(name, ""));
    Poco::Util::OptionProcessor processor(options);
    processor.setUnixStyle(true);
    std::map<std::string, Texts> values;
    Texts rest;
    for (std::size_t i = 1; i + 1 < all.size(); ++i) {
      std::string name;
      std::string value;
      if (!processor.process(all[i], name, value))
        rest.push_back(all[i]);
      else if (!name.empty())
        values[name].push_back(value);
    }
    return found(line, rest.size(),
                 [&values](const std::string& name) { return values[name].front(); });
  };
}
#endif

void add(const std::string& side, Parse (*prepare)(CommandLine&)) {
  const auto measure = [prepare](benchmark::State& state, int more) {
    CommandLine line(more);
    Bench::measure(state, 1, line.expected, prepare(line));
  };
  Bench::Workload("options, 20 arguments").side(side, [measure](benchmark::State& state) {
    measure(state, 0);
  });
  for (const int more : {10, 100, 1000}) {
    Bench::Workload("growth of options, 20 arguments, declared beside them " + std::to_string(more))
        .side(side, [measure, more](benchmark::State& state) { measure(state, more); });
  }
}

const bool g_bAdded = [] {
  add("ours", ours);
  add("ours, table", withTable);
  add("getopt_long", withGetopt);
  add("limit: getopt_long, texts made", withTexts);
#ifdef PEER_CXXOPTS
  add("cxxopts", withCxxopts);
#endif
#ifdef PEER_BOOST
  add("Boost", withBoost);
#endif
#ifdef PEER_POCO
  add("POCO", withPoco);
#endif
  return true;
}();

}  // namespace
