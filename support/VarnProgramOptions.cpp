// Both kinds of input, an argument vector and a command line, are walked by one parse(): a command
// line is split into elements first. Options become properties. An option with two dashes is a long
// one; with a single dash it is looked for among the long names first, and then as a letter.
//
// A long name is declared between colons, with a dot before the second one if it takes data, so a
// name is looked for in that text as it is; one parse that looks for many makes a table of the
// names. Whatever precedes a fault on the command line has been recorded when the fault is
// reported: callers rely on it.
#include "VarnSupport/VarnProgramOptions.h"

#include <algorithm>
#include <cassert>
#include <climits>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "VarnSupport/VarnException.h"
#include "VarnSupport/VarnStringUtilities.h"
#include "runtime/Cancellation.h"
#include "text/TextSearch.h"

namespace VarnSupport {

namespace {

constexpr std::size_t kMostTokens = INT_MAX - 1;

enum class Declaration { None, WithoutData, WithData };

[[noreturn]] void fail(const char* problem, std::string_view option) {
  throw VarnException(std::string("VarnProgramOptions::parse: ").append(problem).append(option), 0);
}

// `next` is what follows the option, or null.
std::string dataOf(std::string_view option, const char* next) {
  if (next == nullptr)
    fail("option data not available for: -", option);
  return next;
}

// The name of an option ends at its first '='.
std::string_view nameOf(std::string_view option) { return option.substr(0, option.find('=')); }

// Looks for the name between colons, and with a '.' in front of the second one.
Declaration declarationOf(std::string_view name, std::string_view longSpec) {
  const auto next = [&](std::size_t from) {
    return name.empty() ? longSpec.find(name, from) : searchText(longSpec, name, from);
  };
  Declaration declaration = Declaration::None;
  for (std::size_t begin = next(1); begin != longSpec.npos; begin = next(begin + 1)) {
    const std::string_view rest = longSpec.substr(begin + name.size());
    if (longSpec[begin - 1] != ':')
      continue;
    if (rest.substr(0, 1) == ":")
      return Declaration::WithoutData;
    if (rest.substr(0, 2) == ".:")
      declaration = Declaration::WithData;
  }
  return declaration;
}

// What a declaration of long names holds, for one parse.
class LongNames {
 public:
  // The declaration must outlive the object.
  explicit LongNames(std::string_view longSpec) : m_sLongSpec(longSpec) {}

  // A name with a colon in it stands in no table, and yet is found in the text.
  Declaration find(std::string_view name) {
    if (m_nSearches < kMostSearches || name.find(':') != name.npos) {
      ++m_nSearches;
      return declarationOf(name, m_sLongSpec);
    }
    if (m_mapNames.empty())
      fill();
    const auto found = m_mapNames.find(name);
    return found != m_mapNames.end() ? found->second : Declaration::None;
  }

 private:
  // As many searches cost about what the table costs.
  static constexpr int kMostSearches = 10;

  void fill() {
    std::size_t begin = m_sLongSpec.find(':') + 1;
    for (std::size_t end = m_sLongSpec.find(':', begin); begin != 0 && end != m_sLongSpec.npos;
         begin = end + 1, end = m_sLongSpec.find(':', begin)) {
      const std::string_view name = m_sLongSpec.substr(begin, end - begin);
      m_mapNames.insert_or_assign(name, Declaration::WithoutData);
      if (name.ends_with('.'))
        m_mapNames.try_emplace(name.substr(0, name.size() - 1), Declaration::WithData);
    }
  }

