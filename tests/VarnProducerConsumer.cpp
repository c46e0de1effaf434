#include <deque>

#include "LibraryTools.h"
#include "VarnSupport/VarnProducerConsumer.h"

namespace {

struct Numbers : VarnBaseSynchronizedQueue {
  void clear() override { numbers.clear(); }
  std::deque<int> numbers;  // guarded by the mutex of the work
};

class Work : public VarnBaseProducerConsumer {
 public:
  explicit Work(Numbers& queue) : VarnBaseProducerConsumer(queue), m_vNumbers(queue.numbers) {}

  void produce(int number) {
    lockSyncMutex();
    m_vNumbers.push_back(number);
    setSyncEvent();
    unlockSyncMutex();
  }
  // False when there is nothing more to come.
  bool consume(int& number) {
    lockSyncMutex();
    while (m_vNumbers.empty() && !isSentinel())
      waitForSyncEvent();
    const bool found = !m_vNumbers.empty();
    if (found) {
      number = m_vNumbers.front();
      m_vNumbers.pop_front();
    }
    unlockSyncMutex();
    return found;
  }

 private:
  std::deque<int>& m_vNumbers;
};

const std::string kDestructor = "VarnEventTimerThread::~VarnEventTimerThread: ";

class Ticker : public VarnEventTimerThread {
 public:
  explicit Ticker(VarnTimer& timer) : VarnEventTimerThread("ticker", timer) {}
  ~Ticker() override { stop(); }
  void onTimerEvent() override { ++ticks; }
  std::atomic<int> ticks{0};
};

}  // namespace

TEST(VarnProducerConsumer, ConsumersGetEveryItemOnceAndThenTheSentinel) {
  Numbers numbers;
  Work work(numbers);
  std::atomic<long> sum{0};
  std::atomic<int> count{0};
  std::atomic<int> producing{2};
  onThreads(5, [&](int thread) {
    for (int number = 0; thread >= 2 && work.consume(number);) {
      sum += number;
      ++count;
    }
    for (int i = 1; thread < 2 && i <= 1000; ++i)
      work.produce(i);
    if (thread < 2 && --producing == 0)
      work.produceSentinel(false);
  });
  EXPECT_EQ(2000, count);
  EXPECT_EQ(1001000, sum);
}

TEST(VarnProducerConsumer, TheSentinelMayClearTheQueue) {
  FileLog log(9);
  Numbers numbers;
  Work work(numbers);
  work.produce(1);
  work.produceSentinel(false);
  int number = 0;
  EXPECT_TRUE(work.consume(number));
  work.produce(2);
  work.produceSentinel(true);
  EXPECT_FALSE(work.consume(number));
  const std::string prefix = "VarnBaseProducerConsumer::produceSentinel: ";
  EXPECT_EQ(
      (Lines{prefix + "waiting for lock", prefix + "adding sentinel", prefix + "waiting for lock",
             prefix + "adding sentinel", prefix + "clearing queue"}),
      log.texts());
}

TEST(VarnEventTimerThread, RunsItsHandlerForEachSetUntilItIsStopped) {
  struct Counting : VarnTimer {
    int wait(int timeoutMs) override {
      ++waits;
      return VarnTimer::wait(timeoutMs);
    }
    std::atomic<int> waits{0};
  } timer;
  Ticker ticker(timer);
  ticker.start();
  ticker.start();
  EXPECT_TRUE(eventually([&] {
    timer.set();
    return ticker.ticks >= 3;
  }));
  ticker.stop();
  EXPECT_GE(timer.waits, 3) << "it waits as its timer does";
  const int ticks = ticker.ticks;
  timer.set();
  EXPECT_EQ(ticks, ticker.ticks);
}

TEST(VarnEventTimerThread, StopsAThreadThatHasHardlyStarted) {
  VarnTimer timer;
  for (int i = 0; i < 300; ++i) {
    Ticker ticker(timer);
    ticker.start();
    if (i % 3 == 0)
      std::this_thread::yield();
    ticker.stop();
    EXPECT_EQ(0, ticker.ticks);
  }
}

