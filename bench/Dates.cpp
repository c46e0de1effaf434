// The present time as text, a text as a time, and the same time a month later.
#include <ctime>
#include <locale>
#include <sstream>

#include "Workload.h"

#ifdef PEER_POCO
#include <Poco/DateTime.h>
#include <Poco/DateTimeFormat.h>
#include <Poco/DateTimeFormatter.h>
#include <Poco/DateTimeParser.h>
#include <Poco/LocalDateTime.h>
#endif
#ifdef PEER_BOOST
#include <boost/date_time/posix_time/posix_time.hpp>
#endif
#ifdef PEER_ABSEIL
#include <absl/time/clock.h>
#include <absl/time/time.h>
#endif

namespace {

using Bench::Workload;

const std::string g_sText("Sun, 06 Nov 1994 08:49:37 GMT");
constexpr int kDayOfText = 310;

// Each side has now() and parses the text as local time; most can add months to what they parsed.

class Ours {
 public:
  std::wstring now() const { return VarnSupport::VarnDateTime().toString(std::locale::classic()); }
  bool parse() { return m_oDate.setDateTime(g_sText, m_sError); }
  bool addMonths(int count) {
    return m_oDate.modifyDate(VarnSupport::VarnDateTime::Month, count, m_sError);
  }
  int dayOfYear() const { return m_oDate.day(); }

 private:
  VarnSupport::VarnDateTime m_oDate;
  std::string m_sError;
};

class Standard {
 public:
  std::string now() const {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    char text[64];
    return {text, std::strftime(text, sizeof text, "%c", &local)};
  }
  bool parse() {
    m_oTime.tm_isdst = -1;
    return strptime(g_sText.c_str(), "%a, %d %b %Y %H:%M:%S", &m_oTime) != nullptr &&
           std::mktime(&m_oTime) != -1;
  }
  bool addMonths(int count) {
    m_oTime.tm_mon += count;
    m_oTime.tm_isdst = -1;
    return std::mktime(&m_oTime) != -1;
  }
  int dayOfYear() const { return m_oTime.tm_yday + 1; }

 private:
  std::tm m_oTime{};
};

#ifdef PEER_POCO
class WithPoco {
 public:
  std::string now() const {
    return Poco::DateTimeFormatter::format(Poco::LocalDateTime(),
                                           Poco::DateTimeFormat::ASCTIME_FORMAT);
  }
  bool parse() {
    int zone = 0;
    return Poco::DateTimeParser::tryParse(Poco::DateTimeFormat::RFC1123_FORMAT, g_sText, m_oTime,
                                          zone);
  }
  int dayOfYear() const { return m_oTime.dayOfYear(); }

 private:
  Poco::DateTime m_oTime;
};
#endif

#ifdef PEER_BOOST
class WithBoost {
 public:
  WithBoost() {
    m_oStream.imbue(std::locale(std::locale::classic(),
                                new boost::posix_time::time_input_facet("%a, %d %b %Y %H:%M:%S")));
  }
  std::string now() const {
    return boost::posix_time::to_simple_string(boost::posix_time::second_clock::local_time());
  }
  bool parse() {
    m_oStream.clear();
    m_oStream.str(g_sText);
    return static_cast<bool>(m_oStream >> m_oTime);
  }
  int dayOfYear() const { return m_oTime.date().day_of_year(); }

 private:
  std::istringstream m_oStream;
  boost::posix_time::ptime m_oTime;
};
#endif

#ifdef PEER_ABSEIL
class WithAbseil {
 public:
  std::string now() const { return absl::FormatTime("%c", absl::Now(), m_oZone); }
  bool parse() {
    absl::Time time;
    if (!absl::ParseTime("%a, %d %b %Y %H:%M:%S GMT", g_sText, m_oZone, &time, nullptr))
      return false;
    m_oTime = absl::ToCivilSecond(time, m_oZone);
    return true;
  }
  bool addMonths(int count) {
    const absl::CivilSecond moved(m_oTime.year(), m_oTime.month() + count, m_oTime.day(),
                                  m_oTime.hour(), m_oTime.minute(), m_oTime.second());
    m_oTime = absl::ToCivilSecond(absl::FromCivil(moved, m_oZone), m_oZone);
    return true;
  }
  int dayOfYear() const { return absl::GetYearDay(absl::CivilDay(m_oTime)); }

 private:
  absl::TimeZone m_oZone = absl::LocalTimeZone();
  absl::CivilSecond m_oTime;
};
#endif

template <typename Side>
void add(const std::string& name) {
  Workload("date, now as text").side(name, [](benchmark::State& state) {
    const Side side;
    Bench::measure(state, 1, true, [&] {
      const auto text = side.now();
      return text.size() > 15 && text.size() < 40;
    });
  });
  Workload("date, RFC form parsed").side(name, [](benchmark::State& state) {
    Side side;
    Bench::require(state, side.parse() && side.dayOfYear() == kDayOfText);
    for (auto _ : state)
      benchmark::DoNotOptimize(side.parse());
  });
  if constexpr (requires(Side side) { side.addMonths(1); }) {
    Workload("date, a month added").side(name, [](benchmark::State& state) {
      Side side;
      side.parse();
      Bench::require(state, side.addMonths(1) && side.dayOfYear() == kDayOfText + 30);
      int months = -1;
      for (auto _ : state) {
        benchmark::DoNotOptimize(side.addMonths(months));
        months = -months;
      }
    });
  }
}

const bool g_bAdded = [] {
  add<Ours>("ours");
  add<Standard>("std");
#ifdef PEER_POCO
  add<WithPoco>("POCO");
#endif
#ifdef PEER_BOOST
  add<WithBoost>("Boost");
#endif
#ifdef PEER_ABSEIL
  add<WithAbseil>("Abseil");
#endif
  return true;
}();

}  // namespace
