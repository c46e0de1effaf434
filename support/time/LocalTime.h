// The system's localtime() and mktime() without their shared result, and for most times without
// their price.
//
// The zone is re-read on every call, as those two do: a changed TZ counts at once, a replaced
// system-wide zone file (with TZ unset) within a second. Safe from any thread. Callers keep
// cancellation closed.
#ifndef SUPPORT_TIME_LOCALTIME_H
#define SUPPORT_TIME_LOCALTIME_H

#include <ctime>

namespace VarnSupport {

// Breaks `time` down; false when its year does not fit. `local.tm_zone` is good until the calling
// thread's next call.
bool toLocalTime(std::time_t time, std::tm& local);

// What mktime() does: normalises `local` and returns its time, or -1, which is also the second
// before the epoch. The daylight-saving flag decides as there.
std::time_t fromLocalTime(std::tm& local);
// The same without normalising.
std::time_t timeOfLocal(const std::tm& local);

// Whether mktime() accepts `local`, its daylight-saving flag included, and leaves its fields alone.
bool isLocalTime(const std::tm& local);

// Changes one field of a local time that mktime() leaves alone, and normalises what comes of that,
// as mktime() would if it were told the daylight-saving rule of `local`. False, with nothing
// changed, where the system is to be asked, and for the second before the epoch. Sets the
// calendar's fields alone.
bool shiftLocalTime(std::tm& local, int std::tm::*field, int value);

// The system's gmtime(), into `utc`, which is left alone when the year does not fit.
void toUniversalTime(std::time_t time, std::tm& utc);

// Around other calls of the system that may look at the zone, such as formatting its name: a
// process that forks meanwhile would leave the zone locked in the child.
class ZoneUse {
 public:
  ZoneUse();
  ZoneUse(const ZoneUse&) = delete;
  ZoneUse& operator=(const ZoneUse&) = delete;
  ~ZoneUse();
};

}  // namespace VarnSupport

#endif
