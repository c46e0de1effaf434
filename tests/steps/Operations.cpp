#include "Operations.h"

#include <sys/time.h>

World* world = nullptr;

namespace {

std::atomic<bool> noIntervalTimer{false};
std::atomic<bool> heldForWriting{false};
std::atomic<int> strayCalls{0};

// Runs until it may end.
struct WaitingThread : VarnThread {
  ~WaitingThread() override { waitForThreadExit(); }
  int run() override {
    while (!mayEnd)
      usleep(100);
    return 5;
  }
  std::atomic<bool> mayEnd{false};
};

// An observer of a scope. Nobody else may ever see it.
template <typename Source>
struct ScopedObserver : VarnDependent {
  explicit ScopedObserver(Source& observed) : source(observed) { source.addDependent(*this); }
  ~ScopedObserver() override { source.removeDependent(*this); }
  void handleNotification(VarnCollaborator&, const VarnNotification&) override { ++strayCalls; }
  Source& source;
};

VarnObjectBase* makeCounted() { return new Counted; }

struct ScopedRegistration : VarnObjectFactoryRegistration {
  ScopedRegistration() : VarnObjectFactoryRegistration("scoped", &world->factory) {}
  ~ScopedRegistration() override { unregister(); }
  VarnSmartPointer<VarnObjectBase> create() override { return new Counted; }
};

struct ScopedClass {
  ScopedClass() { world->factory.add("scoped", makeCounted); }
  ~ScopedClass() { world->factory.remove("scoped"); }
};

template <void (*take)(), void (*giveBack)()>
struct Hold {
  Hold() { take(); }
  ~Hold() { giveBack(); }
};

// What is done to the objects. These frames have nothing to destroy where that can be had.

long value() { return world->value; }

void lock() { world->section.lock(); }
void unlock() { world->section.unlock(); }
void lockTwice() { lock(), lock(); }
void unwind() { world->section.unwind(); }
long levels() { return world->section.lockCount(); }
void guard() { const VarnCriticalSection guard(world->section, true); }
constexpr Assistance kUnlocking{lock, unlock, true};

void writeLock() { world->readWriteLock.writeLock(); }
void writeUnLock() { world->readWriteLock.writeUnLock(); }
using ReadHold =
    Hold<[] { world->readWriteLock.readLock(); }, [] { world->readWriteLock.readUnLock(); }>;
using WriteHold = Hold<writeLock, writeUnLock>;
constexpr Assistance kWriteUnlocking{[] { writeLock(), heldForWriting = true; },
                                     [] {
                                       if (heldForWriting.exchange(false))
                                         writeUnLock();
                                     },
                                     true};

void addRef() { world->object->addRef(); }
void release() { world->object->release(); }
// A fork has held the global section, which makes the next counts take it.
void countFreely() {
  for (int i = 0; i < 1000; ++i)
    addRef(), release();
}
void releaseAll() {
  while (world->object->refCount() > 1)
    release();
}
void makeSpare() { countFreely(), world->spare = new Counted, world->spare->addRef(); }
void copyPointers() {
  const VarnSmartPointer<Counted> copy(world->object);
  VarnSmartPointer<Counted> other;
  other = copy;
}
long references() { return world->object->refCount(); }

void add() { world->source.addDependent(world->observer); }
void remove() { world->source.removeDependent(world->observer); }
void notify() { world->source.notify(world->notification); }
void addToEvent() { world->event.addDependent(world->observer); }
void removeFromEvent() { world->event.removeDependent(world->observer); }
void addToTicking() { world->ticking.addDependent(world->observer); }
void removeFromTicking() { world->ticking.removeDependent(world->observer); }
void tell() { world->source.addDependent(world->told), world->event.addDependent(world->told); }
void setEvent() { world->event.set(); }
long callsOfTold() { return world->told.calls; }
constexpr Assistance kSetting{[] {}, [] { setEvent(), world->otherEvent.set(); }, false};

void startTimer() { world->timer.start(100000, true); }
Operation ticking(const char* name, void (*run)()) {
  return Operation{name, run}.set(&Operation::awaitsTick, true);
}
// It is due, and nobody says so.
void prepareToElapse() {
  noIntervalTimer = true;
  world->timer.addDependent(world->told);
  world->timer.start(1, true);
}

void makeThreads() { world->threads = {new WaitingThread, new WaitingThread}; }
void startThreads() {
  makeThreads();
  for (VarnThread* const thread : world->threads)
    thread->start();
}
void letThreadsEnd() {
  for (VarnThread* const thread : world->threads)
    static_cast<WaitingThread*>(thread)->mayEnd = true;
}
constexpr Assistance kEnding{[] {}, letThreadsEnd, false};
Operation awaiting(const char* name, void (*run)()) {
  return Operation{name, run}.with(startThreads).giving(value, 0).assistedBy(kEnding);
}

using SyncHold =
    Hold<[] { world->meeting.lockSyncMutex(); }, [] { world->meeting.unlockSyncMutex(); }>;
void setSync() {
  const SyncHold hold;
  world->meeting.setSyncEvent();
}
void waitSync() {
  const SyncHold hold;
  world->meeting.waitForSyncEvent();
}
constexpr Assistance kSyncSetting{[] {}, setSync, false};

void begin() { world->log << setloglevel(5) << world->text << 7; }
void end() { world->log << endrecord; }
void record() { VarnLogRecord(5) << world->text << 7; }
long isWritten() { return World::isWritten("registered", "text7") ? 1 : 0; }
constexpr Assistance kRecordEnding{begin, end, true};

long propertyCount() { return static_cast<long>(world->properties.size()); }
void getProperty() { world->value = world->properties.getPropertyValue(world->key, world->output); }
void getMissing() {
  try {
    world->properties.getProperty(world->text);
  } catch (const VarnPropertyNotFound&) {
    world->value = 1;
  }
}
void removeProperties() {
  for (const char* const key : {"added", "one", "two"})
    world->properties.removeProperty(key);
}

void setDate() {
  world->value = world->date.setDateTimeFromStrImpl("Sun, 06 Nov 1994 08:49:37 GMT", world->output);
}

bool isMade(const char* name) { return world->factory.construct(name) != nullptr; }
long isAdded() { return isMade("added") ? 1 : 0; }
void addClass() { world->factory.add("added", makeCounted); }
void removeClass() { world->factory.remove("added"); }

void startProgram() { VarnExecuteProgram("/bin/true", false, &world->process, nullptr); }
void runProgram() {
  VarnExecuteProgram("/bin/false", true, nullptr, &world->process);
  world->value = world->process;
}
void forkAndUse() {
  world->process = fork();
  if (world->process == 0)
    useEverythingInChild();
}
long outcome() { return outcomeOf(world->process); }

// Sets what may have observers, all of which have been taken away.
bool isObserved() {
  const int before = world->observer.calls + world->told.calls + strayCalls;
  notify();
  setEvent();
  world->ticking.set();
  world->timer.set();
  return world->observer.calls + world->told.calls + strayCalls != before;
}

}  // namespace

