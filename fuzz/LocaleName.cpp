// Locale names as the environment and the locale table may hold them.
#include <locale>

#include "Input.h"
#include "VarnSupport/VarnLocaleFactory.h"

using namespace VarnSupport;

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  VarnLocaleFactory::initializeLanguageCountryCode();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string name = Input(data, size).rest();
  g_oLocaleData[VarnLocaleFactory::English] = name;
  setenv("LC_ALL", name.c_str(), 1);
  for (const std::locale& locale :
       {VarnLocaleFactory::getLocale(VarnLocaleFactory::English), GetAppropriateLocaleObject()}) {
    const std::string language = VarnLocaleFactory::getLanguage(locale);
    const std::string country = VarnLocaleFactory::getCountry(locale);
    require(country.find('.') == country.npos && language.find('_') == language.npos,
            "language and country are parts of the name");
  }
  return 0;
}
