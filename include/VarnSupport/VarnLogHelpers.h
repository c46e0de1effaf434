// What callers use around their log records: texts from outside made safe, levels from a
// configuration, and records that flood held back.
#ifndef VARNSUPPORT_VARNLOGHELPERS_H
#define VARNSUPPORT_VARNLOGHELPERS_H

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>

#include "VarnSupport/VarnExport.h"
#include "VarnSupport/VarnLogging.h"

namespace VarnSupport {

// The text in one line that cannot be taken for another, and changes nothing on a terminal: control
// characters, those beyond ASCII too, and bytes that are no UTF-8 become "\n", "\r", "\t" or
// "\x1b", backslashes "\\"; line and paragraph separators become their six-character escapes.
VSUPT_EXPORT std::string VarnEscaped(std::string_view text);

// Applies levels such as "5,net=9,db=1" to the registered log: net's records up to 9, db's up to 1,
// all others up to 5. The thresholds that there were are gone. The global level, which admits()
// asks for, becomes the highest of them; setLogLevel(level) ends that, and leaves the components'.
// Text of the older form that is rejected meanwhile is dropped. Without a level for the others they
// keep theirs. Blanks around the parts do not count. False, with the reason in `error`, when a
// level is no number from -1 to 9, a component is named twice or has no name, there is nothing at
// all, or there is no log; nothing has changed then.
VSUPT_EXPORT bool VarnApplyLogLevels(const std::string& levels, std::string& error);
// Whether the text is one that VarnApplyLogLevels() takes where there is a log; else the reason is
// in `error`. For a look at a configuration that is not to be in force yet.
VSUPT_EXPORT bool VarnCheckLogLevels(const std::string& levels, std::string& error);

// Lets a record pass once in an interval, of any length; for a call site that may flood the log.
//
//   static VarnLogLimit limit(std::chrono::seconds(10));
//   VarnLimitedLogRecord(limit, "net", 1) << "cannot connect to " << host;
//
// The next record that passes begins with "[12 left out] " where 12 were. Safe from any thread, and
// usable at any time as a static object.
class VarnLogLimit {
 public:
  explicit constexpr VarnLogLimit(std::chrono::nanoseconds interval)
      : m_nInterval(std::max<std::int64_t>(interval.count(), 0)) {}
  VarnLogLimit(const VarnLogLimit&) = delete;
  VarnLogLimit& operator=(const VarnLogLimit&) = delete;

  // Whether a record may pass now; `leftOut` is then how many might not, since the last that did.
  bool passes(std::uint64_t& leftOut) {
    const std::int64_t now = std::chrono::duration_cast<std::chrono::nanoseconds>(
                                 std::chrono::steady_clock::now().time_since_epoch())
                                 .count();
    std::int64_t next = m_nNext.load(std::memory_order_relaxed);
    const std::int64_t after = m_nInterval < kLatest - now ? now + m_nInterval : kLatest;
    if (now < next || !m_nNext.compare_exchange_strong(next, after, std::memory_order_relaxed)) {
      m_nLeftOut.fetch_add(1, std::memory_order_relaxed);
      return false;
    }
    leftOut = m_nLeftOut.exchange(0, std::memory_order_relaxed);
    return true;
  }

 private:
  static constexpr std::int64_t kLatest = std::numeric_limits<std::int64_t>::max();

  const std::int64_t m_nInterval;
  std::atomic<std::int64_t> m_nNext{0};
  std::atomic<std::uint64_t> m_nLeftOut{0};
};

// A VarnLogRecord that is not admitted while its limit lets none pass. Records that the level of
// the log or of the component rejects do not count.
class VarnLimitedLogRecord : public VarnLogRecord {
 public:
  VarnLimitedLogRecord(VarnLogLimit& limit, int level)
      : VarnLimitedLogRecord(limit, std::string(), level) {}
  VarnLimitedLogRecord(VarnLogLimit& limit, const std::string& component, int level)
      : VarnLimitedLogRecord(component, level, Admission(limit, component, level)) {}

 private:
  struct Admission {
    Admission(VarnLogLimit& limit, const std::string& component, int level)
        : passes(VarnLogging::admits(component, level) && limit.passes(leftOut)) {}

    std::uint64_t leftOut = 0;
    bool passes;
  };
  static constexpr int kNoRecord = -2;

  VarnLimitedLogRecord(const std::string& component, int level, const Admission& admission)
      : VarnLogRecord(component, admission.passes ? level : kNoRecord) {
    if (admission.leftOut > 0)
      *this << "[" << admission.leftOut << " left out] ";
  }
};

}  // namespace VarnSupport

#endif