// Another one, which can be made to do nothing.
extern "C" int setitimer(__itimer_which_t which, const itimerval* value,
                         itimerval* previous) noexcept {
  return noIntervalTimer ? 0 : static_cast<int>(syscall(SYS_setitimer, which, value, previous));
}

World::World(long tickMs) : ticking(tickMs, false) {
  VarnLogging::setInstance(log);
  section.init();
  properties.addProperty(key, "value");
  writeFile("properties", "# of the test\none=1\ntwo=2\n");
  pattern.setPattern("[a-c]+x");
  ticking.reset();
}

bool World::isWritten(const std::string& log, const std::string& text) {
  for (const auto& entry : std::filesystem::directory_iterator(".")) {
    if (entry.path().filename().string().starts_with(log) &&
        contains(contentsOf(entry.path().string()), "] " + text + "\n"))
      return true;
  }
  return false;
}

std::string World::restore() {
  noIntervalTimer = false;
  timer.stopAndWait();
  source.removeDependent(told);
  event.removeDependent(told);
  timer.removeDependent(told);
  letThreadsEnd();
  for (const VarnThread* const thread : threads)
    delete thread;
  threads.clear();
  factory.remove("made");
  removeProperties();
  end();
  { const SyncHold hold; }
  for (VarnCriticalSectionObject* const lock : {&section, &queue.getLock()}) {
    if (!lock->testAndSet())
      return "a section stays locked";
    lock->unwind();
  }
  if (!readWriteLock.tryWriteLock())
    return "the read-write lock stays taken";
  readWriteLock.writeUnLock();
  if (references() != 1 || Counted::alive != 1)
    return "a reference or an object is left";
  if (isObserved())
    return "an observer is left";
  if (isMade("added") || isMade("scoped") || isMade("Greeting"))
    return "an entry of the factory is left";
  if (properties.size() != 1)
    return "a property is lost";
  for (int status = 0; waitpid(-1, &status, 0) > 0;) {
    if (!WIFEXITED(status) || WEXITSTATUS(status) == kFaulty)
      return "a child ends badly";
  }
  return "";
}

