#include "Texts.h"

#include <locale>

#include "Settings.h"

using namespace VarnSupport;

namespace hostwatch {

namespace {

// The messages for the locale of the environment, or for none in particular.
VarnMessageSet loadMessages() {
  const std::string base = installedFile("messages", "share/hostwatch") + "/hostwatch";
  try {
    return VarnMessageSet(base, VarnLocaleFactory::getDefaultLocale(true));
  } catch (const VarnException&) {
    return VarnMessageSet(base, std::locale::classic());
  }
}

}  // namespace

Texts::Texts() : m_oMessages(loadMessages()) {}

std::string Texts::text(const std::string& key,
                        std::initializer_list<std::pair<std::string, std::string>> values) const {
  Properties properties;
  for (const auto& [name, value] : values)
    properties.setProperty(name, value);
  return VarnExpandString(m_oMessages.getMessages().getProperty(key), properties);
}

}  // namespace hostwatch
