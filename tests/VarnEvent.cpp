#include "VarnSupport/VarnEvent.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include "TestTools.h"

using namespace VarnSupport;
using namespace TestTools;

namespace {

class Observer : public VarnDependent {
 public:
  explicit Observer(std::function<void(const VarnNotification&)> handler)
      : m_oHandler(std::move(handler)) {}
  void handleNotification(VarnCollaborator&, const VarnNotification& notification) override {
    m_oHandler(notification);
  }

 private:
  std::function<void(const VarnNotification&)> m_oHandler;
};

// Sets events again and again until told to stop: a set that finds nobody is not remembered.
class Setter {
 public:
  explicit Setter(std::vector<VarnEvent*> events)
      : m_oThread([this, events] {
          while (!m_bStop) {
            for (VarnEvent* const event : events)
              event->set();
            sleepMs(1);
          }
        }) {}
  ~Setter() {
    m_bStop = true;
    m_oThread.join();
  }

 private:
  std::atomic<bool> m_bStop{false};
  std::thread m_oThread;
};

}  // namespace

TEST(VarnEvent, FiniteWaitsEndAtOnceByTheirWrappedNanoseconds) {
  VarnEvent event;
  const struct {
    int timeoutMs;
    int result;
  } cases[] = {{0, -2},    {1, -2},    {500, -2}, {999, -2},       {1000, -3},
               {1500, -3}, {5000, -2}, {-2, -3},  {2147483647, -3}};
  for (const auto& c : cases)
    EXPECT_EQ(c.result, event.wait(c.timeoutMs)) << c.timeoutMs;
}

TEST(VarnEvent, WaitsForTheNextSetAndForgetsEarlierOnes) {
  VarnEvent event;
  event.set();
  std::atomic<bool> woken{false};
  std::thread waiter([&] {
    EXPECT_EQ(0, event.wait(-1));
    woken = true;
  });
  sleepMs(50);
  EXPECT_FALSE(woken);
  {
    const Setter setter({&event});
    EXPECT_TRUE(eventually([&] { return woken.load(); }));
  }
  waiter.join();
}

TEST(VarnEvent, TellsDependentsBeforeItWakesWaiters) {
  VarnEvent event;
  std::atomic<int> told{0};
  Observer observer([&](const VarnNotification& notification) {
    EXPECT_EQ(1, notification.getId());
    sleepMs(20);
    ++told;
  });
  event.addDependent(observer);
  std::thread waiter([&] {
    event.wait(-1);
    EXPECT_GE(told, 1);
  });
  {
    const Setter setter({&event});
    waiter.join();
  }
  event.removeDependent(observer);
  const int before = told;
  event.set();
  EXPECT_EQ(before, told);
}

TEST(VarnEvent, SendsAndReclaimsWhatADerivedEventCreates) {
  struct Rich : VarnEvent {
    VarnNotification* createNotification() override { return new VarnNotification(42); }
    void destroyNotification(VarnNotification* notification) override {
      ++reclaimed;
      VarnEvent::destroyNotification(notification);
    }
    int reclaimed = 0;
  } event;
  int seen = 0;
  Observer observer([&](const VarnNotification& notification) { seen = notification.getId(); });
  event.addDependent(observer);
  event.set();
  EXPECT_EQ(42, seen);
  EXPECT_EQ(1, event.reclaimed);
  event.destroyNotification(nullptr);
}

TEST(VarnEvent, MayBeDestroyedByItsOwnDependent) {
  auto event = std::make_unique<VarnEvent>();
  int later = 0;
  Observer destroyer([&](const VarnNotification&) { event.reset(); });
  Observer never([&](const VarnNotification&) { ++later; });
  event->addDependent(destroyer);
  event->addDependent(never);
  event->set();
  EXPECT_EQ(nullptr, event);
  EXPECT_EQ(0, later);
}

TEST(VarnEvent, ResetDoesNotStrandAWaiter) {
  VarnEvent event;
  EXPECT_NE(nullptr, event.getHandle());
  std::atomic<bool> woken{false};
  std::thread waiter([&] {
    event.wait(-1);
    woken = true;
  });
  for (int i = 0; i < 50; ++i) {
    event.reset();
    sleepMs(1);
  }
  {
    const Setter setter({&event});
    EXPECT_TRUE(eventually([&] { return woken.load(); }));
  }
  waiter.join();
}

TEST(VarnEvent, WaitsForAllOrTheFirstOfSeveral) {
  VarnEvent events[3];
  std::vector<VarnEvent*> pointers{&events[0], &events[1], &events[2]};
  {
    const Setter setter({&events[1]});
    EXPECT_EQ(1, VarnEvent::wait(3, events, false, -1));
  }
  const Setter setter(pointers);
  EXPECT_EQ(0, VarnEvent::wait(pointers, true, -1));
}

TEST(VarnEvent, FiniteWaitsForSeveralEndAtOnceToo) {
  VarnEvent events[3];
  EXPECT_EQ(0, VarnEvent::wait(3, events, true, 20000));
  EXPECT_GE(VarnEvent::wait(3, events, false, 20000), 0);
}

TEST(VarnEvent, AnEmptySetOfEventsIsCompleteAtOnceButHasNoFirst) {
  std::vector<VarnEvent*> none;
  EXPECT_EQ(0, VarnEvent::wait(none, true, -1));
  EXPECT_EQ(-2, VarnEvent::wait(none, false, 1));
  EXPECT_EQ(0, VarnEvent::wait(0, nullptr, true, -1));
  EXPECT_EQ(-2, VarnEvent::wait(-3, nullptr, false, 1));
}
