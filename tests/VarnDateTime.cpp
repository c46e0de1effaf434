#include "VarnSupport/VarnDateTime.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <cstdlib>
#include <optional>
#include <random>
#include <thread>

#include "VarnSupport/VarnLocaleFactory.h"

using VarnSupport::VarnDateTime;
using VarnSupport::VarnInvalidDateException;
using VarnSupport::VarnLocaleFactory;

namespace {

constexpr char kInvalid[] = "Input does not compute to a valid DateTime object";
constexpr char kInvalidFull[] =
    "VarnInvalidDateException - Input does not compute to a valid DateTime object";
constexpr char kIncorrectRfc[] = "Incorrect RFC1123 DateTime format";
constexpr char kIncorrect[] = "Incorrect DateTime format";

// The zone of one scope.
class InZone {
 public:
  explicit InZone(const char* zone) {
    if (const char* const before = std::getenv("TZ"))
      m_sBefore = before;
    setenv("TZ", zone, 1);
  }
  InZone(const InZone&) = delete;
  InZone& operator=(const InZone&) = delete;
  ~InZone() { m_sBefore ? setenv("TZ", m_sBefore->c_str(), 1) : unsetenv("TZ"); }

 private:
  std::optional<std::string> m_sBefore;
};

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
  tzset();
  std::tm local{};
  localtime_r(&time, &local);
  return show(local);
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
  static constexpr struct {
    const char* text;
    const char* result;
  } rows[] = {{"Sun, 06 Nov 1994 08:49:37 GMT", "06/11/1994 08:49:37"},
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
    const InZone inZone(zone);
    for (const auto& row : rows)
      EXPECT_EQ(show(at(row.text)), row.result) << row.text << " in " << zone;
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
    refuses(text, kIncorrectRfc);
  for (const char* const text :
       {"06/11", "06/11/", "6 /11/1994", "6/-/1994", "99999999999/1/2024", "1/1/-2147483649", "",
        "Sun Nov  6 08:49:37", "Sun Nov  6 08:49:37 1994  ", "Sun Nov  6 08:49 1994"})
    refuses(text, kIncorrect);
  const std::string whole = "Sun Nov  6 08:49:37 1994";
  for (std::size_t length = 0; length <= whole.find("1994"); ++length)
    refuses(whole.substr(0, length), kIncorrect);
  refuses(whole.substr(0, 8) + '\0' + whole.substr(9), kIncorrect);
}

TEST(VarnDateTime, RefusesTimesThatDoNotExist) {
  const InZone inZone("Europe/Berlin");
  for (const char* const text :
       {"31/04/2024 10:00:00", "29/02/2023", "1/13/2024", "0/1/2024", "1/1/2024 24:00:00",
        "1/1/2024 0:0:60", "31/03/2024 02:30:00", "Fri Feb 30 00:00:00 2024", "1/1/-2147483648",
        "1/-2147483648/2024", "01/01/1970 00:59:59"}) {
    VarnDateTime date = at("06/11/1994 08:49:37");
    const auto ids = VarnDateTime::m_objectCounter.load();
    std::string error;
    EXPECT_THROW(date.setDateTime(text, error), VarnInvalidDateException) << text;
    EXPECT_FALSE(date.setDateTimeFromStrImpl(text, error)) << text;
    EXPECT_EQ(error, kInvalidFull) << text;
    EXPECT_EQ(show(date), "06/11/1994 08:49:37") << text;
    EXPECT_EQ(VarnDateTime::m_objectCounter, ids) << text;
  }
  std::string error;
  EXPECT_THROW(VarnDateTime().setDateTime("X, 1 Jan 1970 00:59:59 GMT", error),
               VarnInvalidDateException);
}

TEST(VarnDateTime, NumericSettersCountYearsFrom1900WithoutDaylightSaving) {
  const InZone inZone("Europe/Berlin");
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
  const InZone inZone("Europe/Berlin");
  std::tm july{};
  july.tm_mday = 1;
  july.tm_mon = 6;
  july.tm_year = 124;
  VarnDateTime date;
  std::string error;
  EXPECT_FALSE(date.setDateTimeFromTmImpl(july, error));
  EXPECT_EQ(error, kInvalidFull);
  EXPECT_FALSE(VarnDateTime::validateDateTime(july, error));
  EXPECT_EQ(error, kInvalid);
  EXPECT_THROW(date = july, VarnInvalidDateException);
  for (july.tm_isdst = -1; july.tm_isdst <= 1; july.tm_isdst += 2)
    EXPECT_EQ(show(date = july), "01/07/2024 00:00:00");
}

TEST(VarnDateTime, ChecksOneFieldWithoutChangingIt) {
  const InZone inZone("Europe/Berlin");
  const VarnDateTime date = at("31/01/2024 10:00:00");
  using Check = bool (VarnDateTime::*)(unsigned, std::string&) const;
  const struct {
    Check check;
    unsigned value;
    const char* error;  // empty: valid
  } rows[] = {{&VarnDateTime::setMonthImpl, 2, kInvalid},
              {&VarnDateTime::setMonthImpl, 0, "Invalid Month : Exceeds 12"},
              {&VarnDateTime::setMonthImpl, 13, "Invalid Month : Exceeds 12"},
              {&VarnDateTime::setDayImpl, 0, "Invalid Day : Exceeds 31"},
              {&VarnDateTime::setDayImpl, 32, "Invalid Day : Exceeds 31"},
              {&VarnDateTime::setYearImpl, 1, ""},
              {&VarnDateTime::setYearImpl, INT_MAX, ""},
              {&VarnDateTime::setYearImpl, INT_MAX + 1U, kInvalid},
              {&VarnDateTime::setYearImpl, UINT_MAX, kInvalid}};
  for (const auto& row : rows) {
    std::string error;
    EXPECT_EQ((date.*row.check)(row.value, error), *row.error == '\0') << row.value;
    EXPECT_EQ(error, row.error) << row.value;
  }
  EXPECT_EQ(show(date), "31/01/2024 10:00:00");
}

TEST(VarnDateTime, ShiftsOneFieldAndNormalises) {
  const InZone inZone("Europe/Berlin");
  const std::string failed =
      "Subtracting does not compute to a valid Date. Trying to subtract field,";
  const struct {
    const char* from;
    unsigned field;
    int amount;
    std::string result;  // or the error
  } rows[] = {{"31/01/2024 10:00:00", VarnDateTime::Month, 1, "02/03/2024 10:00:00"},
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
  for (const auto& row : rows) {
    VarnDateTime date = at(row.from);
    std::string error = "untouched";
    const auto field = static_cast<VarnDateTime::FieldId_t>(row.field);
    const bool shifted = date.modifyDate(field, row.amount, error);
    EXPECT_EQ(shifted ? show(date) : error, row.result) << row.from << ' ' << row.amount;
    EXPECT_TRUE(shifted || show(date) == row.from) << row.from << ' ' << row.amount;
  }
}

TEST(VarnDateTime, KnowsWeekdayDayOfTheYearAndLeapYears) {
  const InZone inZone("Europe/Berlin");
  static constexpr struct {
    const char* text;
    int weekday;
    int day;
    bool isLeapYear;
  } rows[] = {{"15/07/2023 00:30:00", 6, 196, false}, {"31/12/2024 12:00:00", 2, 366, true},
              {"01/01/1900 00:00:00", 1, 1, false},   {"29/02/2000 00:00:00", 2, 60, true},
              {"01/03/1904 00:00:00", 2, 61, true},   {"28/02/2100 23:59:59", 0, 59, false}};
  for (const auto& row : rows) {
    const VarnDateTime date = at(row.text);
    EXPECT_EQ(date.getWeekday(), row.weekday) << row.text;
    EXPECT_EQ(date.day(), row.day) << row.text;
    EXPECT_EQ(date.isLeapYear(), row.isLeapYear) << row.text;
    EXPECT_EQ(date.hash(), 0U) << row.text;
  }
}

TEST(VarnDateTime, TakesAFreshInstanceIdForEachValueThatIsSet) {
  VarnDateTime date;
  std::string error;
  const auto taken = [](auto action) {
    const std::uint32_t before = VarnDateTime::m_objectCounter;
    action();
    return VarnDateTime::m_objectCounter - before;
  };
  EXPECT_EQ(taken([&] { VarnDateTime(); }), 1U);
  EXPECT_EQ(taken([&] { date.setDateTime("01/01/2024", error); }), 1U);
  EXPECT_EQ(taken([&] { date.setDateTimeFromStrImpl("01/01/2024", error); }), 2U);
  EXPECT_EQ(taken([&] { date.setDateImpl(1, 1, 124, error); }), 2U);
  EXPECT_EQ(taken([&] { date.adjustInstanceId(); }), 1U);
  EXPECT_EQ(taken([&] { date.setMonthImpl(7, error) && (date = VarnDateTime(date)).day(); }), 0U);
}

TEST(VarnDateTime, FormatsWithTheFacetOfTheLocaleItIsGiven) {
  const InZone inZone("Australia/Sydney");
  const std::locale marked(std::locale::classic(), new Marks);
  const VarnDateTime date = at("06/11/1994 08:49:37");
  EXPECT_EQ(date.monthName(marked) + date.weekdayName(marked), L"B8A8");
  EXPECT_EQ(date.dateToString(marked) + date.timeToString(marked), L"X8x8");
  EXPECT_EQ(date.toString(marked), L"c8");
  EXPECT_EQ(date.dateToString(std::locale::classic()), L"08:49:37");
  const std::tm midnight{};
  EXPECT_EQ(VarnDateTime::constructTimeString(&midnight, marked, L"-%H:%M"), L"-H0:M0");
}

TEST(VarnDateTime, KeepsItsLocaleWhenAssignedAndCopiesNone) {
  const InZone inZone("Europe/Berlin");
  const std::locale before = VarnLocaleFactory::m_oDefaultLocale;
  VarnLocaleFactory::m_oDefaultLocale = std::locale(before, new Marks);
  VarnDateTime marked;
  VarnLocaleFactory::m_oDefaultLocale = before;
  marked = at("06/11/1994 08:49:37");
  EXPECT_EQ(marked.toGMTString(), L"c7");
  EXPECT_EQ(VarnDateTime(marked).toGMTString(), L"Sun Nov  6 07:49:37 1994");
}

TEST(VarnDateTime, TextsFollowTheTimeAndTheZoneOfTheMoment) {
  const std::locale& classic = std::locale::classic();
  const InZone inZone("Australia/Sydney");
  VarnDateTime date = at("06/11/1994 08:49:37");
  EXPECT_EQ(date.toString(classic), L"Sun Nov  6 08:49:37 1994");
  EXPECT_EQ(date.toGMTString(), L"Sat Nov  5 21:49:37 1994");
  const std::time_t inSydney = date.getTime();
  for (const auto& [zone, hours] : {std::pair{"Europe/Berlin", 10}, {"UTC", 11}, {"EST5", 16}}) {
    const InZone other(zone);
    EXPECT_EQ(date.getTime() - inSydney, hours * 3600) << zone;
  }
  EXPECT_EQ(date.getTime(), inSydney);
  std::string error;
  date.modifyDate(VarnDateTime::Second, 1, error);
  EXPECT_EQ(date.toString(classic), L"Sun Nov  6 08:49:38 1994");
}

// Against the platform's mktime(), near and far from changes of the zone.
TEST(VarnDateTime, AgreesWithTheSystemEverywhere) {
  const unsigned seed = std::random_device()();
  SCOPED_TRACE(seed);
  std::mt19937_64 random(seed);
  for (const char* const zone :
       {"UTC", "Europe/Berlin", "Australia/Lord_Howe", "Pacific/Apia", "Africa/Casablanca",
        "right/Europe/Berlin", "XXX-24YYY,J60,J300"}) {
    const InZone inZone(zone);
    for (int i = 0; i < 150; ++i) {
      const std::int64_t range = i % 2 == 0 ? 4'000'000'000 : 70'000'000'000'000'000;
      std::time_t near = static_cast<std::int64_t>(random() % (2U * range)) - range;
      for (int step = 0; step < 5; ++step, near += static_cast<int>(random() % 500'000)) {
        std::tm given{};
        tzset();
        if (localtime_r(&near, &given) == nullptr)
          continue;
        given.tm_isdst = step % 3 - 1;
        given.tm_hour += step / 2;
        std::tm normal = given;
        const bool valid = std::mktime(&normal) != -1 && show(normal) == show(given) &&
                           normal.tm_year <= INT_MAX - 1900;
        VarnDateTime date;
        std::string error;
        ASSERT_EQ(date.setDateTimeFromTmImpl(given, error), valid) << near << " in " << zone;
        if (!valid)
          continue;
        ASSERT_EQ(show(date), show(given)) << near << " in " << zone;
        ASSERT_EQ(date.getWeekday(), normal.tm_wday) << near << " in " << zone;
        ASSERT_EQ(date.day(), normal.tm_yday + 1) << near << " in " << zone;
      }
    }
  }
}

TEST(VarnDateTime, WorksBesideAnotherThreadAndInAChildForkedMeanwhile) {
  const auto works = [] {
    return at("1/2/2024").toString(std::locale::classic()) == L"Thu Feb  1 00:00:00 2024";
  };
  std::atomic<bool> done{false};
  std::thread other([&done] {
    std::string error;
    for (unsigned day = 0; !done; ++day)
      VarnDateTime().setDateImpl(1 + day % 28, 1, day % 8000, error);
  });
  for (int i = 0; i < 100; ++i) {
    const pid_t child = fork();
    if (child == 0) {
      alarm(20);
      _exit(works() ? 0 : 1);
    }
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(works());
  }
  done = true;
  other.join();
}
