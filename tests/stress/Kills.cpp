// Threads that are killed at any moment of what they do.

#include "LibraryTools.h"

namespace {

// Runs its body for ever, in its own frame nothing that could be torn.
struct Victim : VarnThread {
  explicit Victim(std::function<void()> turn) : m_oTurn(std::move(turn)) {}
  ~Victim() override { waitForThreadExit(); }
  int run() override {
    for (;;) {
      m_oTurn();
      ++turns;
    }
  }
  std::atomic<long> turns{0};

 private:
  std::function<void()> m_oTurn;
};

using Product = VarnWorkInformation;

struct Registration : VarnObjectFactoryRegistration {
  explicit Registration(VarnObjectFactory& factory)
      : VarnObjectFactoryRegistration("class", &factory) {}
  ~Registration() override { unregister(); }
  VarnSmartPointer<VarnObjectBase> create() override { return new Product; }
};

// What threads work with, and what must be as if there had been none when they are dead.
struct World {
  VarnCriticalSectionObject section;
  VarnSmartPointer<Product> counted{new Product};
  VarnCollaborator collaborator;
  VarnEvent event;
  VarnTimer timer{3600000, false};
  VarnObjectFactory factory;
  VarnProperties<std::string> properties;
  struct Queue : VarnBaseSynchronizedQueue {
    void clear() override {}
  } queue;
  VarnBaseProducerConsumer rendezvous{queue};
  VarnLockFactory<std::string, VarnMutexObject> locks;

  // The first thing that a dead thread has left; empty when there is nothing.
  std::string remains() {
    int calls = 0;
    Observer witness(collaborator, [&] { ++calls; });
    collaborator.notify(VarnNotification());
    const bool alone = calls == 1;
    collaborator.removeDependent(witness);
    event.set();
    timer.set();
    timer.stopAndWait();
    const bool isFree = elsewhere([&] {
      const bool taken = section.testAndSet();
      section.unwind();
      rendezvous.lockSyncMutex();
      rendezvous.unlockSyncMutex();
      return taken;
    });
    if (!isFree)
      return "a lock";
    if (!alone)
      return "an observer";
    if (counted->refCount() != 1)
      return "a reference";
    return factory.getRegisteredClasses().empty() ? "" : "a registration";
  }
};

// An observer for as long as it exists, as a member of a class would be.
template <typename Source>
class Subscription : public VarnDependent {
 public:
  explicit Subscription(Source& source) : m_oSource(source) { m_oSource.addDependent(*this); }
  ~Subscription() override { m_oSource.removeDependent(*this); }

