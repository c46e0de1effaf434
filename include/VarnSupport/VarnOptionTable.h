// Options of a program, declared once: they are parsed by the rules of getopt_long, described by
// the usage text, the manual page and a completion script, and land in variables.
//
//   VarnOptionTable options("greeter", "1.2", "Greets people.");
//   options.flag("-d, --daemon", "run in the background", daemon)
//       .value("-c, --config=FILE", "read the configuration from FILE", config)
//       .number("-i, --interval=N", "seconds between two greetings", interval, 1, 3600)
//       .argument("NAME...", "whom to greet", names);
//   if (const std::optional<int> code = options.parseOrReport(argc, argv))
//     return *code;
//
// An object belongs to one thread at a time. Variables must outlive the last parse. A declaration
// that cannot be meant (two options of one name, no name for data) throws VarnException (code 0) at
// once; a wrong command line throws VarnOptionError. Texts are UTF-8, whatever the locale.
#ifndef VARNSUPPORT_VARNOPTIONTABLE_H
#define VARNSUPPORT_VARNOPTIONTABLE_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

#include "VarnSupport/VarnException.h"
#include "VarnSupport/VarnExport.h"
#include "VarnSupport/VarnProperties.h"

namespace VarnSupport {

// What is wrong with a command line, fit for a terminal: control characters of the command line
// stand in it as "\x1b". Its code is 2, which is by convention the exit code of wrong use.
class VSUPT_EXPORT VarnOptionError : public VarnException {
 public:
  explicit VarnOptionError(const std::string& text);
  VarnOptionError(const VarnOptionError&) = default;
  VarnOptionError& operator=(const VarnOptionError&) = default;
  ~VarnOptionError() override;

  // Byte for byte what was given, whatever the locale, unless setText() has replaced it.
  std::string getText() const override;

 private:
  std::string m_sText;
};

// Options are named as in the usage text: "-c, --config=FILE", "--config=FILE", "-c FILE", or with
// data that may be left out, "-c, --colour[=WHEN]", which is then empty. Plain arguments: "FILE"
// must be there, "[FILE]" may, "FILE..." is one or more, "[FILE...]" any number; one of them at
// most is repeated. Data is what follows the letter or the '=', or the next element, even "" or
// "-x".
//
// Every table has -h, --help, -V, --version and --completion (a script for bash), whose texts go to
// standard output. A letter of these goes to an option of yours that has it. A flag without a
// variable that is declared by one of these long names gives it another letter and text; any other
// option of that name takes its place.
class VSUPT_EXPORT VarnOptionTable {
 public:
  // `name` is the program's name in all texts, `summary` says in a sentence or more what it does.
  VarnOptionTable(const std::string& name, const std::string& version, const std::string& summary);
  VarnOptionTable(const VarnOptionTable&) = delete;
  VarnOptionTable& operator=(const VarnOptionTable&) = delete;
  ~VarnOptionTable();

  // An option without data; the variable becomes true.
  VarnOptionTable& flag(const std::string& names, const std::string& text) {
    return add(FLAG, names, text, nullptr);
  }
  VarnOptionTable& flag(const std::string& names, const std::string& text, bool& target) {
    return add(FLAG, names, text, [&target](const tTexts&) { target = true; });
  }
  // An option with data, of which the last one counts.
  VarnOptionTable& value(const std::string& names, const std::string& text) {
    return add(VALUE, names, text, nullptr);
  }
  VarnOptionTable& value(const std::string& names, const std::string& text, std::string& target) {
    return add(VALUE, names, text, [&target](const tTexts& given) { target = given.back(); });
  }
  // An option that may be given several times; its data replaces what the variable holds.
  VarnOptionTable& values(const std::string& names, const std::string& text) {
    return add(VALUES, names, text, nullptr);
  }
  VarnOptionTable& values(const std::string& names, const std::string& text,
                          std::vector<std::string>& target) {
    return add(VALUES, names, text, [&target](const tTexts& given) { target = given; });
  }
  // A decimal number, of which the last one counts, from `lowest` to `highest`: a whole one unless
  // the variable is of a floating type. The usage text tells of limits that the type does not have.
  // Whole numbers end at 2^63 - 1.
  template <typename Number>
  VarnOptionTable& number(const std::string& names, const std::string& text, Number& target,
                          std::common_type_t<Number> lowest = std::numeric_limits<Number>::lowest(),
                          std::common_type_t<Number> highest = std::numeric_limits<Number>::max());
  // A plain argument. Several are declared in their order. Without a declaration there may be none.
  VarnOptionTable& argument(const std::string& name, const std::string& text) {
    return add(ARGUMENTS, name, text, nullptr);
  }
  VarnOptionTable& argument(const std::string& name, const std::string& text, std::string& target) {
    return add(ARGUMENT, name, text, [&target](const tTexts& given) { target = given.back(); });
  }
  VarnOptionTable& argument(const std::string& name, const std::string& text,
                            std::vector<std::string>& target) {
    return add(ARGUMENTS, name, text, [&target](const tTexts& given) { target = given; });
  }
  // A paragraph for the end of the usage text.
  VarnOptionTable& note(const std::string& text);
  // The first plain argument ends the options, as for a program that runs another one. Without this
  // call that is so only while POSIXLY_CORRECT is in the environment.
  VarnOptionTable& stopAtArgument();

