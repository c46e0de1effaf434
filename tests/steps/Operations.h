// The operations that are stepped through, and the objects that they are done with.
#ifndef TESTS_STEPS_OPERATIONS_H
#define TESTS_STEPS_OPERATIONS_H

#include "LibraryTools.h"
#include "Slot.h"
#include "TestTools.h"
#include "VarnSupport/VarnSupport.h"

// What another thread does for an operation that sleeps: something before it, and something again
// and again, for some also when the thread is killed, until it goes on.
struct Assistance {
  void (*before)();
  void (*often)();
  bool forKilled;
};

// Null functions do nothing.
struct Operation {
  const char* name;
  void (*run)();  // is stepped; null: the thread's own end is
  void (*prepare)() = nullptr;
  void (*undo)() = nullptr;  // on any thread, whether run() came to its end or not
  long (*result)() = nullptr;
  long expected = 0;
  const Assistance* assistance = nullptr;
  bool awaitsTick = false;     // the child of a fork, for a timer that was running
  bool deletesItself = false;  // the thread does
  bool locksExit = false;      // for ever, in the child of a fork: the platform's exit()

  Operation with(void (*preparation)()) const { return set(&Operation::prepare, preparation); }
  Operation undoneBy(void (*action)()) const { return set(&Operation::undo, action); }
  Operation assistedBy(const Assistance& other) const {
    return set(&Operation::assistance, &other);
  }
  Operation giving(long (*what)(), long value) const {
    return set(&Operation::result, what).set(&Operation::expected, value);
  }
  template <typename Member>
  Operation set(Member Operation::*member, Member value) const {
    Operation copy = *this;
    copy.*member = value;
    return copy;
  }
};

struct Counted : VarnObjectBase {
  Counted() { ++alive; }
  ~Counted() override { --alive; }
  static inline std::atomic<int> alive{0};
};

struct World {
  explicit World(long tickMs);
  // Whether the file of a log has a record of that text.
  static bool isWritten(const std::string& log, const std::string& text);
  // Takes away what was prepared, and says what else is not as at the beginning.
  std::string restore();

  struct Queue : VarnBaseSynchronizedQueue {
    void clear() override {}
  };

  std::atomic<long> value{0};
  std::string text = "text";
  std::string key = "key";
  std::string input;
  std::string output;
  VarnLogging log{"registered.log", VarnLogging::kToFile, 5};
  VarnLogging otherLog{"other.log", VarnLogging::kToFile, 5};
  VarnCriticalSectionObject section;
  VarnReadWriteLock readWriteLock;
  VarnSmartPointer<Counted> object{new Counted};
  Counted* spare = nullptr;
  VarnNotification notification;
  VarnCollaborator source;
  VarnEvent event;
  VarnEvent otherEvent;
  std::vector<VarnEvent*> events{&event, &otherEvent};
  VarnTimer timer{100000, true};
  VarnTimer ticking;  // runs, and sets the ticks
  Observer observer;
  Observer told;
  Observer ticks{ticking};
  std::vector<VarnThread*> threads;
  Queue queue;
  VarnBaseProducerConsumer meeting{queue};
  VarnProperties<std::string> properties;
  VarnRegularExpression<std::string> pattern;
  VarnDateTime date;
  VarnObjectFactory& factory = *VarnObjectFactory::getGlobalInstance();
  int process = 0;
};

extern World* world;
extern const std::vector<Operation>& g_vOperations;  // never destroyed

// The process of a point: the operation on one thread, the mode's action on another.
[[noreturn]] void performOperation(const Operation& operation, int mode, Slot& slot);
// Uses every family in the child of a fork, which then ends with kExitCode.
[[noreturn]] void useEverythingInChild();

#endif
