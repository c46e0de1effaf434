#include <ctime>
#include <locale>

#include "TestTools.h"
#include "VarnSupport/VarnDateTime.h"
#include "VarnSupport/VarnLocaleFactory.h"

namespace {

constexpr char kInvalid[] = "Input does not compute to a valid DateTime object";
const std::string kInvalidFull = std::string("VarnInvalidDateException - ") + kInvalid;

void setZone(const char* zone) { setenv("TZ", zone, 1); }

VarnDateTime at(const std::string& text) {
  VarnDateTime date;
  std::string error;
  EXPECT_TRUE(date.setDateTime(text, error)) << text << ": " << error;
  return date;
}

std::string show(const std::tm& time) {
  char text[64];
  return {text, std::strftime(text, sizeof text, "%d/%m/%Y %H:%M:%S", &time)};
}

std::string show(const VarnDateTime& date) {
  const std::time_t time = date.getTime();
  return show(*std::localtime(&time));
}

// Writes each conversion with the hour, in place of a text.
class Marks : public std::time_put<wchar_t> {
  iter_type do_put(iter_type to, std::ios_base&, char_type, const std::tm* time, char format,
                   char) const override {
    *to++ = static_cast<wchar_t>(format);
    *to++ = static_cast<wchar_t>(L'0' + time->tm_hour);
    return to;
  }
};

}  // namespace

TEST(VarnDateTime, ReadsThreeFormsAsLocalTime) {
  static constexpr std::pair<const char*, const char*> rows[] = {
      {"Sun, 06 Nov 1994 08:49:37 GMT", "06/11/1994 08:49:37"},
      {"Foo, 6 Jul 1994 8:49:37 Zulu", "06/07/1994 08:49:37"},
      {"x, 6 Jul 94 8:4:7 abcdefghijk", "06/07/94 08:04:07"},
      {"Sun, 06 Foo 1994 08:49:37 GMT", "06/01/1994 08:49:37"},
      {"Tue, 31 Apr 2024 25:61:61 GMT", "02/05/2024 02:02:01"},
      {"a,\t6\nNov\v1994 08: 49:\f37\rz", "06/11/1994 08:49:37"},
      {" 6/ 7/+1994", "06/07/1994 00:00:00"},
      {"6/7/2024 10:20", "06/07/2024 10:20:00"},
      {"6/7/2024 10:x:30", "06/07/2024 10:00:00"},
      {"1/2/2024 9999999999", "01/02/2024 00:00:00"},
      {"6/7/24 and the rest", "06/07/24 00:00:00"},
      {"Sun Nov  6 08:49:37 1994", "06/11/1994 08:49:37"},
      {"S Jul 6 8:9:7 +1994 more", "06/07/1994 08:09:07"},
      {"Wednesday Foo 6 8:9:7 19", "06/01/19 08:09:07"}};
  for (const char* const zone : {"UTC", "Europe/Berlin", "Australia/Sydney"}) {
    setZone(zone);
    for (const auto& [text, result] : rows)
      EXPECT_EQ(show(at(text)), result) << text << " in " << zone;
  }
}

TEST(VarnDateTime, RefusesOtherTextsWithTheMessageOfTheirForm) {
  const auto refuses = [](const std::string& text, const char* message) {
    VarnDateTime date = at("06/11/1994 08:49:37");
    std::string error;
    EXPECT_FALSE(date.setDateTimeFromStrImpl(text, error)) << text;
    EXPECT_EQ(error, message) << text;
    EXPECT_EQ(show(date), "06/11/1994 08:49:37") << text;
  };
  for (const char* const text : {"Sun, 06 Nov 1994 08:49:37", "Sun, 06 Nov 1994 08:49:37 GMT ",
                                 "Wednesday, 6 Nov 94 8:9:7 Z", "Sun, 6 Septembers 94 8:9:7 Z",
                                 "Sun, 06 Nov 1994 08 :49:37 Z", "Sun, 2147483648 Nov 1 1:1:1 Z",
                                 ",", "06/11/1994  08:49:37"})
    refuses(text, "Incorrect RFC1123 DateTime format");
  for (const char* const text :
       {"06/11", "06/11/", "6 /11/1994", "6/-/1994", "99999999999/1/2024", "1/1/-2147483649", "",
        "Sun Nov  6 08:49:37", "Sun Nov  6 08:49:37 1994  ", "Sun Nov  6 08:49 1994"})
    refuses(text, "Incorrect DateTime format");
  const std::string whole = "Sun Nov  6 08:49:37 1994";
  for (std::size_t length = 0; length <= whole.find("1994"); ++length)
    refuses(whole.substr(0, length), "Incorrect DateTime format");
  refuses(whole.substr(0, 8) + '\0' + whole.substr(9), "Incorrect DateTime format");
}

