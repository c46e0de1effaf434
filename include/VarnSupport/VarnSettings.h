// Configuration that says what is wrong with it: typed settings out of the command line, the
// environment and a property file, in this order of precedence.
//
//   VarnSettings settings("/etc/greeter.conf", options, "GREETER");
//   const std::string greeting = settings.text("greeting");     // must be there
//   const int workers = settings.number("workers", 2, {1, 64});  // preset and range
//   settings.finish();  // throws all faults at once, unknown settings of the file among them
//
// An object belongs to one thread at a time. Faults are collected, never thrown, until finish();
// until then a getter whose setting is missing or wrong returns its preset or, without one, the
// empty text, the value of the range that is nearest to 0, or a pattern that never matches.
//
// There are no sections: what belongs together has a name in front, as in "job.backup.command", and
// groups("job.") lists such names.
//
// The file is read once, at construction, and is as VarnProperties reads it with '=', but for: a
// carriage return at the end of a line is no part of it, and lines of blanks are none. A file that
// cannot be read, is not regular or is larger than 16 MiB is a fault, and so is a line with a NUL,
// a carriage return in its middle or no key. Who writes the file replaces it by rename() (as
// VarnUpdatePropertyFile() does), lest it is read half written.
#ifndef VARNSUPPORT_VARNSETTINGS_H
#define VARNSUPPORT_VARNSETTINGS_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

#include "VarnSupport/VarnException.h"
#include "VarnSupport/VarnExport.h"
#include "VarnSupport/VarnProperties.h"
#include "VarnSupport/VarnRegularExpression.h"

namespace VarnSupport {

// Everything that is wrong with a configuration. Its code is 0.
class VSUPT_EXPORT VarnSettingsError : public VarnException {
 public:
  explicit VarnSettingsError(const std::vector<std::string>& faults);
  VarnSettingsError(const VarnSettingsError&) = default;
  VarnSettingsError& operator=(const VarnSettingsError&) = default;
  ~VarnSettingsError() override;

  // What the command line and the environment say wrong, then what the file does, by line.
  const std::vector<std::string>& faults() const { return m_vFaults; }
  // The faults, a line each, byte for byte and whatever setText() is told.
  std::string getText() const override;

 private:
  std::vector<std::string> m_vFaults;
};

// Both ends belong to a range. A lone number in braces would be a preset, not a range. Requires of
// each: lowest <= highest.
struct VarnNumberRange {
  long long lowest = std::numeric_limits<long long>::lowest();
  long long highest = std::numeric_limits<long long>::max();
};
struct VarnRealRange {
  double lowest = std::numeric_limits<double>::lowest();
  double highest = std::numeric_limits<double>::max();
};
struct VarnDurationRange {
  std::chrono::milliseconds lowest{0};
  std::chrono::milliseconds highest = std::chrono::milliseconds::max();
};

// A setting is looked for on the command line by its key and, if it is not there, by the key with
// '-' for each '.' and '_'; in the environment, if there is a prefix, as PREFIX_KEY in capitals
// with '_' for what is no letter or digit; in the file by its key. The first that has it gives all
// its values. A key without several values has one line in the file, or that is a fault; on the
// command line the last one counts.
//
// <name> in a value stands for the first value of that setting, whose own references are replaced
// in turn, or else for what define() says, or else for the environment variable `name`. A name is
// one or more characters other than '<' and '>'; a '<' that begins none stands for itself, and
// others can be had by define("lt", "<"). A name that stands for nothing, leads back to itself or
// is more than 32 references deep is a fault, and so are more references, or text in their place,
// than a file of 16 MiB has room for.
//
// A fault reads "FILE:LINE: KEY: REASON", with "command line" or "environment" in place of the file
// and its line. Control characters in it are escaped, long values cut; behind 100 faults the rest
// is a number.
class VSUPT_EXPORT VarnSettings {
 public:
  struct VSUPT_LOCAL Sources;

  // An empty file name is no file, an empty prefix no environment. A relative file name counts from
  // the working directory at the time of the call.
  explicit VarnSettings(
      const std::string& fileName,
      const VarnProperties<std::string>& commandLine = VarnProperties<std::string>(),
      const std::string& prefix = std::string())
      : VarnSettings(makeSources(fileName, commandLine, prefix)) {}
  // Reads the file of these sources, which need not be the first time.
  explicit VarnSettings(std::shared_ptr<const Sources> sources);
  VarnSettings(const VarnSettings&) = delete;
  VarnSettings& operator=(const VarnSettings&) = delete;
  ~VarnSettings();

