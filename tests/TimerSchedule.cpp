// The schedule of the timers beside a sorted list, on a clock of its own.
#include "time/TimerSchedule.h"

#include <list>

#include "TestTools.h"
#include "VarnSupport/VarnTimer.h"

namespace {

struct Entry {
  VarnTimer* timer;
  std::int64_t deadline;
  bool waits;
  TimerSchedule::Slot slot;
};

// Sorted by deadline; a new entry stands in front of those of its second.
struct SortedList : std::list<Entry> {
  void add(const Entry& entry) {
    insert(std::find_if(begin(), end(),
                        [&](const Entry& other) { return entry.deadline <= other.deadline; }),
           entry);
  }
  iterator firstDue(std::int64_t now) {
    return std::find_if(begin(), end(),
                        [&](const Entry& entry) { return !entry.waits && entry.deadline <= now; });
  }
};

}  // namespace

TEST(TimerSchedule, AgreesWithASortedList) {
  Random random;
  const auto below = [&](std::size_t limit) { return static_cast<int>(random() % limit); };
  std::vector<VarnTimer> timers(200);
  std::vector<VarnTimer*> idle;
  for (VarnTimer& timer : timers)
    idle.push_back(&timer);
  TimerSchedule schedule;
  SortedList list;
  std::int64_t now = INT32_MAX - 1000;  // goes beyond 2038
  for (int step = 0; step < 10000; ++step) {
    const int what = below(8);
    if (what < 3 && !idle.empty()) {
      Entry entry{idle.back(), now + (below(20) == 0 ? INT32_MAX : below(20)), below(4) == 0, 0};
      idle.pop_back();
      entry.slot = schedule.insert(*entry.timer, entry.deadline, entry.waits);
      list.add(entry);
    } else if (what == 3 && !list.empty()) {
      const auto any = std::next(list.begin(), below(list.size()));
      schedule.remove(any->slot);
      idle.push_back(any->timer);
      list.erase(any);
    } else if (what == 4) {
      int released = 0;
      schedule.endRound([&](VarnTimer&) { ++released; });
      for (Entry& entry : list)
        released -= std::exchange(entry.waits, false) ? 1 : 0;
      ASSERT_EQ(0, released);
      ASSERT_EQ(list.empty(), schedule.isEmpty());
      if (!list.empty()) {
        ASSERT_EQ(list.front().timer, &schedule.first());
        ASSERT_EQ(list.front().deadline, schedule.firstDeadline());
      }
    } else if (what == 5) {
      const int seconds = below(5) - 2;
      schedule.moveBy(seconds);
      for (Entry& entry : list)
        entry.deadline += seconds;
    } else if (what > 5) {
      now += below(3);
      const auto due = list.firstDue(now);
      ASSERT_EQ(due == list.end() ? nullptr : due->timer, schedule.firstDue(now));
      if (due != list.end()) {
        Entry entry = *due;
        list.erase(due);
        entry.deadline = now + below(5);
        entry.waits = true;
        schedule.repeat(entry.slot, entry.deadline);
        list.add(entry);
      }
    }
  }
}