TEST(VarnDateTime, RefusesTimesThatDoNotExist) {
  setZone("Europe/Berlin");
  for (const char* const text :
       {"31/04/2024 10:00:00", "29/02/2023", "1/13/2024", "0/1/2024", "1/1/2024 24:00:00",
        "1/1/2024 0:0:60", "31/03/2024 02:30:00", "Fri Feb 30 00:00:00 2024", "1/1/-2147483648",
        "1/-2147483648/2024", "01/01/1970 00:59:59", "X, 1 Jan 1970 00:59:59 GMT"}) {
    VarnDateTime date = at("06/11/1994 08:49:37");
    const auto ids = VarnDateTime::m_objectCounter.load();
    std::string error;
    EXPECT_THROW(date.setDateTime(text, error), VarnInvalidDateException) << text;
    EXPECT_FALSE(date.setDateTimeFromStrImpl(text, error)) << text;
    EXPECT_EQ(error, kInvalidFull) << text;
    EXPECT_EQ(show(date), "06/11/1994 08:49:37") << text;
    EXPECT_EQ(VarnDateTime::m_objectCounter, ids) << text;
  }
}

TEST(VarnDateTime, NumericSettersCountYearsFrom1900WithoutDaylightSaving) {
  setZone("Europe/Berlin");
  VarnDateTime date;
  std::string error = "untouched";
  EXPECT_TRUE(date.setDateImpl(29, 2, 124, error));
  EXPECT_EQ(show(date), "29/02/2024 00:00:00");
  EXPECT_TRUE(date.setDateTimeImpl(31, 12, 99, 23, 59, 58, error));
  EXPECT_EQ(show(date), "31/12/1999 23:59:58");
  EXPECT_EQ(error, "untouched");
  static constexpr unsigned refused[][3] = {
      {1, 7, 124},        {29, 2, 123},       {1, 0, 124},      {0, 1, 124},
      {UINT_MAX, 1, 124}, {1, UINT_MAX, 124}, {1, 1, UINT_MAX}, {1, 1, INT_MAX}};
  for (const auto& [day, month, year] : refused) {
    error.clear();
    EXPECT_FALSE(date.setDateImpl(day, month, year, error)) << day << ' ' << month << ' ' << year;
    EXPECT_EQ(error, kInvalidFull);
    EXPECT_EQ(show(date), "31/12/1999 23:59:58");
  }
}

TEST(VarnDateTime, TakesABrokenDownTimeAsItsFlagSays) {
  setZone("Europe/Berlin");
  VarnDateTime date = at("01/07/2024");
  const std::time_t time = date.getTime();
  std::tm july = *std::localtime(&time);
  july.tm_isdst = 0;
  std::string error;
  EXPECT_FALSE(VarnDateTime::validateDateTime(july, error));
  EXPECT_EQ(error, kInvalid);
  EXPECT_EQ(resultOf([&] { date = july; }), kInvalidFull);
  for (july.tm_isdst = -1; july.tm_isdst <= 1; july.tm_isdst += 2)
    EXPECT_EQ(show(date = july), "01/07/2024 00:00:00");
}

