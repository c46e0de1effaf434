// Who is told of the records of the registered log, and of what they are yet to be told.
//
// A record is noted by the thread that writes it, while that has the record lock of the log. The
// thread tells of it as soon as it holds the record lock of no log: there may be others around that
// it took before, also of another log.
#ifndef SUPPORT_LOG_OBSERVATION_H
#define SUPPORT_LOG_OBSERVATION_H

#include <atomic>
#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <string>
#include <string_view>

#include "VarnSupport/VarnLogObserver.h"
#include "runtime/Fork.h"

namespace VarnSupport {

class Observation {
 public:
  struct Observer {
    int level;
    std::function<void(const VarnLogEntry&)> function;
    std::uint64_t number = 0;  // in the order of their beginnings
  };
  struct Noted;

  static void add(std::shared_ptr<Observer> observer);
  // Waits until no other thread is inside a call of it.
  static void remove(const Observer* observer);

  static bool isWanted(int level) { return m_nLevel.load(std::memory_order_relaxed) >= level; }
  // Without memory nobody is told.
  static void note(int level, std::string_view component, std::string_view text);
  // Tells of what the calling thread has noted, unless it holds the record lock of a log.
  static void tell() {
    if (m_nNoted.load(std::memory_order_relaxed) > 0)
      tellNoted();
  }

  // Around a fork. Requires: the tables of the logs are locked.
  static void prepareFork();
  static void releaseFork(ForkSide side);

 private:
  static void tellNoted();
  static void tellAll(const VarnLogEntry& entry);
  static void publishLevelLocked();

  static constexpr int kNobody = std::numeric_limits<int>::min();

  static constinit std::atomic<int> m_nLevel;  // the highest that anybody wants
  static constinit std::atomic<int> m_nNoted;  // by all threads
};

}  // namespace VarnSupport

#endif
