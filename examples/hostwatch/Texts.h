// The texts of hostwatch in the language of its environment.
#ifndef HOSTWATCH_TEXTS_H
#define HOSTWATCH_TEXTS_H

#include <clocale>
#include <initializer_list>
#include <locale>
#include <string>
#include <utility>

#include "Settings.h"

namespace hostwatch {

class Texts {
 public:
  // Throws VarnException when there are no message files at all, or they lack a text.
  Texts() : m_oMessages(load()) {
    for (const char* const key : {"column.probe", "column.value", "column.limit", "over", "none",
                                  "failed", "crossed", "back", "sampled", "started", "broken",
                                  "stopped", "list.title", "list.builtin", "list.plugins"})
      m_oMessages.getMessages().getProperty(key);
  }

  // The message with its <name> references replaced by the given values, as they are:
  // VarnExpandString() would expand what looks like a reference in them, too.
  std::string text(const std::string& key,
                   std::initializer_list<std::pair<std::string, std::string>> values = {}) const {
    std::string text = m_oMessages.getMessages().getProperty(key);
    for (const auto& [name, value] : values) {
      const std::string reference = '<' + name + '>';
      for (std::size_t at = text.find(reference); at != std::string::npos;
           at = text.find(reference, at + value.size()))
        text.replace(at, reference.size(), value);
    }
    return text;
  }

 private:
  // The messages for the environment's locale of messages alone, as all its locales together may
  // have no name that a file could have, or else for none in particular.
  static VarnSupport::VarnMessageSet load() {
    const std::string base = installedFile("messages", "share/hostwatch") + "/hostwatch";
    try {
      const char* const name = std::setlocale(LC_MESSAGES, "");
      return VarnSupport::VarnMessageSet(base, std::locale(name != nullptr ? name : "C"));
    } catch (...) {
      return VarnSupport::VarnMessageSet(base, std::locale::classic());
    }
  }

  VarnSupport::VarnMessageSet m_oMessages;
};

}  // namespace hostwatch

#endif
