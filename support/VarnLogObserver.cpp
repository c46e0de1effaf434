// The observer is the part that Observation calls; its owner is a handle. So a function may destroy
// its own observer and run on to its end.
//
// JSON has escapes for the characters that would end a line or a text, and none for bytes that are
// no characters: these become the replacement character. What is written is therefore one line of
// valid UTF-8, whatever a record holds.
#include "VarnSupport/VarnLogObserver.h"

#include <array>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <memory>
#include <utility>

#include "log/Observation.h"
#include "runtime/Cancellation.h"
#include "runtime/ProcessExit.h"
#include "runtime/Utf8.h"
#include "text/NumberText.h"
#include "time/LocalTime.h"

namespace VarnSupport {

namespace {

void appendText(std::string& to, std::string_view name, std::string_view text) {
  to += name;
  to += '"';
  while (!text.empty()) {
    const Utf8Character character = firstCharacter(text);
    const char first = text.front();
    if (character.isBroken()) {
      to += "\\ufffd";
    } else if (first == '"' || first == '\\') {
      to += '\\';
      to += first;
    } else if (character.code < 0x20 || character.code == 0x7F) {
      appendHex(to += "\\u", character.code, 4);
    } else {
      to += text.substr(0, character.length);
    }
    text.remove_prefix(character.length);
  }
  to += '"';
}

// In the form of RFC 3339, in UTC: the zone of the process may change between two records, and may
// count leap seconds.
std::string timeText(
    std::chrono::time_point<std::chrono::system_clock, std::chrono::nanoseconds> time) {
  const auto second = std::chrono::floor<std::chrono::seconds>(time);
  std::tm utc{};
  toUniversalTime(second.time_since_epoch().count(), utc);
  std::array<char, 96> text;
  std::snprintf(text.data(), text.size(), "%jd-%02d-%02dT%02d:%02d:%02d.%09dZ",
                std::intmax_t{utc.tm_year} + 1900, utc.tm_mon + 1, utc.tm_mday, utc.tm_hour,
                utc.tm_min, utc.tm_sec, static_cast<int>((time - second).count()));
  return text.data();
}

}  // namespace

VarnLogObserver::VarnLogObserver(int level, Function function) {
  const QuietCancellationGuard closed;
  ProcessExit::noteObject();
  auto observer = std::make_shared<Observation::Observer>();
  observer->level = level;
  observer->function = std::move(function);
  m_pObserver = observer.get();
  Observation::add(std::move(observer));
}

VarnLogObserver::~VarnLogObserver() {
  const QuietCancellationGuard closed;
  Observation::remove(static_cast<const Observation::Observer*>(m_pObserver));
}

std::string VarnJsonLog::toJson(const VarnLogEntry& entry) {
  std::string object = "{\"time\":\"";
  object += timeText(entry.time);
  object += "\",\"level\":";
  object += std::to_string(entry.level);
  appendText(object, ",\"component\":", entry.component);
  appendText(object, ",\"thread\":", entry.threadName);
  object += ",\"tid\":";
  object += std::to_string(entry.threadId);
  appendText(object, ",\"text\":", entry.text);
  object += '}';
  return object;
}

}  // namespace VarnSupport
