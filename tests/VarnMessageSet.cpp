#include <locale>

#include "TestTools.h"
#include "VarnSupport/VarnLocaleFactory.h"
#include "VarnSupport/VarnMessageSet.h"

TEST(VarnMessageSet, LaterFilesOverwriteAndOnlyTheCountryMayBeMissing) {
  const TempFolder folder;
  const std::string base = folder / "msg";
  // The values of a, b and c, or what is thrown.
  const auto loaded = [&] {
    return resultOf([&] {
      const VarnMessageSet set(base, std::locale::classic());
      EXPECT_EQ("C", set.getLocale().name());
      return set.getMessages().getProperty("a") + set.getMessages().getProperty("b") +
             set.getMessages().getProperty("c");
    });
  };
  const std::string missing = "VarnProperties<StringType>::loadProperties: couldn't open file ";
  EXPECT_EQ(missing + base + ".pro", loaded());
  writeFile(base + ".pro", "a=base\nb=base\nc=base\n");
  EXPECT_EQ(missing + base + "_C.pro", loaded());
  writeFile(base + "_C.pro", "b=language\nc=language\nc=again\n");
  EXPECT_EQ("baselanguageagain", loaded());
  writeFile(base + "_C_C.pro", "c=country\n");
  EXPECT_EQ("baselanguagecountry", loaded());
  g_oCountryData["C"] = "";
  EXPECT_EQ("baselanguageagain", loaded());
  g_oLanguageData["C"] = "";
  EXPECT_EQ("basebasebase", loaded());
  g_oCountryData.clear();
  g_oLanguageData.clear();
}
