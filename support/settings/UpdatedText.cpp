// Lines are copied one by one. Of a line whose key is to have other values, only the value is
// replaced; the key's further values follow its last line, which a first walk has found.
#include "settings/UpdatedText.h"

#include <cassert>
#include <cstddef>

#include "VarnSupport/VarnException.h"
#include "settings/ValueText.h"
#include "text/PropertyLine.h"

namespace VarnSupport {

namespace {

// What stands before a line's end: its carriage return belongs to the end.
std::string_view withoutEnd(std::string_view line) {
  if (!line.empty() && line.back() == '\n')
    line.remove_suffix(1);
  if (!line.empty() && line.back() == '\r')
    line.remove_suffix(1);
  return line;
}

// Calls with every line, with its line feed.
template <typename OnLine>
void walkLines(std::string_view text, OnLine onLine) {
  while (!text.empty()) {
    const std::size_t feed = text.find('\n');
    const std::size_t length = feed == text.npos ? text.size() : feed + 1;
    onLine(text.substr(0, length));
    text.remove_prefix(length);
  }
}

class Update {
 public:
  Update(std::string_view text, const PropertyValues& values);

  std::string result();

 private:
  struct Key {
    const std::vector<std::string>* values;
    std::size_t linesToCome = 0;
    std::size_t next = 0;  // value
  };

  void add(std::string_view line);
  void addRest(std::string_view name, Key& key);
  Key* keyOf(const PropertyLine<std::string>& line);

  std::string_view m_sText;
  std::string_view m_sEnd = "\n";
  std::map<std::string, Key, std::less<>> m_mapKeys;
  std::string m_sResult;
};

Update::Update(std::string_view text, const PropertyValues& values) : m_sText(text) {
  for (const auto& [name, list] : values)
    m_mapKeys[name].values = &list;
  if (const std::size_t feed = text.find('\n'); feed != text.npos && feed > 0)
    m_sEnd = text[feed - 1] == '\r' ? "\r\n" : "\n";
  walkLines(text, [this](std::string_view line) {
    if (Key* const key = keyOf({withoutEnd(line), '='}))
      ++key->linesToCome;
  });
}

auto Update::keyOf(const PropertyLine<std::string>& line) -> Key* {
  const auto found = m_mapKeys.find(line.key);
  return found != m_mapKeys.end() ? &found->second : nullptr;
}

std::string Update::result() {
  walkLines(m_sText, [this](std::string_view line) { add(line); });
  for (auto& [name, key] : m_mapKeys)
    addRest(name, key);
  return std::move(m_sResult);
}

// Whatever the line has beside its value stays: blanks, and its kind of end.
void Update::add(std::string_view line) {
  const std::string_view body = withoutEnd(line);
  const PropertyLine<std::string> property(body, '=');
  Key* const key = keyOf(property);
  if (key == nullptr) {
    m_sResult.append(line);
    return;
  }
  assert(key->linesToCome > 0);
  --key->linesToCome;
  if (key->next < key->values->size()) {
    const std::string& value = (*key->values)[key->next++];
    const bool hasValue = property.key.size() < body.size();
    // VarnProperties takes the carriage return behind a lone key for a part of it.
    const bool isPlain = hasValue || line.find('\r') == line.npos;
    if (property.value == value && isPlain) {
      m_sResult.append(line);
    } else if (hasValue) {
      const auto begin = static_cast<std::size_t>(property.value.data() - line.data());
      m_sResult.append(line.substr(0, begin)).append(value);
      m_sResult.append(line.substr(begin + property.value.size()));
    } else {
      m_sResult.append(property.key).append("=").append(value);
      m_sResult.append(line.substr(body.size()));
    }
  }
  if (key->linesToCome == 0)
    addRest(property.key, *key);
}

void Update::addRest(std::string_view name, Key& key) {
  for (; key.next < key.values->size(); ++key.next) {
    if (!m_sResult.empty() && m_sResult.back() != '\n')
      m_sResult += '\n';  // a carriage return would become part of a lone key
    m_sResult.append(name).append("=").append((*key.values)[key.next]).append(m_sEnd);
  }
}

}  // namespace

// A value that no line can hold would come back as another one, or as two settings.
void checkThatLinesHold(const PropertyValues& values) {
  for (const auto& [key, list] : values) {
    for (const std::string& value : list) {
      std::string line = key;
      line.append("=").append(value);
      const PropertyLine<std::string> property(line, '=');
      if (property.key != key || property.value != value ||
          line.find_first_of(std::string_view("\n\r\0", 3)) != line.npos)
        throw VarnException("no line can hold " + shownValue(line), 0);
    }
  }
}

std::string updatedText(std::string_view text, const PropertyValues& values) {
  return Update(text, values).result();
}

}  // namespace VarnSupport
