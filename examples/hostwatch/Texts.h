// The texts of hostwatch in the language of its environment.
#ifndef HOSTWATCH_TEXTS_H
#define HOSTWATCH_TEXTS_H

#include <initializer_list>
#include <locale>
#include <string>
#include <utility>

#include "Settings.h"

namespace hostwatch {

class Texts {
 public:
  // Throws VarnException when there are no message files at all.
  Texts() : m_oMessages(load()) {}

  // The message with its <name> references replaced by the given values.
  std::string text(const std::string& key,
                   std::initializer_list<std::pair<std::string, std::string>> values = {}) const {
    Properties properties;
    for (const auto& [name, value] : values)
      properties.setProperty(name, value);
    return VarnSupport::VarnExpandString(m_oMessages.getMessages().getProperty(key), properties);
  }

 private:
  // The messages for the locale of the environment, or for none in particular.
  static VarnSupport::VarnMessageSet load() {
    using namespace VarnSupport;
    const std::string base = installedFile("messages", "share/hostwatch") + "/hostwatch";
    try {
      return VarnMessageSet(base, VarnLocaleFactory::getDefaultLocale(true));
    } catch (const VarnException&) {
      return VarnMessageSet(base, std::locale::classic());
    }
  }

  VarnSupport::VarnMessageSet m_oMessages;
};

}  // namespace hostwatch

#endif
