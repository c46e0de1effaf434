// All levels are read before one is applied, so that a fault changes nothing: "3,net=7,disk=1" is a
// level for all that is not named, and one for each component that is.
//
// Text is escaped by characters, not by bytes: some control characters, and some ends of lines, are
// longer than one.
#include "VarnSupport/VarnLogHelpers.h"

#include <cstdint>
#include <map>
#include <string>

#include "log/LogState.h"
#include "runtime/Cancellation.h"
#include "runtime/Utf8.h"
#include "text/Blanks.h"
#include "text/NumberText.h"

namespace VarnSupport {

namespace {

std::string_view trimmed(std::string_view text) { return withoutBlanks(text, " \t"); }

std::string faultOf(std::string_view part, std::string_view reason) {
  std::string fault(1, '"');
  fault += part;
  fault += "\": ";
  fault += reason;
  return fault;
}

// The levels of a text, or why it has none.
class LevelReader {
 public:
  // Empty when all parts are right.
  std::string read(std::string_view text) {
    while (true) {
      const std::size_t end = text.find(',');
      std::string error = readPart(trimmed(text.substr(0, end)));
      if (!error.empty() || end == std::string_view::npos)
        return error;
      text.remove_prefix(end + 1);
    }
  }

  int rest = VarnLogging::State::kNoRest;
  std::map<std::string, std::int32_t> components;

 private:
  // The last '=' separates, as names of components may have others.
  std::string readPart(std::string_view part) {
    const std::size_t equal = part.rfind('=');
    const bool hasName = equal != std::string_view::npos;
    const std::string name(trimmed(part.substr(0, hasName ? equal : 0)));
    const auto level = numberIn<int>(hasName ? trimmed(part.substr(equal + 1)) : part);
    if (!level || *level < VarnLogging::State::kLevelOff ||
        *level > VarnLogging::State::kHighestLevel)
      return faultOf(part, "a level is a number from -1 to 9");
    if (hasName && name.empty())
      return faultOf(part, "the component has no name");
    if (hasName ? !components.emplace(name, *level).second : rest != VarnLogging::State::kNoRest)
      return faultOf(part, "there is a level before");
    if (!hasName)
      rest = *level;
    return "";
  }
};

}  // namespace

// The separators of lines and paragraphs of Unicode end a line for some readers, and no control
// character covers them.
std::string VarnEscaped(std::string_view text) {
  std::string escaped;
  while (!text.empty()) {
    const Utf8Character character = firstCharacter(text);
    if (character.isBroken() || (character.isControl() && character.length == 1)) {
      const char byte = text.front();
      if (byte == '\n' || byte == '\r' || byte == '\t')
        escaped += byte == '\n' ? "\\n" : byte == '\r' ? "\\r" : "\\t";
      else
        appendHex(escaped += "\\x", static_cast<unsigned char>(byte), 2);
    } else if (character.isControl() || character.code == 0x2028 || character.code == 0x2029) {
      appendHex(escaped += "\\u", character.code, 4);
    } else if (character.code == '\\') {
      escaped += "\\\\";
    } else {
      escaped += text.substr(0, character.length);
    }
    text.remove_prefix(character.length);
  }
  return escaped;
}

bool VarnApplyLogLevels(const std::string& levels, std::string& error) {
  const CancellationGuard closed;
  LevelReader reader;
  std::string fault = reader.read(levels);
  if (fault.empty() && !VarnLogging::State::applyLevels(reader.rest, reader.components))
    fault = "there is no log";
  error = fault;
  return fault.empty();
}

bool VarnCheckLogLevels(const std::string& levels, std::string& error) {
  const CancellationGuard closed;
  error = LevelReader().read(levels);
  return error.empty();
}

}  // namespace VarnSupport
