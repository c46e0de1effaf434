// The process-wide default locale, and the names and codes of a few languages and countries.
//
// Everything is safe from any thread, but for initializeLanguageCountryCode(): an application that
// relies on codes or language locales calls it once before other threads use the factory. Until
// then the maps are empty. No failure is reported: an unknown locale becomes the "C" locale.
#ifndef VARNSUPPORT_VARNLOCALEFACTORY_H
#define VARNSUPPORT_VARNLOCALEFACTORY_H

#include <locale>
#include <map>
#include <string>

#include "VarnSupport/VarnExport.h"

namespace VarnSupport {

class VSUPT_EXPORT VarnLocaleFactory {
 public:
  enum Language : int {
    German = 0,
    English = 1,
    Spanish = 2,
    French = 3,
    Japanese = 4,
    Chinese = 5,
    Unknown = 6  // a language outside g_LanguageTable
  };

  // Rows of the three tables below.
  struct LanguageRow {
    const char* name;
    const char* code;
    Language language;
  };
  struct LocaleRow {
    Language language;
    const char* name;
  };
  struct CountryRow {
    const char* name;
    const char* code;
  };

  // A copy of the default locale. The argument is not used.
  static std::locale getDefaultLocale(bool = true);
  // The locale of the language by g_oLocaleData; std::locale("C") when there is none or the system
  // does not know it.
  static std::locale getLocale(Language language);
  // The part of the locale's name before the first "_" (the whole name without one), as a code when
  // it is a language name of g_oLanguageData: "English_United States.1252" and "en_US.UTF-8" give
  // "en", "C" gives "C".
  static std::string getLanguage(const std::locale& locale);
  // The part after the first "_" (the whole name without one), cut at a ".", as a code when it is a
  // country name of g_oCountryData: "en_US.UTF-8" gives "US", "C" gives "C".
  static std::string getCountry(const std::locale& locale);
  // Fills the four maps from the tables. Keys that are there keep their values.
  static void initializeLanguageCountryCode();

  // Set from the environment while the library loads, and only copied afterwards.
  static std::locale& m_oDefaultLocale;
};

extern VSUPT_EXPORT const VarnLocaleFactory::LanguageRow g_LanguageTable[6];
extern VSUPT_EXPORT const VarnLocaleFactory::LocaleRow g_LocaleTable[7];
// "Mexico" maps to "ES"; callers rely on it.
extern VSUPT_EXPORT const VarnLocaleFactory::CountryRow g_CountryTable[7];

// Language name to code, language name to language, language to locale name, country name to code.
// References to objects that live as long as the process.
extern VSUPT_EXPORT std::map<std::string, std::string>& g_oLanguageData;
extern VSUPT_EXPORT std::map<std::string, VarnLocaleFactory::Language>& g_oLanguageCodeData;
extern VSUPT_EXPORT std::map<VarnLocaleFactory::Language, std::string>& g_oLocaleData;
extern VSUPT_EXPORT std::map<std::string, std::string>& g_oCountryData;

// The locale that the environment names, or the global one of this moment when that fails.
VSUPT_EXPORT std::locale GetAppropriateLocaleObject();

}  // namespace VarnSupport

#endif