  // Sources that several objects read one after the other.
  static std::shared_ptr<const Sources> makeSources(const std::string& fileName,
                                                    const VarnProperties<std::string>& commandLine,
                                                    const std::string& prefix);

  // Whether anything has the setting.
  bool has(const std::string& key);

  // May be empty.
  std::string text(const std::string& key) { return readText(key, nullptr, {}); }
  // References to the names in `later` stay, for VarnReplaceReferences().
  std::string text(const std::string& key, const std::string& preset,
                   const std::vector<std::string>& later = {}) {
    return readText(key, &preset, later);
  }
  // All values, in their order, with the empty text for one that is wrong. Fewer than `least` are a
  // fault.
  std::vector<std::string> texts(const std::string& key, std::size_t least = 0);

  // A decimal number without blanks or '+', which the type of the result can hold.
  template <typename Number = long long, typename = std::enable_if_t<std::is_integral_v<Number>>>
  Number number(const std::string& key, VarnNumberRange range = {}) {
    return static_cast<Number>(readNumber(key, PLAIN, nullptr, limited<Number>(range)));
  }
  template <typename Number, typename = std::enable_if_t<std::is_integral_v<Number>>>
  Number number(const std::string& key, Number preset, VarnNumberRange range = {}) {
    const auto otherwise = static_cast<long long>(preset);
    return static_cast<Number>(readNumber(key, PLAIN, &otherwise, limited<Number>(range)));
  }
  // Whatever the locale, as in "0.5" and "1e-3"; neither infinite nor NaN.
  double real(const std::string& key, VarnRealRange range = {}) {
    return readReal(key, nullptr, range);
  }
  double real(const std::string& key, double preset, VarnRealRange range = {}) {
    return readReal(key, &preset, range);
  }
  // "true", "yes", "on", "1" and "false", "no", "off", "0" in either case. A line without '=', and
  // an option without data, is true.
  bool flag(const std::string& key, bool preset = false);

  // Whole numbers with units, the larger first: "1h30m", "500ms". Units are d, h, m, s and ms; a
  // number without one is of seconds.
  std::chrono::milliseconds duration(const std::string& key, VarnDurationRange range = {}) {
    return readDuration(key, nullptr, range);
  }
  std::chrono::milliseconds duration(const std::string& key, std::chrono::milliseconds preset,
                                     VarnDurationRange range = {}) {
    const long long otherwise = preset.count();
    return readDuration(key, &otherwise, range);
  }
  // A whole number of bytes, or with a unit: K, M, G, T and P, with or without "iB", are powers of
  // 1024, "kB" or "KB", MB, GB, TB and PB powers of 1000. Sizes end at 2^63 - 1.
  std::uint64_t bytes(const std::string& key, VarnNumberRange range = {0}) {
    return static_cast<std::uint64_t>(readNumber(key, BYTES, nullptr, range));
  }
  std::uint64_t bytes(const std::string& key, std::uint64_t preset, VarnNumberRange range = {0}) {
    const auto otherwise = static_cast<long long>(preset);
    return static_cast<std::uint64_t>(readNumber(key, BYTES, &otherwise, range));
  }
  // One of the choices, byte for byte.
  std::string oneOf(const std::string& key, const std::vector<std::string>& choices) {
    return readChoice(key, nullptr, choices);
  }
  std::string oneOf(const std::string& key, const std::string& preset,
                    const std::vector<std::string>& choices) {
    return readChoice(key, &preset, choices);
  }
  // References are not replaced: '<' and '>' stand for themselves in patterns. Whether a pattern
  // finds what it is meant to find is not checked: "[a-z" is one, and "[0-9]+" finds nothing in
  // "id=7", as a set at the beginning is looked for at the start alone (docs/behaviours.md).
  VarnRegularExpression<std::string> pattern(const std::string& key) {
    return readPattern(key, nullptr);
  }
  VarnRegularExpression<std::string> pattern(const std::string& key, const std::string& preset) {
    return readPattern(key, &preset);
  }
  // An absolute path. A relative one, the preset too, counts from the folder of the file, or, on
  // the command line, in the environment and without a file, from the working directory at
  // construction. Empty stays empty. Of texts() a program makes such paths itself.
  std::string path(const std::string& key) { return readPath(key, nullptr); }
  std::string path(const std::string& key, const std::string& preset) {
    return readPath(key, &preset);
  }