TEST(VarnEventTimerThread, TracesItsEnd) {
  FileLog log(9);
  VarnTimer timer;
  { const Ticker idle(timer); }
  EXPECT_EQ((Lines{kDestructor + "entering", kDestructor + "exiting"}), log.texts());
  {
    Ticker ticker(timer);
    ticker.start();
  }
  const Lines texts = log.texts();
  ASSERT_EQ(6U, texts.size());
  EXPECT_EQ(kDestructor + "setting exit event" + kDestructor + "waiting for thread to exit",
            texts[2] + texts[3]);
}

TEST(VarnProducerConsumer, AConsumerThatIsKilledLeavesTheWorkToTheOthers) {
  Numbers numbers;
  Work work(numbers);
  int number = 0;
  killAndJoin(*startTask([&] { work.consume(number); }));
  work.produce(7);
  EXPECT_TRUE(work.consume(number));
  EXPECT_EQ(7, number);
}

TEST(VarnProducerConsumer, TheSentinelComesThroughAlthoughTheQueueCannotBeCleared) {
  struct Stubborn : VarnBaseSynchronizedQueue {
    void clear() override { throw 1; }
  } queue;
  VarnBaseProducerConsumer rendezvous(queue);
  const auto consumer = startSleeper([&] {
    rendezvous.lockSyncMutex();
    while (!rendezvous.isSentinel())
      rendezvous.waitForSyncEvent();
    rendezvous.unlockSyncMutex();
  });
  EXPECT_THROW(rendezvous.produceSentinel(true), int);
}

TEST(VarnProducerConsumer, ASetWakesAllWhoWaitWhateverBecomesOfTheMutex) {
  struct : VarnBaseSynchronizedQueue {
    void clear() override {}
  } queue;
  VarnBaseProducerConsumer meeting(queue);
  std::atomic<int> woken{0};
  const auto lock = [&] { meeting.lockSyncMutex(); };
  const auto set = [&] { meeting.setSyncEvent(); };
  const auto lockAndSet = [&] { lock(), set(); };
  const auto unlock = [&] { meeting.unlockSyncMutex(); };
  const auto waitAndUnlock = [&] { meeting.waitForSyncEvent(), ++woken, unlock(); };
  const auto wait = [&] { lock(), waitAndUnlock(); };
  const std::pair<const char*, std::function<void()>> cases[] = {
      {"given back", [&] { lockAndSet(), unlock(); }},
      {"free", set},
      {"held by another", [&] { lock(), elsewhere([&] { return set(), true; }), unlock(); }},
      {"of a killed thread",
       [&] {
         if (kThreadSanitizer)  // sees nothing of what a thread does while it is unwound
           return set();
         std::atomic<bool> hasSet{false};
         Task holder([&]() -> int {
           lockAndSet();
           for (hasSet = true;;)
             sleepMs(1);
         });
         holder.start();
         EXPECT_TRUE(eventually([&] { return hasSet.load(); }));
         killAndJoin(holder);
       }},
      {"of a thread that forks", [&] {
         lockAndSet();
         EXPECT_EQ(0, runInBareChild([&] { return unlock(), lockAndSet(), unlock(), 0; }));
         unlock();
       }}};
  for (const auto& [mutexIs, act] : cases) {
    SCOPED_TRACE(mutexIs);
    woken = 0;
    const auto first = startSleeper(wait);
    const auto second = startSleeper(wait);
    // Waits itself once it has set, which its own set() does not end.
    const auto third = startSleeper([&] { lockAndSet(), waitAndUnlock(); });
    EXPECT_TRUE(eventually([&] { return woken == 2; }));
    const auto fourth = startSleeper(wait);
    EXPECT_EQ(2, woken);
    act();
    EXPECT_TRUE(eventually([&] { return woken == 4; }));
    lockAndSet(), unlock();
  }
}