  // Parses as getopt_long does: grouped letters, unambiguous beginnings of long names, "--" as the
  // end of the options, a lone "-" as a plain argument, options behind plain arguments. Forgets
  // what an earlier call has found. The exit code 0 after a text that was asked for, without a look
  // at what follows; else nothing. Throws VarnOptionError, and VarnException when standard output
  // takes no text; variables are then unchanged, and nothing is found. The first of `argv` is not
  // looked at; a null element ends it.
  std::optional<int> parse(int argc, const char* const* argv);
  // Tells standard error what parse() throws, and returns its exit code 2 then.
  std::optional<int> parseOrReport(int argc, const char* const* argv);

  // What was found, by the long name of an option, its letter if it has no other, or the name of a
  // plain argument. VarnException (code 0) for a name that is not declared.
  bool isGiven(const std::string& name) const { return count(name) > 0; }
  std::size_t count(const std::string& name) const;
  // The last one; empty when there is none.
  std::string text(const std::string& name) const {
    const tTexts given = texts(name);
    return given.empty() ? std::string() : given.back();
  }
  // All, in their order; an empty text for each time that a flag was given.
  std::vector<std::string> texts(const std::string& name) const;
  // All plain arguments, in their order.
  std::vector<std::string> arguments() const;
  // The options that were given, by long name, or letter where there is no other: "true" for a
  // flag, the last data of a value or a number, all data of values.
  VarnProperties<std::string> values() const;

  // Wrapped to 80 columns; ends with a line feed, as all texts.
  std::string usage() const;
  // The sections SYNOPSIS and OPTIONS of a manual page, in the macros of man(7).
  std::string manual() const;
  // A bash script that completes the names of options; all else completes as file names.
  std::string completion() const;

 private:
  struct VSUPT_LOCAL State;
  using tTexts = std::vector<std::string>;
  enum tKind { FLAG, VALUE, VALUES, ARGUMENT, ARGUMENTS };
  // A range, and which of its ends are the caller's.
  template <typename Number>
  struct Range {
    Number lowest;
    Number highest;
    bool hasLowest;
    bool hasHighest;
  };

  VarnOptionTable& add(tKind kind, const std::string& names, const std::string& text,
                       const std::function<void(const tTexts& given)>& store);
  VarnOptionTable& addNumber(const std::string& names, const std::string& text,
                             const Range<std::int64_t>& range,
                             const std::function<void(std::int64_t)>& store);
  VarnOptionTable& addNumber(const std::string& names, const std::string& text,
                             const Range<float>& range, const std::function<void(float)>& store);
  VarnOptionTable& addNumber(const std::string& names, const std::string& text,
                             const Range<double>& range, const std::function<void(double)>& store);

  const std::unique_ptr<State> m_pState;
};

template <typename Number>
VarnOptionTable& VarnOptionTable::number(const std::string& names, const std::string& text,
                                         Number& target, std::common_type_t<Number> lowest,
                                         std::common_type_t<Number> highest) {
  static_assert(std::is_arithmetic_v<Number> && !std::is_same_v<Number, bool> &&
                !std::is_same_v<Number, long double>);
  using Limits = std::numeric_limits<Number>;
  using Wide = std::conditional_t<std::is_floating_point_v<Number>, Number, std::int64_t>;
  constexpr bool isUnsigned64 = std::is_unsigned_v<Number> && sizeof(Number) == sizeof(Wide);
  constexpr Number most = isUnsigned64 ? Limits::max() / 2 : Limits::max();
  return addNumber(names, text,
                   Range<Wide>{static_cast<Wide>(lowest < most ? lowest : most),
                               static_cast<Wide>(highest < most ? highest : most),
                               lowest != Limits::lowest(), highest < most},
                   [&target](Wide found) { target = static_cast<Number>(found); });
}

}  // namespace VarnSupport

#endif