TEST(VarnDateTime, ChecksOneFieldWithoutChangingIt) {
  setZone("Europe/Berlin");
  const VarnDateTime date = at("31/01/2024 10:00:00");
  using Check = bool (VarnDateTime::*)(unsigned, std::string&) const;
  const std::tuple<Check, unsigned, const char*> rows[] = {
      {&VarnDateTime::setMonthImpl, 2, kInvalid},
      {&VarnDateTime::setMonthImpl, 0, "Invalid Month : Exceeds 12"},
      {&VarnDateTime::setMonthImpl, 13, "Invalid Month : Exceeds 12"},
      {&VarnDateTime::setDayImpl, 0, "Invalid Day : Exceeds 31"},
      {&VarnDateTime::setDayImpl, 32, "Invalid Day : Exceeds 31"},
      {&VarnDateTime::setYearImpl, 1, ""},
      {&VarnDateTime::setYearImpl, INT_MAX, ""},
      {&VarnDateTime::setYearImpl, INT_MAX + 1U, kInvalid},
      {&VarnDateTime::setYearImpl, UINT_MAX, kInvalid}};
  for (const auto& [check, value, expected] : rows) {
    std::string error;
    EXPECT_EQ((date.*check)(value, error), *expected == '\0') << value;
    EXPECT_EQ(error, expected) << value;
  }
  EXPECT_EQ(show(date), "31/01/2024 10:00:00");
}

TEST(VarnDateTime, ShiftsOneFieldAndNormalises) {
  setZone("Europe/Berlin");
  const std::string failed =
      "Subtracting does not compute to a valid Date. Trying to subtract field,";
  const std::tuple<const char*, unsigned, int, std::string> rows[] = {
      {"31/01/2024 10:00:00", VarnDateTime::Month, 1, "02/03/2024 10:00:00"},
      {"31/01/2024 10:00:00", VarnDateTime::Month, 6, "31/07/2024 11:00:00"},
      {"31/03/2024 01:59:59", VarnDateTime::Second, 1, "31/03/2024 03:00:00"},
      {"01/07/2024 00:00:00", VarnDateTime::Hour, -24 * 183, "30/12/2023 23:00:00"},
      {"01/03/2024 00:00:00", VarnDateTime::Day, -1, "29/02/2024 00:00:00"},
      {"29/02/2024 00:00:00", VarnDateTime::Year, -1, "01/03/2023 00:00:00"},
      {"01/01/2024 00:00:00", VarnDateTime::Month, 0, "untouched"},
      {"01/01/1970 01:00:00", VarnDateTime::Second, -1, failed + "h "},
      {"01/01/1970 01:00:04", VarnDateTime::Second, -5, failed + " with "},
      {"01/01/1970 01:00:05", VarnDateTime::Second, -6, failed},
      {"01/01/2024 00:00:00", VarnDateTime::Year, INT_MAX, failed},
      {"01/01/2024 00:00:00", VarnDateTime::Year, INT_MAX - 124, kInvalidFull},
      {"01/01/2024 00:00:00", 6, 1, "Invalid Field : Exceeds 5"}};
  for (const auto& [from, number, amount, result] : rows) {
    VarnDateTime date = at(from);
    std::string error = "untouched";
    const auto field = static_cast<VarnDateTime::FieldId_t>(number);
    const bool shifted = date.modifyDate(field, amount, error);
    EXPECT_EQ(shifted ? show(date) : error, result) << from << ' ' << amount;
    EXPECT_TRUE(shifted || show(date) == from) << from << ' ' << amount;
  }
}

TEST(VarnDateTime, KnowsLeapYears) {
  for (const auto& [year, isLeapYear] :
       {std::pair("1900", false), {"1904", true}, {"2000", true}, {"2023", false}})
    EXPECT_EQ(at(std::string("15/07/") + year).isLeapYear(), isLeapYear) << year;
  EXPECT_EQ(at("15/07/2023").hash(), 0U);
}

TEST(VarnDateTime, TakesAFreshInstanceIdForEachValueThatIsSet) {
  VarnDateTime date;
  std::string error;
  const std::uint32_t before = VarnDateTime::m_objectCounter;
  date.setDateTime("01/01/2024", error);
  EXPECT_EQ(VarnDateTime::m_objectCounter - before, 1U);
  date.setDateImpl(1, 1, 124, error);
  date.setMonthImpl(7, error) && (date = VarnDateTime(date)).day();
  EXPECT_EQ(VarnDateTime::m_objectCounter - before, 3U);
}

