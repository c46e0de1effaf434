// Three files by the names of base, language and country, each over the one before. Only the last
// may be missing.
#include "VarnSupport/VarnMessageSet.h"

#include "VarnSupport/VarnLocaleFactory.h"
#include "runtime/Cancellation.h"

namespace VarnSupport {

namespace {

constexpr char kSeparator = '=';
constexpr char kSuffix[] = ".pro";

}  // namespace

VarnMessageSet::VarnMessageSet(const std::string& baseName, std::locale locale)
    : m_oLocale(locale) {
  loadSet(baseName);
}

VarnMessageSet::~VarnMessageSet() = default;

void VarnMessageSet::loadSet(const std::string& baseName) {
  const CancellationGuard closed;
  m_oMessages.loadProperties(baseName + kSuffix, kSeparator);
  const std::string language = VarnLocaleFactory::getLanguage(m_oLocale);
  if (language.empty())
    return;
  const std::string languageBase = baseName + '_' + language;
  m_oMessages.loadProperties(languageBase + kSuffix, kSeparator);
  const std::string country = VarnLocaleFactory::getCountry(m_oLocale);
  if (!country.empty())
    m_oMessages.loadPropertiesImpl(languageBase + '_' + country + kSuffix, kSeparator);
}

}  // namespace VarnSupport