 private:
  Source& m_oSource;
};

// Kills a thread that repeats `turn` over and over; an error's text comes out.
std::string killManyTimes(const std::function<void(World&)>& turn) {
  std::mt19937 random(3);
  for (int round = 0; round < 40; ++round) {
    World world;
    Victim victim([&] { turn(world); });
    victim.start();
    if (!eventually([&] { return victim.turns > 2; }))
      return "it does not run";
    spin(static_cast<unsigned>(random() % 3000));
    const pthread_t thread = *static_cast<pthread_t*>(victim.getHandle());
    victim.kill();
    if (!eventually([&] { return pthread_tryjoin_np(thread, nullptr) == 0; }))
      return "it lives on";
    const std::string rest = world.remains();
    if (!rest.empty())
      return "it left " + rest;
  }
  return "";
}

struct Case {
  const char* name;
  std::function<void(World&)> turn;
};

const Case kCases[] = {
    {"lock",
     [](World& world) {
       world.section.lock();
       world.section.unlock();
     }},
    {"guards in each other",
     [](World& world) {
       std::optional<VarnCriticalSection> member(std::in_place, world.section, true);
       const VarnCriticalSection inner(world.section, true);
     }},
    {"a section of its own", [](World&) { VarnCriticalSectionObject().lockCount(); }},
    {"copies of a pointer",
     [](World& world) {
       const VarnSmartPointer<Product> copy(world.counted);
       const VarnSmartPointer<Product> another(copy);
     }},
    {"an observer", [](World& world) { const Subscription subscription(world.collaborator); }},
    {"an observer of an event", [](World& world) { const Subscription subscription(world.event); }},
    {"an observer of a timer", [](World& world) { const Subscription subscription(world.timer); }},
    {"notify", [](World& world) { world.collaborator.notify(VarnNotification()); }},
    {"set", [](World& world) { world.event.set(); }},
    {"start and stop of a timer",
     [](World& world) {
       world.timer.reset();
       world.timer.stop();
     }},
    {"a registration", [](World& world) { const Registration registration(world.factory); }},
    {"looks at a factory", [](World& world) { world.factory.getRegisteredClasses(); }},
    {"named locks",
     [](World& world) {
       VarnMutexObject* found = nullptr;
       world.locks.createLock("a");
       world.locks.getImpl("a", found);
       world.locks.exists("b");
     }},
    {"a record", [](World&) { VarnLogRecord(0) << "a record of " << 1; }},
    {"a suppressed record", [](World&) { const VarnLogRecord record(1); }},
    {"properties",
     [](World& world) {
       world.properties.addProperty("key", "value");
       world.properties.getProperty("key");
     }},
    {"a pattern",
     [](World&) {
       VarnRegularExpression<std::string> pattern;
       pattern.setPattern("a+b");
       pattern.find("aaab", 0);
     }},
    {"a date", [](World&) { VarnDateTime().toGMTString(); }},
    {"the lock of a rendezvous",
     [](World& world) {
       world.rendezvous.lockSyncMutex();
       world.rendezvous.setSyncEvent();
       world.rendezvous.unlockSyncMutex();
     }},
    {"a thread",
     [](World&) {
       VarnThread thread("brief");
       thread.start();
       thread.wait(-1);
     }},
    {"an exception",
     [](World&) {
       try {
         throw VarnException("thrown", 1);
       } catch (const VarnException&) {
       }
     }},
    {"a guard in handlers in each other",
     [](World& world) {
       try {
         throw VarnException("thrown", 1);
       } catch (const VarnException&) {
         try {
           const VarnCriticalSection guard(world.section, true);
         } catch (...) {
           throw;
         }
       }
     }},
    {"containers, between operations",
     [](World& world) {
       std::map<int, std::string> map;
       for (int i = 0; i < 20; ++i)
         map[i * 7 % 20] = std::string(40, 'x');
       const VarnSmartPointer<Product> copy(world.counted);
     }},
};

// Each case in a process of its own, with a log.
void inChildren(void (*use)(const Case& example)) {
  for (const Case& example : kCases) {
    SCOPED_TRACE(example.name);
    expectInChild([&] {
      VarnLogging log("", 0, 0);
      VarnLogging::setInstance(log);
      use(example);
    });
  }
}

}  // namespace

TEST(KillStress, AKilledThreadEndsAndLeavesNothing) {
  inChildren([](const Case& example) { EXPECT_EQ("", killManyTimes(example.turn)); });
}

// Where no signal can interrupt the thread, the operation itself has to look for the request.
TEST(KillStress, EveryOperationNoticesThatItsThreadIsToEnd) {
  if (kThreadSanitizer)
    return;  // the platform cancels threads there
  inChildren([](const Case& example) {
    World world;
    Victim victim([&] {
      sigset_t signals;
      sigemptyset(&signals);
      sigaddset(&signals, SIGUSR2);
      pthread_sigmask(SIG_BLOCK, &signals, nullptr);
      for (;;)
        example.turn(world);
    });
    victim.start();
    const pthread_t thread = *static_cast<pthread_t*>(victim.getHandle());
    sleepMs(1);
    victim.kill();
    if (!eventually([&] { return pthread_tryjoin_np(thread, nullptr) == 0; }))
      _exit(1);
  });
}

TEST(KillStress, AThreadKilledWhileItWaitsForALockNeverHasIt) {
  VarnReadWriteLock rwLock;
  VarnCriticalSectionObject section;
  const std::function<void()> waits[] = {[&] { rwLock.writeLock(); }, [&] { rwLock.readLock(); },
                                         [&] { section.lock(); }};
  for (const auto& wait : waits) {
    rwLock.writeLock();
    section.lock();
    std::atomic<bool> hasIt{false};
    const auto victim = startTask([&] {
      wait();
      hasIt = true;
    });
    const pthread_t thread = *static_cast<pthread_t*>(victim->getHandle());
    victim->kill();
    rwLock.writeUnLock();
    section.unlock();
    EXPECT_EQ(0, pthread_join(thread, nullptr));
    EXPECT_FALSE(hasIt);
    EXPECT_FALSE(victim->isAlive());
    EXPECT_EQ(-1, victim->getExitCode());
    EXPECT_EQ(0, victim->wait(-1));
    EXPECT_TRUE(elsewhere([&] {
      const bool isFree = rwLock.tryWriteLock() && section.testAndSet();
      rwLock.writeUnLock();
      section.unwind();
      return isFree;
    }));
  }
}
