#include <locale>
#include <sstream>

#include "TestTools.h"
#include "VarnSupport/VarnLocaleFactory.h"

namespace {

// Runs `body` with locales under names of our own: each is the platform's C.utf8. In a child, since
// the platform never frees what it reads of their folder.
template <typename Body>
void withLocales(const std::vector<std::string>& names, Body body) {
  static constexpr char platformLocale[] = "/usr/lib/locale/C.utf8";
  ASSERT_TRUE(fs::exists(platformLocale));
  const TempFolder folder;
  for (const std::string& name : names)
    fs::create_directory_symlink(platformLocale, folder / name);
  expectInBareChild([&] {
    setenv("LOCPATH", folder.path().c_str(), 1);
    body();
  });
}

// The four maps as they are before anything fills them.
void forget() {
  g_oLanguageData.clear();
  g_oLanguageCodeData.clear();
  g_oLocaleData.clear();
  g_oCountryData.clear();
}

template <typename Key, typename Value>
std::string show(const std::map<Key, Value>& entries) {
  std::ostringstream text;
  for (const auto& [key, value] : entries)
    text << key << '=' << value << ' ';
  return text.str();
}

}  // namespace

TEST(VarnLocaleFactory, FillsTheMapsFromItsTablesAndOverwritesNothing) {
  forget();
  EXPECT_EQ(VarnLocaleFactory::getLocale(VarnLocaleFactory::English), std::locale::classic());
  g_oCountryData["Mexico"] = "MX";
  for (int time = 0; time < 2; ++time)
    VarnLocaleFactory::initializeLanguageCountryCode();
  EXPECT_EQ(show(g_oLanguageData),
            "Chinese=zh English=en French=fr German=de Japanese=ja Spanish=es ");
  EXPECT_EQ(show(g_oLanguageCodeData),
            "Chinese=5 English=1 French=3 German=0 Japanese=4 Spanish=2 ");
  EXPECT_EQ(show(g_oLocaleData), "0=german 1=en_US 2=spanish 3=french 4=japanese 5=C 6=C ");
  EXPECT_EQ(show(g_oCountryData),
            "France=FR Germany=DE Japan=JP Mexico=MX People's Republic of China=CN Taiwan=TW "
            "United States=US ");
}

TEST(VarnLocaleFactory, TurnsNamesIntoCodesOnceTheMapsAreFilled) {
  static constexpr std::array<const char*, 5> rows[] = {
      // name, language and country before and after
      {"English_United States.utf8", "English", "United States", "en", "US"},
      {"Spanish_Mexico.utf8", "Spanish", "Mexico", "es", "ES"},
      {"en_US.utf8", "en", "US", "en", "US"},
      {"No_Where_Else", "No", "Where_Else", "No", "Where_Else"},
      {"C", "C", "C", "C", "C"}};
  forget();
  withLocales({rows[0][0], rows[1][0], rows[2][0], rows[3][0]}, [] {
    for (const bool filled : {false, true}) {
      for (const auto& row : rows) {
        const std::locale locale(row[0]);
        EXPECT_EQ(VarnLocaleFactory::getLanguage(locale), row[filled ? 3 : 1]);
        EXPECT_EQ(VarnLocaleFactory::getCountry(locale), row[filled ? 4 : 2]);
      }
      VarnLocaleFactory::initializeLanguageCountryCode();
    }
  });
}

TEST(VarnLocaleFactory, GivesLocalesThatTheSystemKnows) {
  withLocales({"en_US"}, [] {
    VarnLocaleFactory::initializeLanguageCountryCode();
    EXPECT_EQ(VarnLocaleFactory::getLocale(VarnLocaleFactory::English).name(), "en_US");
    for (const int language : {0, 4, 5, 6, 7, -1}) {
      const auto other = static_cast<VarnLocaleFactory::Language>(language);
      EXPECT_EQ(VarnLocaleFactory::getLocale(other).name(), "C") << language;
    }
    setenv("LC_ALL", "en_US", 1);
    EXPECT_EQ(GetAppropriateLocaleObject().name(), "en_US");
    setenv("LC_ALL", "not_there", 1);
    EXPECT_EQ(GetAppropriateLocaleObject(), std::locale());
  });
}