  std::string_view m_sLongSpec;
  int m_nSearches = 0;
  std::unordered_map<std::string_view, Declaration> m_mapNames;
};

// Records a long option, unless it is declared with data: that would stand in an element of its
// own, and is left out; callers rely on it. Returns whether it is recorded.
bool recordLong(VarnProperties<std::string>& options, const std::string& option,
                Declaration declaration) {
  if (declaration == Declaration::None)
    fail("Unrecognized option: --", nameOf(option));
  if (declaration == Declaration::WithData)
    return false;
  options.addProperty(option, '=');
  return true;
}

// Records an option with a single leading character, which is a long name or else a letter. True
// when `next` is its data.
bool recordSingle(VarnProperties<std::string>& options, const std::string& option, const char* next,
                  const std::string& shortSpec, Declaration declaration) {
  if (declaration == Declaration::WithoutData) {
    options.addProperty(option, '=');
    return false;
  }
  if (declaration == Declaration::WithData) {
    options.addProperty(option, dataOf(option, next));
    return true;
  }
  assert(declaration == Declaration::None);
  const char letter = option.c_str()[0];
  const std::string name(1, letter);
  const std::size_t declared = shortSpec.find(letter);
  if (declared == std::string::npos)
    fail("Unrecognized option: -", name);
  const bool takesData = shortSpec.compare(declared + 1, 1, ":") == 0;
  if (!takesData || option.size() > 1) {
    options.addProperty(name, takesData ? option.substr(1) : std::string());
    return false;
  }
  options.addProperty(name, dataOf(name, next));
  return true;
}

// The first element, which a program may be started without.
std::string programName(int argc, char** argv) {
  const bool named = argc > 0 && argv != nullptr && argv[0] != nullptr;
  return named ? std::string(argv[0]) : std::string();
}

}  // namespace

// Inside quotes delimiters are text, and a quote that is doubled stands for itself. A token without
// quotes is the simplest case of that.
template <typename StringType>
StringType VarnCmdLineTokenizer<StringType>::next() {
  const CancellationGuard closed;
  StringType token;
  if (m_nPosition == kExhausted)
    return token;
  std::size_t position = m_nPosition;
  std::size_t quote = m_sText.npos;  // where the section began
  for (; position < m_sText.size(); ++position) {
    const auto c = m_sText[position];
    if (quote != m_sText.npos) {
      assert(quote < position);
      const bool ends = c == m_sText[quote];
      const bool doubled = ends && position + 1 < m_sText.size() && m_sText[position + 1] == c;
      if (doubled)
        ++position;
      if (doubled || !ends)
        token += c;
      else
        quote = m_sText.npos;
    } else if (m_sQuotes.find(c) != m_sQuotes.npos) {
      quote = position;
    } else if (m_sDelimiters.find(c) != m_sDelimiters.npos) {
      break;
    } else {
      token += c;
    }
  }
  const std::size_t beginning = m_sText.find_first_not_of(m_sDelimiters, position);
  m_nPosition = static_cast<unsigned int>(std::min<std::size_t>(beginning, kExhausted));
  return token;
}

template class VarnCmdLineTokenizer<std::string>;

VarnProgramOptions::VarnProgramOptions(int argc, char** argv, bool allowSlash) {
  const CancellationGuard closed;
  m_sName = programName(argc, argv);
  parse(argc, argv, std::string(), std::string(), false, allowSlash);
}

VarnProgramOptions::VarnProgramOptions(int argc, char** argv, const std::string& shortSpec,
                                       const std::string& longSpec, bool allowSlash) {
  const CancellationGuard closed;
  m_sName = programName(argc, argv);
  parse(argc, argv, shortSpec, longSpec, true, allowSlash);
}

VarnProgramOptions::VarnProgramOptions(const std::string& commandLine, bool allowSlash) {
  parse(commandLine, std::string(), std::string(), false, allowSlash);
}

VarnProgramOptions::VarnProgramOptions(const std::string& commandLine, const std::string& shortSpec,
                                       const std::string& longSpec, bool allowSlash) {
  parse(commandLine, shortSpec, longSpec, true, allowSlash);
}

VarnProgramOptions::VarnProgramOptions(const VarnProgramOptions& source) { *this = source; }

VarnProgramOptions& VarnProgramOptions::operator=(const VarnProgramOptions& source) {
  const CancellationGuard closed;
  // Copies are made first, so that a failure leaves this object as it was.
  std::string name(source.m_sName);
  std::deque<std::string> arguments(source.m_vArguments);
  m_oOptions = source.m_oOptions;
  m_sName.swap(name);
  m_vArguments.swap(arguments);
  m_nCursor = 0;
  return *this;
}

void VarnProgramOptions::parse(int argc, char** argv, const std::string& shortSpec,
                               const std::string& longSpec, bool validate, bool allowSlash) {
  const CancellationGuard closed;
  LongNames names(longSpec);
  std::string option;
  for (int i = 1; argv != nullptr && i < argc && argv[i] != nullptr; ++i) {
    const char* const element = argv[i];
    const char* const next = i + 1 < argc ? argv[i + 1] : nullptr;
    if (element[0] != '-' && !(allowSlash && element[0] == '/')) {
      m_vArguments.emplace_back(element);
      continue;
    }
    const bool isLong = element[1] == '-';
    option.assign(element + (isLong ? 2 : 1));
    const Declaration declaration =
        validate ? names.find(nameOf(option)) : Declaration::WithoutData;
    if (isLong)
      recordLong(m_oOptions, option, declaration);
    else if (recordSingle(m_oOptions, option, next, shortSpec, declaration))
      ++i;
  }
  m_nCursor = 0;
}

void VarnProgramOptions::parse(const std::string& commandLine, const std::string& shortSpec,
                               const std::string& longSpec, bool validate, bool allowSlash) {
  const CancellationGuard closed;
  VarnCmdLineTokenizer<std::string> tokenizer(commandLine, " \t", "\"'");
  std::vector<std::string> tokens;
  while (!tokenizer.isExhausted() && tokens.size() < kMostTokens)
    tokens.push_back(tokenizer.next());
  std::vector<char*> elements(1, nullptr);
  elements.reserve(tokens.size() + 1);
  for (std::string& token : tokens)
    elements.push_back(token.data());
  assert(elements.size() <= INT_MAX);
  parse(static_cast<int>(elements.size()), elements.data(), shortSpec, longSpec, validate,
        allowSlash);
}

bool VarnProgramOptions::longOption(const std::string& option, const std::string& longSpec,
                                    bool validate) {
  const CancellationGuard closed;
  return recordLong(m_oOptions, option,
                    validate ? declarationOf(nameOf(option), longSpec) : Declaration::WithoutData);
}

const std::string& VarnProgramOptions::getArgument(unsigned int index) const {
  const CancellationGuard closed;
  if (index >= m_vArguments.size())
    throw VarnException(std::string("VarnProgramOptions::getArgument: index out of bounds"), 0);
  return m_vArguments[index];
}

bool VarnProgramOptions::nextArgument(std::string& argument) {
  const CancellationGuard closed;
  if (m_nCursor >= m_vArguments.size())
    return false;
  argument = m_vArguments[m_nCursor];
  ++m_nCursor;
  return true;
}

// Without quotes the text is split at blanks. A quote that begins a token, or stands behind a
// quoted part, begins a part that is taken as it is; within other text it is a character.
void VarnParseCommandLine(const std::string& commandLine, std::vector<std::string>& out) {
  const CancellationGuard closed;
  if (commandLine.empty())
    return;
  if (commandLine.find('"') == std::string::npos) {
    VarnTokenizer(commandLine, " ", out);
    return;
  }
  std::vector<std::string> found;
  std::string token;      // what is gathered
  std::size_t begin = 0;  // where the token begins in it
  const auto endToken = [&] {
    if (begin < token.size())
      found.push_back(token.substr(begin));
    token.clear();
    begin = 0;
  };
  std::size_t position = 0;
  while (position < commandLine.size()) {
    const char c = commandLine[position];
    if (c == ' ') {
      endToken();
      ++position;
    } else if (c == '"') {
      // The beginning moves by one, whether over this quote or over what stands before it.
      ++begin;
      const std::size_t closing = std::min(commandLine.find('"', position + 1), commandLine.size());
      token.append(commandLine, position, closing - position);
      position = closing + 1;
    } else {
      const std::size_t blank = std::min(commandLine.find(' ', position), commandLine.size());
      token.append(commandLine, position, blank - position);
      endToken();
      position = blank;
    }
  }
  endToken();
  out = std::move(found);
}

}  // namespace VarnSupport
