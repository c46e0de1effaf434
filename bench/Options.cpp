// A command line of 20 arguments taken apart: options into a map, the rest into a list.
#include <getopt.h>

#include <iterator>
#include <map>
#include <vector>

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

const char* const g_aArguments[] = {
    "program", "--verbose", "-o",     "out.txt", "--file",   "in.txt", "--level",
    "9",       "first",     "second", "--port",  "8080",     "--host", "localhost",
    "-q",      "third",     "--user", "someone", "--dryrun", "fourth", "fifth",
};
constexpr int kCount = static_cast<int>(std::size(g_aArguments));
const char* const g_aWithData[] = {"file", "level", "port", "host", "user"};
const char* const g_aFlags[] = {"verbose", "dryrun"};

// What a side has found, for the check: some options and the number of the plain arguments.
using Found = std::pair<std::string, std::size_t>;
const Found g_oExpected("8080 out.txt", 5);

std::vector<char*> arguments() {
  std::vector<char*> all;
  for (const char* const argument : g_aArguments)
    all.push_back(const_cast<char*>(argument));
  all.push_back(nullptr);
  return all;
}

// Single dashes introduce what has data here: with two our library records nothing for it.
Found ours() {
  static std::vector<char*> all = [] {
    std::vector<char*> made = arguments();
    for (char*& argument : made) {
      for (const char* const name : g_aWithData) {
        if (argument != nullptr && argument == "--" + std::string(name))
          ++argument;
      }
    }
    return made;
  }();
  static const std::string shortNames("o:q");
  static const std::string longNames(":verbose:dryrun:file.:level.:port.:host.:user.:");
  VarnSupport::VarnProgramOptions options(kCount, all.data(), shortNames, longNames, false);
  const auto& found = options.getOptions();
  return {found.getProperty("port") + " " + found.getProperty("o"), options.getArgumentCount()};
}

// Declared anew each time, as a program does when it starts.
Found withTable() {
  static const std::vector<char*> all = arguments();
  VarnSupport::VarnOptionTable options("program", "1", "");
  options.value("-o X", "").flag("-q", "").argument("[REST...]", "");
  for (const char* const name : g_aWithData)
    options.value("--" + std::string(name) + "=X", "");
  for (const char* const name : g_aFlags)
    options.flag("--" + std::string(name), "");
  options.parse(kCount, all.data());
  return {options.text("port") + " " + options.text("o"), options.count("REST")};
}

Found withGetopt() {
  static const std::vector<option> options = [] {
    std::vector<option> made;
    for (const char* const name : g_aWithData)
      made.push_back({name, required_argument, nullptr, 0});
    for (const char* const name : g_aFlags)
      made.push_back({name, no_argument, nullptr, 0});
    made.push_back({nullptr, 0, nullptr, 0});
    return made;
  }();
  static const std::vector<char*> given = arguments();
  std::vector<char*> all = given;  // which are reordered
  std::map<std::string, std::vector<std::string>> found;
  optind = 0;
  int index = 0;
  for (int letter = getopt_long(kCount, all.data(), "o:q", options.data(), &index); letter != -1;
       letter = getopt_long(kCount, all.data(), "o:q", options.data(), &index)) {
    const std::string name = letter == 0 ? options[static_cast<std::size_t>(index)].name
                                         : std::string(1, static_cast<char>(letter));
    found[name].emplace_back(optarg == nullptr ? "" : optarg);
  }
  const std::vector<std::string> rest(all.begin() + optind, all.begin() + kCount);
  return {found["port"].front() + " " + found["o"].front(), rest.size()};
}

#ifdef PEER_CXXOPTS
Found withCxxopts() {
  cxxopts::Options options("program");
  options.add_options()("o", "", cxxopts::value<std::string>())("q", "");
  for (const char* const name : g_aWithData)
    options.add_options()(name, "", cxxopts::value<std::string>());
  for (const char* const name : g_aFlags)
    options.add_options()(name, "");
  static const std::vector<char*> all = arguments();
  const auto found = options.parse(kCount, all.data());
  return {found["port"].as<std::string>() + " " + found["o"].as<std::string>(),
          found.unmatched().size()};
}
#endif

#ifdef PEER_BOOST
Found withBoost() {
  namespace po = boost::program_options;
  po::options_description options;
  options.add_options()("o,o", po::value<std::string>(), "")("q,q", "");
  for (const char* const name : g_aWithData)
    options.add_options()(name, po::value<std::string>(), "");
  for (const char* const name : g_aFlags)
    options.add_options()(name, "");
  options.add_options()("rest", po::value<std::vector<std::string>>(), "");
  po::positional_options_description rest;
  rest.add("rest", -1);
  static const std::vector<char*> all = arguments();
  po::variables_map found;
  po::store(po::command_line_parser(kCount, all.data()).options(options).positional(rest).run(),
            found);
  return {found["port"].as<std::string>() + " " + found["o"].as<std::string>(),
          found["rest"].as<std::vector<std::string>>().size()};
}
#endif

#ifdef PEER_POCO
Found withPoco() {
  using Poco::Util::Option;
  Poco::Util::OptionSet options;
  options.addOption(Option("out", "o").argument("x"));
  options.addOption(Option("quiet", "q"));
  for (const char* const name : g_aWithData)
    options.addOption(Option(name, "").argument("x"));
  for (const char* const name : g_aFlags)
    options.addOption(Option(name, ""));
  Poco::Util::OptionProcessor processor(options);
  processor.setUnixStyle(true);
  std::map<std::string, std::vector<std::string>> found;
  std::vector<std::string> rest;
  for (int i = 1; i < kCount; ++i) {
    std::string name;
    std::string value;
    const std::string argument(g_aArguments[i]);
    if (!processor.process(argument, name, value))
      rest.push_back(argument);
    else if (!name.empty())
      found[name].push_back(value);
  }
  return {found["port"].front() + " " + found["out"].front(), rest.size()};
}
#endif

void add(const std::string& side, Found (*takeApart)()) {
  Bench::Workload("options, 20 arguments").side(side, [takeApart](benchmark::State& state) {
    Bench::measure(state, 1, g_oExpected, takeApart);
  });
}

const bool g_bAdded = [] {
  add("ours", ours);
  add("ours, table", withTable);
  add("getopt_long", withGetopt);
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
