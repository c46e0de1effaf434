// The present time as text, texts as times, and times a month later.
#include <ctime>
#include <locale>
#include <sstream>

#include "Data.h"
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

struct Moment {
  std::string text;
  int dayOfYear;
};

// At noon, and before the 29th of a month, so that all sides agree on a month later: of these
// years, of the age of computers, or of one month.
std::vector<Moment> moments() {
  Bench::Draw draw("moments");
  std::vector<Moment> made(64);
  for (Moment& moment : made) {
    const int any = static_cast<int>(draw.below(130));
    const int years[] = {120 + any % 10, 70 + any % 65, 126};
    std::tm time{};
    time.tm_year = Bench::ofShape(years);
    time.tm_mon = time.tm_year == 126 ? 1 : static_cast<int>(draw.below(11));
    time.tm_mday = 1 + static_cast<int>(draw.below(28));
    time.tm_hour = 12;
    time.tm_min = static_cast<int>(draw.below(60));
    time.tm_sec = static_cast<int>(draw.below(60));
    timegm(&time);
    char text[64];
    moment = {{text, std::strftime(text, sizeof text, "%a, %d %b %Y %H:%M:%S GMT", &time)},
              time.tm_yday + 1};
  }
  return made;
}

// The day of the year, a month later.
int monthLater(const Moment& moment) {
  std::tm time{};
  strptime(moment.text.c_str(), "%a, %d %b %Y %H:%M:%S", &time);
  ++time.tm_mon;
  timegm(&time);
  return time.tm_yday + 1;
}

// Each side has now() and parses a text as local time; most can add months to what they parsed.

class Ours {
 public:
  std::wstring now() const { return VarnSupport::VarnDateTime().toString(std::locale::classic()); }
  bool parse(const std::string& text) { return m_oDate.setDateTime(text, m_sError); }
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
  bool parse(const std::string& text) {
    m_oTime.tm_isdst = -1;
    return strptime(text.c_str(), "%a, %d %b %Y %H:%M:%S", &m_oTime) != nullptr &&
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
  bool parse(const std::string& text) {
    int zone = 0;
    return Poco::DateTimeParser::tryParse(Poco::DateTimeFormat::RFC1123_FORMAT, text, m_oTime,
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
  bool parse(const std::string& text) {
    m_oStream.clear();
    m_oStream.str(text);
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
  bool parse(const std::string& text) {
    absl::Time time;
    if (!absl::ParseTime("%a, %d %b %Y %H:%M:%S GMT", text, m_oZone, &time, nullptr))
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
    const std::vector<Moment> all = moments();
    bool correct = true;
    for (const Moment& moment : all)
      correct = side.parse(moment.text) && side.dayOfYear() == moment.dayOfYear && correct;
    Bench::require(state, correct);
    std::size_t turn = 0;
    for (auto _ : state)
      benchmark::DoNotOptimize(side.parse(all[turn++ % all.size()].text));
  });
  if constexpr (requires(Side side) { side.addMonths(1); }) {
    Workload("date, a month added").side(name, [](benchmark::State& state) {
      std::vector<Side> sides;
      bool correct = true;
      for (const Moment& moment : moments()) {
        sides.emplace_back();
        correct = sides.back().parse(moment.text) && sides.back().addMonths(1) &&
                  sides.back().dayOfYear() == monthLater(moment) && correct;
      }
      Bench::require(state, correct);
      std::size_t turn = 0;
      for (auto _ : state) {
        const std::size_t round = turn / sides.size();
        benchmark::DoNotOptimize(sides[turn++ % sides.size()].addMonths(round % 2 == 0 ? -1 : 1));
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