TEST(VarnDateTime, FormatsWithTheFacetOfTheLocaleItIsGivenOrKeepsWhenAssigned) {
  setZone("Australia/Sydney");
  const std::locale marked(std::locale::classic(), new Marks);
  const VarnDateTime date = at("06/11/1994 08:49:37");
  EXPECT_EQ(date.monthName(marked) + date.weekdayName(marked), L"B8A8");
  EXPECT_EQ(date.dateToString(marked) + date.timeToString(marked), L"X8x8");
  EXPECT_EQ(date.toString(marked), L"c8");
  EXPECT_EQ(date.dateToString(std::locale::classic()), L"08:49:37");
  const std::tm midnight{};
  EXPECT_EQ(VarnDateTime::constructTimeString(&midnight, marked, L"-%H:%M"), L"-H0:M0");
  std::locale other(VarnLocaleFactory::m_oDefaultLocale, new Marks);
  std::swap(VarnLocaleFactory::m_oDefaultLocale, other);
  VarnDateTime keeping;
  std::swap(VarnLocaleFactory::m_oDefaultLocale, other);
  keeping = date;
  EXPECT_EQ(keeping.toGMTString(), L"cE");
  EXPECT_EQ(VarnDateTime(keeping).toGMTString(), L"Sat Nov  5 21:49:37 1994");
}

TEST(VarnDateTime, TextsFollowTheTimeAndTheZoneOfTheMoment) {
  setZone("Australia/Sydney");
  VarnDateTime date = at("06/11/1994 08:49:37");
  EXPECT_EQ(date.toString(std::locale::classic()), L"Sun Nov  6 08:49:37 1994");
  EXPECT_EQ(date.toGMTString(), L"Sat Nov  5 21:49:37 1994");
  const std::time_t inSydney = date.getTime();
  for (const auto& [zone, hours] :
       {std::pair{"Europe/Berlin", 10}, {"UTC", 11}, {"EST5", 16}, {"AAA0BBB,309/0,309/12", 10}}) {
    setZone(zone);
    for (int asked = 0; asked < 3; ++asked)
      EXPECT_EQ(date.getTime() - inSydney, hours * 3600) << zone;
  }
  setZone("Australia/Sydney");
  EXPECT_EQ(date.getTime(), inSydney);
  std::string error;
  date.modifyDate(VarnDateTime::Second, 1, error);
  EXPECT_EQ(date.toString(std::locale::classic()), L"Sun Nov  6 08:49:38 1994");
  // Universal time counts the leap seconds of the zone of the moment.
  setZone("UTC");
  date = at("06/11/2020 08:49:37");
  for (int asked = 0; asked < 20; ++asked)
    date.getTime();
  setZone("right/UTC");
  tzset();  // by others
  setZone("UTC");
  EXPECT_EQ(date.toGMTString(), L"Fri Nov  6 08:49:37 2020");
}

