// A calendar date and time of day in local time, kept as separate fields.
//
// The system decides what is valid: a value that its mktime() would normalise is refused. The zone
// is the one of the moment (TZ), and nothing of it is stored. Operations either throw
// VarnInvalidDateException or answer false and put a message into `error`, which success leaves
// alone; a value that was refused leaves the object as it was. Different objects may be used from
// different threads; one object needs the callers' own lock.
//
// Where the zone's clock is set back an hour has two times: getTime() gives either.
#ifndef VARNSUPPORT_VARNDATETIME_H
#define VARNSUPPORT_VARNDATETIME_H

#include <atomic>
#include <cstdint>
#include <ctime>
#include <locale>
#include <string>

#include "VarnSupport/VarnException.h"
#include "VarnSupport/VarnExport.h"

namespace VarnSupport {

class VSUPT_EXPORT VarnDateTime {
 public:
  // What modifyDate() changes.
  enum FieldId_t : unsigned { Month = 0, Day = 1, Year = 2, Hour = 3, Minute = 4, Second = 5 };

  // The current time, with the default locale (VarnLocaleFactory).
  VarnDateTime();
  // A copy gets the global locale; assignment keeps the target's. Both copy the instance id.
  VarnDateTime(const VarnDateTime& source);
  VarnDateTime& operator=(const VarnDateTime& source);
  virtual ~VarnDateTime();

  // Takes over a broken-down time as its daylight-saving flag says: 0 in summer, or 1 in winter,
  // is refused; -1 lets the system decide. Throws VarnInvalidDateException.
  VarnDateTime& operator=(const std::tm& time);
  // The same; the error is the exception's text, prefix included.
  bool setDateTimeFromTmImpl(const std::tm& time, std::string& error);
  // The month counts from 1 and the year from 1900; callers rely on both. The flag is 0, so that
  // summer times are refused where the zone has them. Errors as above.
  bool setDateImpl(unsigned int day, unsigned int month, unsigned int year, std::string& error);
  bool setDateTimeImpl(unsigned int day, unsigned int month, unsigned int year, unsigned int hour,
                       unsigned int minute, unsigned int second, std::string& error);

  // Reads one of three forms, all as local time:
  //   "Sun, 06 Nov 1994 08:49:37 GMT"  with a comma: weekday and zone are not looked at, and what
  //                                    does not exist is normalised (31 Apr is 1 May)
  //   "06/11/1994 08:49:37"            with a slash: day first; missing parts of the time are 0
  //   "Sun Nov  6 08:49:37 1994"       any other: the weekday is not looked at
  // Month names are as in abbrevMonthNames; any other counts as January. False when the text has
  // none of these forms. Throws VarnInvalidDateException when the time does not exist.
  bool setDateTime(const std::string& text, std::string& error);
  // The same, but false for every failure; the error is then the exception's text.
  bool setDateTimeFromStrImpl(const std::string& text, std::string& error);

  // Adds to one field and normalises: 31 January and one month are 2 or 3 March. The hour is that
  // of the present daylight-saving rule and moves when the result has the other one. An amount of 0
  // is refused without a message; callers rely on it.
  bool modifyDate(FieldId_t field, int amount, std::string& error);

  // Whether the value would be valid with another year (full), month (1 to 12) or day.
  bool setYearImpl(unsigned int year, std::string& error) const;
  bool setMonthImpl(unsigned int month, std::string& error) const;
  bool setDayImpl(unsigned int day, std::string& error) const;
  // Whether mktime() accepts the time and leaves it as it is. The second before the epoch never is
  // valid, as mktime() answers -1 for it, nor is a year beyond 32 bits.
  static bool validateDateTime(const std::tm& time, std::string& error);
  // Validates and takes over.
  bool operatorImpl(const std::tm& time, std::string& error);

  std::time_t getTime() const;
  // The day of the year, 1 to 366.
  int day() const;
  // 0, Sunday, to 6.
  int getWeekday() const;
  bool isLeapYear() const;
  // 0 for every date; callers rely on it.
  unsigned int hash() const;
  // The index of a name in abbrevMonthNames, exactly as written there; 0 for any other.
  static int getMonthForRFCName(const std::string& name);
  // Gives the value an instance id of its own.
  void adjustInstanceId();

  // In the language and the formats of a locale.
  std::wstring monthName(const std::locale& locale) const;
  std::wstring weekdayName(const std::locale& locale) const;
  // dateToString() gives the time of day and timeToString() the date; callers rely on it.
  std::wstring dateToString(const std::locale& locale) const;
  std::wstring timeToString(const std::locale& locale) const;
  std::wstring toString(const std::locale& locale) const;
  // In UTC, with the object's own locale.
  std::wstring toGMTString() const;
  // Formats with the locale's std::time_put facet.
  static std::wstring constructTimeString(const std::tm* time, const std::locale& locale,
                                          const wchar_t* format);

  static const char* const abbrevMonthNames[12];
  // Where instance ids come from; wraps.
  static std::atomic<std::uint32_t> m_objectCounter;

 private:
  std::tm fields() const;
  std::tm localTime() const;
  void store(const std::tm& time);

  std::uint32_t m_nDay = 1;
  std::int32_t m_nMonth = 0;
  std::int32_t m_nYear = 1970;
  std::int32_t m_nHour = 0;
  std::int32_t m_nMinute = 0;
  std::int32_t m_nSecond = 0;
  std::locale m_oLocale;
  std::uint32_t m_nInstanceId = 0;
};

}  // namespace VarnSupport

#endif
