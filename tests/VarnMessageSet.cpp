#include "VarnSupport/VarnMessageSet.h"

#include "TestTools.h"
#include "VarnSupport/VarnException.h"

using namespace VarnSupport;

TEST(VarnMessageSet, LaterFilesOverwriteAndOnlyTheCountryMayBeMissing) {
  const TestTools::TempFolder folder;
  const std::string base = folder / "msg";
  // The values of a, b and c, or what is thrown.
  const auto loaded = [&] {
    try {
      const VarnMessageSet set(base, std::locale::classic());
      EXPECT_EQ("C", set.getLocale().name());
      return set.getMessages().getProperty("a") + set.getMessages().getProperty("b") +
             set.getMessages().getProperty("c");
    } catch (const VarnException& error) {
      EXPECT_EQ(0, error.getCode());
      return error.getText();
    }
  };
  const std::string missing = "VarnProperties<StringType>::loadProperties: couldn't open file ";
  EXPECT_EQ(missing + base + ".pro", loaded());
  TestTools::writeFile(base + ".pro", "a=base\nb=base\nc=base\n");
  EXPECT_EQ(missing + base + "_C.pro", loaded());
  TestTools::writeFile(base + "_C.pro", "b=language\nc=language\nc=again\n");
  EXPECT_EQ("baselanguageagain", loaded());
  TestTools::writeFile(base + "_C_C.pro", "c=country\n");
  EXPECT_EQ("baselanguagecountry", loaded());
}