// Against the platform's mktime(), near and far from changes of the zone.
TEST(VarnDateTime, AgreesWithTheSystemEverywhere) {
  Random random;
  for (const char* const zone :
       {"UTC", "Europe/Berlin", "Australia/Lord_Howe", "Pacific/Apia", "Africa/Casablanca",
        "right/Europe/Berlin", "AAA-24BBB,J60,J300"}) {
    setZone(zone);
    for (int i = 0; i < 150; ++i) {
      const std::int64_t range = i % 2 == 0 ? 4'000'000'000 : 70'000'000'000'000'000;
      std::time_t near = std::uniform_int_distribution<std::int64_t>(-range, range)(random);
      for (int step = 0; step < 10; ++step, near += static_cast<int>(random() % 300'000)) {
        const std::tm* const local = std::localtime(&near);
        if (local == nullptr)
          continue;
        std::tm given = *local;
        given.tm_isdst = step % 3 - 1;
        given.tm_hour += step / 4;
        std::tm normal = given;
        const bool valid = std::mktime(&normal) != -1 && show(normal) == show(given) &&
                           normal.tm_year <= INT_MAX - 1900;
        VarnDateTime date;
        std::string error;
        ASSERT_EQ(date.setDateTimeFromTmImpl(given, error), valid) << near << " in " << zone;
        if (!valid)
          continue;
        ASSERT_EQ(std::tuple(show(given), normal.tm_wday, normal.tm_yday + 1),
                  std::tuple(show(date), date.getWeekday(), date.day()))
            << near << " in " << zone;
      }
    }
  }
}

TEST(VarnDateTime, ShiftsAsTheSystemDoes) {
  constexpr std::pair<int std::tm::*, int> fields[] = {
      {&std::tm::tm_mon, 300},   {&std::tm::tm_mday, 9000},  {&std::tm::tm_year, 30},
      {&std::tm::tm_hour, 9000}, {&std::tm::tm_min, 900000}, {&std::tm::tm_sec, 90000000}};
  Random random;
  for (const char* const zone : {"UTC", "Europe/Berlin", "Africa/Casablanca", "right/UTC"}) {
    setZone(zone);
    for (unsigned i = 0; i < 3000; ++i) {
      const auto [member, range] = fields[i % 6];
      const int amount = static_cast<int>(random() % static_cast<unsigned>(range)) + 1;
      std::time_t near = static_cast<std::time_t>(random() % 4'000'000'000) - 1'000'000'000;
      std::tm expected = *std::localtime(&near);
      expected.tm_hour = 12;  // which no zone has twice
      near = std::mktime(&expected);
      VarnDateTime date;
      date = expected;
      expected.*member += i % 4 < 2 ? amount : -amount;
      ASSERT_NE(std::mktime(&expected), -1);
      std::string error;
      ASSERT_TRUE(date.modifyDate(static_cast<VarnDateTime::FieldId_t>(i % 6),
                                  i % 4 < 2 ? amount : -amount, error));
      ASSERT_EQ(show(date), show(expected)) << near << " in " << zone << ", field " << i % 6;
    }
  }
}

// However often they were asked before: seconds beyond a minute elapse, also across a change.
TEST(VarnDateTime, ShiftedSecondsElapse) {
  for (const auto& [zone, from, seconds] :
       {std::tuple{"Europe/Istanbul", "01/02/2016 12:00:00", 40000000},
        {"Asia/Pyongyang", "01/02/2015 12:00:00", 31536000},
        {"right/UTC", "01/02/2008 12:00:00", 63072000}}) {
    setZone(zone);
    for (int asked = 0; asked < 20; ++asked) {
      VarnDateTime date = at(from);
      const std::time_t before = date.getTime();
      std::string error;
      EXPECT_TRUE(date.modifyDate(VarnDateTime::Second, seconds, error));
      EXPECT_EQ(date.getTime() - before, seconds) << zone << ", asked " << asked;
    }
  }
}

TEST(VarnDateTime, ZonesWithNamesThatBeginAlikeAreToldApart) {
  const std::string zones[] = {"Etc/GMT-1",          "Etc/GMT-10",         "Etc/GMT-11", "Etc/GMT",
                               std::string(63, 'x'), std::string(64, 'x'), "Etc/GMT-1"};
  for (int i = 0; i < 100; ++i) {
    for (const std::string& zone : zones) {
      setZone(zone.c_str());
      std::tm time{};
      time.tm_year = 120;
      const std::time_t expected = std::mktime(&time);
      VarnDateTime date;
      date = time;
      ASSERT_EQ(expected, date.getTime()) << zone;
    }
  }
}

TEST(VarnDateTime, ZonesOfCallersMayChangeTwiceADay) {
  const TempFolder folder;
  writeFile(folder / "rules",
            "Zone Brief 1:00 - ONE 2020 Jun 10 10:00\n"
            " 2:00 - TWO 2020 Jun 10 20:00\n 1:00 - ONE\n");
  const std::string compile = "/usr/sbin/zic -d " + folder.path() + " " + (folder / "rules");
  ASSERT_EQ(0, std::system(compile.c_str()));
  for (const std::string& zone : {folder / "Brief", ":" + (folder / "Brief")}) {
    setZone(zone.c_str());
    for (int asked = 0; asked < 20; ++asked)
      at("10/06/2020 08:00:00").getTime();
    EXPECT_EQ(at("10/06/2020 12:00:00").getTime() - at("10/06/2020 08:00:00").getTime(), 3 * 3600)
        << zone;
  }
}

TEST(VarnDateTime, FacetsOfCallersMayUseDates) {
  struct Asking : std::ctype<wchar_t> {
    char do_narrow(char_type c, char other) const override {
      std::string error;
      VarnDateTime().setDateImpl(1, 1, 300, error);
      return std::ctype<wchar_t>::do_narrow(c, other);
    }
  };
  const std::locale asking(std::locale::classic(), new Asking);
  EXPECT_EQ(at("06/11/2020 08:49:37").toString(asking), L"Fri Nov  6 08:49:37 2020");
}