const std::vector<Operation>& g_vOperations = *new std::vector<Operation>{
    Operation{"lock", lock}.undoneBy(unwind).giving(levels, 1),
    Operation{"lock-nested", lock}.with(lock).undoneBy(unwind).giving(levels, 2),
    Operation{"lock-contended", lock}.undoneBy(unwind).giving(levels, 1).assistedBy(kUnlocking),
    Operation{"unlock", unlock}.with(lock).giving(levels, 0),
    Operation{"unlock-nested", unlock}.with(lockTwice).undoneBy(unwind).giving(levels, 1),
    Operation{"test-and-set", [] { world->section.testAndSet(); }}.undoneBy(unwind),
    Operation{"guard", guard}.giving(levels, 0),
    Operation{"guard-nested", guard}.with(lock).undoneBy(unwind).giving(levels, 1),
    Operation{"guard-contended", guard}.giving(levels, 0).assistedBy(kUnlocking),
    Operation{"read-lock", [] { const ReadHold hold; }},
    Operation{"read-lock-contended", [] { const ReadHold hold; }}.assistedBy(kWriteUnlocking),
    Operation{"write-lock", [] { const WriteHold hold; }},
    Operation{"write-lock-contended", [] { const WriteHold hold; }}.assistedBy(kWriteUnlocking),
    Operation{"write-unlock", writeUnLock}.with(writeLock),
    Operation{"add-reference", addRef}.with(countFreely).undoneBy(releaseAll).giving(references, 2),
    Operation{"release", release}.with([] { countFreely(), addRef(); }).giving(references, 1),
    Operation{"release-last", [] { world->spare->release(); }}.with(makeSpare),
    Operation{"smart-pointer", copyPointers}.with(countFreely),
    Operation{"smart-pointer-after-fork", copyPointers},
    Operation{"add-dependent", add}.undoneBy(remove),
    Operation{"remove-dependent", remove}.with(add),
    Operation{"observer-scope", [] { const ScopedObserver observer(world->source); }},
    Operation{"notify", notify}.with(tell).giving(callsOfTold, 1),
    Operation{"event-add-dependent", addToEvent}.undoneBy(removeFromEvent),
    Operation{"event-set", setEvent}.with(tell).giving(callsOfTold, 1),
    Operation{"event-wait", [] { world->value = world->event.wait(-1); }}
        .giving(value, 0)
        .assistedBy(kSetting),
    Operation{"event-wait-several", [] { world->value = VarnEvent::wait(world->events, true, -1); }}
        .giving(value, 0)
        .assistedBy(kSetting),
    ticking("timer-add-dependent", addToTicking).undoneBy(removeFromTicking),
    Operation{"timer-observer-scope", [] { const ScopedObserver observer(world->timer); }},
    ticking("timer-start", startTimer),
    ticking("timer-stop", [] { world->timer.stop(); }).with(startTimer),
    ticking("timer-scope", [] { VarnTimer(1000, true).reset(); }),
    Operation{"timer-pass", [] { VarnTimerManager::getInstance().elapsed(); }}
        .with(prepareToElapse)
        .giving(callsOfTold, 1),
    Operation{"thread-start", [] { world->threads[0]->start(); }}.with(makeThreads),
    awaiting("thread-wait", [] { world->value = world->threads[0]->wait(-1); }),
    awaiting("thread-wait-timed", [] { world->value = world->threads[0]->wait(100000); }),
    awaiting("thread-wait-several",
             [] { world->value = VarnThread::wait(world->threads, true, -1); }),
    Operation{"thread-wait-expired", [] { world->value = world->threads[0]->wait(5); }}
        .with(startThreads)
        .giving(value, -2),
    Operation{"thread-kill", [] { world->threads[0]->kill(); }}.with(startThreads),
    Operation{"thread-end", nullptr},
    Operation{"thread-self-deletion", nullptr}.set(&Operation::deletesItself, true),
    Operation{"queue-sync-mutex", [] { const SyncHold hold; }},
    Operation{"queue-wait", waitSync}.assistedBy(kSyncSetting),
    Operation{"queue-set", setSync},
    Operation{"queue-sentinel", [] { world->meeting.produceSentinel(true); }},
    Operation{"queue-guard", [] { const VarnCriticalSection guard(world->queue.getLock(), true); }},
    Operation{"log-record", record}.giving(isWritten, 1),
    Operation{"log-record-contended", record}.giving(isWritten, 1).assistedBy(kRecordEnding),
    Operation{"log-manipulators", [] { begin(), end(); }}.giving(isWritten, 1),
    Operation{"log-flush", [] { world->log.timerElapsed(); }}.with(begin).giving(isWritten, 1),
    Operation{"property-get", getProperty}.giving(value, 1),
    Operation{"property-missing", getMissing}.giving(value, 1),
    Operation{"property-add", [] { world->properties.addProperty("added", world->text); }}
        .undoneBy(removeProperties)
        .giving(propertyCount, 2),
    Operation{"property-load", [] { world->properties.loadProperties("properties", '='); }}
        .undoneBy(removeProperties)
        .giving(propertyCount, 3),
    Operation{"pattern-find", [] { world->value = world->pattern.find(world->input, 0U); }}
        .with([] { world->input = "abcx and more"; })
        .giving(value, 0),
    Operation{"pattern-set", [] { world->pattern.setPattern(world->input); }}.with(
        [] { world->input = "[a-c]+x"; }),
    Operation{"date-set", setDate}.giving(value, 1),
    Operation{"date-text", [] { world->date.toGMTString(); }},
    Operation{"factory-add", addClass}.undoneBy(removeClass).giving(isAdded, 1),
    Operation{"factory-class-scope", [] { const ScopedClass added; }},
    Operation{"factory-registration-scope", [] { const ScopedRegistration registration; }},
    Operation{"factory-construct", [] { world->factory.construct("made"); }}.with(
        [] { world->factory.add("made", makeCounted); }),
    Operation{"factory-remove", removeClass}.with(addClass).giving(isAdded, 0),
    Operation{"library-scope", [] { const VarnLibrary library(VSUPT_STEPS_PLUGIN, true); }}.set(
        &Operation::locksExit, true),
    Operation{"program-start", startProgram}.giving(outcome, 0),
    Operation{"program-run", runProgram}.giving(value, 1),
    Operation{"fork", forkAndUse}.giving(outcome, kExitCode),
    Operation{"exception", [] { const VarnException exception(world->text, 5); }},
};
