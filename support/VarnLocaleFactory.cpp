// The tables are fixed data; the maps are what callers may look into and change, and are filled
// from the tables only when an application asks for it. The default locale is that of the
// environment at the time of loading: a later change of the environment, or of the global locale,
// does not reach it.
//
// A locale that the system does not have is replaced by the classic one, never by a failure:
// callers are about to write a text that matters more than its form.
//
// The platform has a lock around the making of a locale and around its end, which a fork leaves
// locked in the child if another thread is just at it. The library therefore makes each locale once
// and keeps it, and a fork waits for the making.
#include "VarnSupport/VarnLocaleFactory.h"

#include <array>
#include <cstdlib>
#include <exception>
#include <map>
#include <mutex>

#include "runtime/Cancellation.h"
#include "runtime/Fork.h"
#include "runtime/GlobalLocale.h"
#include "runtime/NeverDestroyed.h"

namespace VarnSupport {

namespace {

constinit std::mutex makingLocale;
// By name and what of the environment that depends on; guarded by the mutex.
NeverDestroyed<std::map<std::string, std::locale>> madeLocales;

// Throws what the constructor of a locale throws.
std::locale makeLocale(const std::string& name) {
  constexpr std::array kVariables{
      "LC_ALL",       "LC_CTYPE",       "LC_NUMERIC",        "LC_TIME", "LC_COLLATE",
      "LC_MONETARY",  "LC_MESSAGES",    "LC_PAPER",          "LC_NAME", "LC_ADDRESS",
      "LC_TELEPHONE", "LC_MEASUREMENT", "LC_IDENTIFICATION", "LANG",    "LOCPATH"};
  std::string key = name;
  for (const char* const variable : kVariables) {
    const char* const value = std::getenv(variable);
    key += '\n';
    key += value != nullptr ? value : "";
  }
  const std::lock_guard guard(makingLocale);
  const auto found = madeLocales.value.find(key);
  return found != madeLocales.value.end()
             ? found->second
             : madeLocales.value.emplace(key, std::locale(name)).first->second;
}

// What the exported references stand for. Threads that outlive main() still build exception texts.
NeverDestroyed<std::map<std::string, std::string>> languageData;
NeverDestroyed<std::map<std::string, VarnLocaleFactory::Language>> languageCodeData;
NeverDestroyed<std::map<VarnLocaleFactory::Language, std::string>> localeData;
NeverDestroyed<std::map<std::string, std::string>> countryData;
NeverDestroyed<std::locale> defaultLocale(GetAppropriateLocaleObject());

std::string codeOrName(const std::map<std::string, std::string>& codes, const std::string& name) {
  const auto found = codes.find(name);
  return found != codes.end() ? found->second : name;
}

}  // namespace

const VarnLocaleFactory::LanguageRow g_LanguageTable[6] = {
    {"English", "en", VarnLocaleFactory::English},   {"German", "de", VarnLocaleFactory::German},
    {"Spanish", "es", VarnLocaleFactory::Spanish},   {"French", "fr", VarnLocaleFactory::French},
    {"Japanese", "ja", VarnLocaleFactory::Japanese}, {"Chinese", "zh", VarnLocaleFactory::Chinese},
};

const VarnLocaleFactory::LocaleRow g_LocaleTable[7] = {
    {VarnLocaleFactory::German, "german"},     {VarnLocaleFactory::English, "en_US"},
    {VarnLocaleFactory::Spanish, "spanish"},   {VarnLocaleFactory::French, "french"},
    {VarnLocaleFactory::Japanese, "japanese"}, {VarnLocaleFactory::Chinese, "C"},
    {VarnLocaleFactory::Unknown, "C"},
};

const VarnLocaleFactory::CountryRow g_CountryTable[7] = {
    {"United States", "US"}, {"Germany", "DE"}, {"Mexico", "ES"},  // not MX; callers rely on it
    {"France", "FR"},        {"Japan", "JP"},   {"People's Republic of China", "CN"},
    {"Taiwan", "TW"},
};

std::map<std::string, std::string>& g_oLanguageData = languageData.value;
std::map<std::string, VarnLocaleFactory::Language>& g_oLanguageCodeData = languageCodeData.value;
std::map<VarnLocaleFactory::Language, std::string>& g_oLocaleData = localeData.value;
std::map<std::string, std::string>& g_oCountryData = countryData.value;
std::locale& VarnLocaleFactory::m_oDefaultLocale = defaultLocale.value;

std::locale VarnLocaleFactory::getDefaultLocale(bool) { return m_oDefaultLocale; }

std::locale VarnLocaleFactory::getLocale(Language language) {
  const CancellationGuard closed;
  const auto found = g_oLocaleData.find(language);
  if (found == g_oLocaleData.end())
    return std::locale::classic();
  try {
    return makeLocale(found->second);
  } catch (const std::exception&) {
    return std::locale::classic();
  }
}

std::string VarnLocaleFactory::getLanguage(const std::locale& locale) {
  const CancellationGuard closed;
  const std::string name = locale.name();
  return codeOrName(g_oLanguageData, name.substr(0, name.find('_')));
}

std::string VarnLocaleFactory::getCountry(const std::locale& locale) {
  const CancellationGuard closed;
  std::string name = locale.name();
  const std::size_t separator = name.find('_');
  if (separator != std::string::npos)
    name.erase(0, separator + 1);
  return codeOrName(g_oCountryData, name.substr(0, name.find('.')));
}

void VarnLocaleFactory::initializeLanguageCountryCode() {
  const CancellationGuard closed;
  for (const LanguageRow& row : g_LanguageTable) {
    g_oLanguageData.emplace(row.name, row.code);
    g_oLanguageCodeData.emplace(row.name, row.language);
  }
  for (const LocaleRow& row : g_LocaleTable)
    g_oLocaleData.emplace(row.language, row.name);
  for (const CountryRow& row : g_CountryTable)
    g_oCountryData.emplace(row.name, row.code);
}

std::locale GetAppropriateLocaleObject() {
  const CancellationGuard closed;
  try {
    return makeLocale("");
  } catch (const std::exception&) {
    return globalLocale();
  }
}

constinit const ForkPart localeFork{[] { makingLocale.lock(); },
                                    [](ForkSide) { makingLocale.unlock(); }};

}  // namespace VarnSupport
