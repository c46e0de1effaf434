#include "VarnSupport/VarnEvent.h"
#include "LibraryTools.h"

TEST(VarnEvent, FiniteWaitsEndAtOnceByTheirWrappedNanoseconds) {
  VarnEvent event;
  const std::pair<int, int> cases[] = {{0, -2},    {1, -2},    {500, -2},
                                       {999, -2},  {1000, -3}, {1500, -3},
                                       {5000, -2}, {-2, -3},   {2147483647, -3}};
  for (const auto& [timeoutMs, result] : cases)
    EXPECT_EQ(result, event.wait(timeoutMs)) << timeoutMs;
}

TEST(VarnEvent, WaitsForTheNextSetAndForgetsEarlierOnes) {
  VarnEvent event;
  event.set();
  std::atomic<bool> woken{false};
  const auto waiter = startSleeper([&] {
    EXPECT_EQ(0, event.wait(-1));
    woken = true;
  });
  for (int i = 0; i < 50; ++i) {
    event.reset();  // strands nobody
    sleepMs(1);
  }
  EXPECT_FALSE(woken);
  event.set();
}

TEST(VarnEvent, WakesWhoeverWaitsOnItsHandle) {
  struct Handle {
    pthread_cond_t condition;
    pthread_mutex_t mutex;
  };
  VarnEvent event;
  auto* const handle = static_cast<Handle*>(event.getHandle());
  const auto waiter = startSleeper([handle] {
    pthread_mutex_lock(&handle->mutex);
    pthread_cond_wait(&handle->condition, &handle->mutex);
    pthread_mutex_unlock(&handle->mutex);
  });
  pthread_mutex_lock(&handle->mutex);  // the event does not need it
  event.set();
  pthread_mutex_unlock(&handle->mutex);
}

TEST(VarnEvent, TellsDependentsBeforeItWakesWaiters) {
  VarnEvent event;
  Observer observer(event, [&](const auto&, const VarnNotification& notification) {
    EXPECT_EQ(1, notification.getId());
    sleepMs(20);
  });
  const auto waiter = startSleeper([&] {
    event.wait(-1);
    EXPECT_EQ(1, observer.calls);
  });
  event.set();
}

TEST(VarnEvent, SendsAndReclaimsWhatADerivedEventCreates) {
  struct Rich : VarnEvent {
    VarnNotification* createNotification() override { return new PropertyChanged("level"); }
    void destroyNotification(VarnNotification* notification) override {
      ++reclaimed;
      VarnEvent::destroyNotification(notification);
    }
    int reclaimed = 0;
  } event;
  const Observer observer(event, [](const auto&, const VarnNotification& notification) {
    EXPECT_EQ(2, notification.getId());
    EXPECT_EQ("level", dynamic_cast<const PropertyChanged&>(notification).getName());
  });
  event.set();
  EXPECT_EQ(1, observer.calls);
  EXPECT_EQ(1, event.reclaimed);
  event.destroyNotification(nullptr);
}

TEST(VarnEvent, MayBeDestroyedByItsOwnDependent) {
  auto event = std::make_unique<VarnEvent>();
  const Observer destroyer(*event, [&] { event.reset(); });
  const Observer never(*event);
  event->set();
  EXPECT_EQ(nullptr, event);
  EXPECT_EQ(0, never.calls);
}

// A thread that is about to wait may come after the destructor, in exit().
TEST(VarnEvent, LeavesItsMemoryWhereItIsWhenItIsStatic) {
  static std::optional<VarnEvent> event(std::in_place);
  static void* const handle = event->getHandle();
  event.reset();
  const auto others = std::make_unique<std::array<VarnEvent, 8>>();
  EXPECT_TRUE(std::none_of(others->begin(), others->end(),
                           [](VarnEvent& other) { return other.getHandle() == handle; }));
}

TEST(VarnEvent, AnEmptySetOfEventsIsCompleteAtOnceButHasNoFirst) {
  std::vector<VarnEvent*> none;
  EXPECT_EQ(0, VarnEvent::wait(none, true, -1));
  EXPECT_EQ(-2, VarnEvent::wait(none, false, 1));
  EXPECT_EQ(0, VarnEvent::wait(0, nullptr, true, -1));
  EXPECT_EQ(-2, VarnEvent::wait(-3, nullptr, false, 1));
}

// One that keeps a state waits until that is as it wants it.
TEST(VarnEvent, AWaitForSeveralLeavesEachEventItsOwnWay) {
  struct Latched : VarnEvent {
    int wait(int timeoutMs) override {
      while (!on) {
        ++turns;
        VarnEvent::wait(timeoutMs);
      }
      return 0;
    }
    std::atomic<bool> on{false};
    std::atomic<int> turns{0};
  } first, never;
  const std::jthread setter([&] {
    for (int i = 0; i < 3; ++i) {
      eventually([&] { return first.turns == i + 1; });
      first.on = i == 2;
      first.set();
    }
  });
  std::vector<VarnEvent*> events{&never, &first};
  EXPECT_EQ(1, VarnEvent::wait(events, false, -1));
  EXPECT_EQ(3, first.turns);
  EXPECT_LE(never.turns, 1);
}