  // The keys of the file and, behind them, the command line that begin with `prefix`, each once and
  // in their order.
  std::vector<std::string> keys(const std::string& prefix) const { return list(prefix, false); }
  // What stands between `prefix` and the next '.' in such keys, each once: "a" and "b" for
  // groups("rule.") with the settings rule.a.key, rule.a.limit and rule.b.key. A key without a
  // further '.' is in no group.
  std::vector<std::string> groups(const std::string& prefix) const { return list(prefix, true); }

  // What <name> stands for where no setting has that name.
  void define(const std::string& name, const std::string& value);
  // Adds a fault of the caller's, at the place of the setting's value of that index, as texts() has
  // them.
  void fault(const std::string& key, const std::string& reason, std::size_t index = 0);
  // Throws VarnSettingsError if there are faults. One of them is each setting of the file that was
  // not asked for by then and that no line refers to; it names the nearest one that was.
  void finish() const;

  // The settings that were asked for and found, with their references replaced.
  std::map<std::string, std::vector<std::string>> found() const;

 private:
  struct VSUPT_LOCAL State;
  enum tUnit : int { PLAIN, MILLISECONDS, BYTES };

  template <typename Number>
  static VarnNumberRange limited(VarnNumberRange range);

  std::string readText(const std::string& key, const std::string* preset,
                       const std::vector<std::string>& later);
  long long readNumber(const std::string& key, tUnit unit, const long long* preset,
                       VarnNumberRange range);
  std::chrono::milliseconds readDuration(const std::string& key, const long long* preset,
                                         VarnDurationRange range) {
    return std::chrono::milliseconds(
        readNumber(key, MILLISECONDS, preset, {range.lowest.count(), range.highest.count()}));
  }
  double readReal(const std::string& key, const double* preset, VarnRealRange range);
  std::string readChoice(const std::string& key, const std::string* preset,
                         const std::vector<std::string>& choices);
  VarnRegularExpression<std::string> readPattern(const std::string& key, const std::string* preset);
  std::string readPath(const std::string& key, const std::string* preset);
  std::vector<std::string> list(const std::string& prefix, bool groupsAlone) const;

  const std::unique_ptr<State> m_pState;
};

template <typename Number>
VarnNumberRange VarnSettings::limited(VarnNumberRange range) {
  static_assert(!std::is_same_v<Number, bool>, "use flag()");
  using Limits = std::numeric_limits<Number>;
  constexpr bool isWide = sizeof(Number) >= sizeof(long long);
  constexpr long long least = std::is_unsigned_v<Number> ? 0
                              : isWide                   ? std::numeric_limits<long long>::lowest()
                                                         : static_cast<long long>(Limits::lowest());
  constexpr long long most =
      isWide ? std::numeric_limits<long long>::max() : static_cast<long long>(Limits::max());
  return {range.lowest < least ? least : range.lowest, range.highest > most ? most : range.highest};
}

// `text` with each <name> replaced by what `look` returns for it; where that is nothing, the
// reference stays. One pass, for values from outside: what `look` returns is not searched again. A
// name is one or more characters other than '<' and '>'. What `look` throws is passed on.
VSUPT_EXPORT std::string VarnReplaceReferences(
    const std::string& text,
    const std::function<std::optional<std::string>(const std::string& name)>& look);

// Changes a property file so that each key of `set` has exactly the values that it has there. They
// change where they stand; lines of a key that has fewer values now go, further values follow the
// key's last line, and new keys come at the end in key order. The lines of keys in `removed` go,
// unless the set has these. All else stays byte for byte. Without a file there is a new one, with
// mode 0644 less the process's mask.
//
// The new contents are written to ".NAME.new" beside the file, synchronized to the disk and renamed
// over it: whatever kills the process, or stops the machine, leaves the old file or the new one.
// The mode is kept, owner and group where the system permits it; access lists, extended attributes
// and other hard links are not. Of a symbolic link the target is replaced. Updates in one folder,
// also of other processes, wait for each other by flock() on it. Nothing is written when nothing
// changes.
//
// Throws VarnException (code 0) with the file as it was: for a key or value that no line can hold
// (a line feed, leading blanks ...), a file that is not regular or is UTF-16, and a failure of the
// system; when only the folder's entry could not be synchronized, with the new file in place.
VSUPT_EXPORT void VarnUpdatePropertyFile(const std::string& fileName,
                                         const VarnProperties<std::string>& set,
                                         const std::vector<std::string>& removed = {});

}  // namespace VarnSupport

#endif
