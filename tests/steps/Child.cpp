// The process of one point: a thread that is stepped while it does an operation, and the main
// thread, which acts meanwhile and looks at what is left.
#include <sched.h>
#include <sys/ptrace.h>

#include "Operations.h"

namespace {

constexpr std::chrono::seconds kLimit{5};  // for what takes no time
constexpr int kThreadResult = 7;
constexpr int kExitTakesUs = 10000;

std::atomic<int> allocations{0};
const Operation* operation = nullptr;
Slot* slot = nullptr;
bool exitTakesLong = false;

// Where the thread that does the operation is. Not in its object, which it may delete.
std::atomic<pid_t> thread{0};
std::atomic<bool> isPrepared{false};
std::atomic<bool> mayBegin{false};
std::atomic<bool> isFinished{false};
std::atomic<bool> isRight{true};

void require(bool holds, const std::string& fault) {
  if (holds)
    return;
  std::snprintf(slot->text, sizeof slot->text, "%s", fault.c_str());
  _exit(kFaulty);
}

void at(const char* stage) { std::snprintf(slot->stage, sizeof slot->stage, "%s", stage); }

void awaitThat(const char* stage, const std::function<bool()>& condition) {
  at(stage);
  require(eventually(condition, kLimit), std::string("never ends: ") + stage);
}

void call(void (*function)()) {
  if (function != nullptr)
    function();
}

bool isGone() { return access(("/proc/self/task/" + std::to_string(thread)).c_str(), F_OK) != 0; }

void assist() {
  if (operation->assistance != nullptr && sleepsForAnother(getpid(), thread))
    operation->assistance->often();
}

// Does the operation. It may be stepped, from a breakpoint on, and rest afterwards until killed.
class Performer : public VarnThread {
 public:
  Performer(bool stepped, bool rests) : m_bStepped(stepped), m_bRests(rests) {}
  ~Performer() override { waitForThreadExit(); }

  // This frame has nothing to destroy: it can be unwound at every instruction.
  int run() override {
    thread = gettid();
    world->value = -1;
    world->told.calls = 0;
    call(operation->prepare);
    isPrepared = true;
    while (!mayBegin)
      usleep(50);
    if (m_bStepped) {
      if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0)
        _exit(kNotAllowed);
      asm volatile("int3");
    }
    if (operation->run == nullptr && !(m_bRests && !m_bStepped))
      return kThreadResult;
    call(operation->run);
    isFinished = true;
    slot->finished = m_bStepped;
    while (m_bRests)
      usleep(100);
    isRight = operation->result == nullptr || operation->result() == operation->expected;
    call(operation->undo);
    return kThreadResult;
  }

 private:
  bool m_bStepped;
  bool m_bRests;
};

Performer* start(bool stepped, bool rests) {
  isPrepared = mayBegin = isFinished = false;
  auto* const performer = new Performer(stepped, rests);
  if (operation->deletesItself)
    performer->setMarkForDeath();
  performer->start();
  awaitThat("the preparation", [] { return isPrepared.load(); });
  if (operation->assistance != nullptr)
    operation->assistance->before();
  mayBegin = true;
  return performer;
}

void restore() {
  at("the look at what is left");
  const std::string fault = world->restore();
  require(fault.empty(), fault);
}

void complete(Performer* performer) {
  awaitThat("the end of the thread", [] { return assist(), isGone(); });
  require(isRight, "a wrong result");
  require(operation->deletesItself || performer->getExitCode() == kThreadResult,
          "a wrong exit code");
  if (!operation->deletesItself)
    delete performer;
  restore();
}

void completeKilled(Performer* performer) {
  awaitThat("the end of the killed thread", [] {
    if (operation->assistance != nullptr && operation->assistance->forKilled)
      assist();
    return isGone();
  });
  at("the destruction of the killed thread");
  delete performer;
  if (operation->assistance != nullptr)
    operation->assistance->often();
  call(operation->undo);
  restore();
}

void killAtRest() {
  Performer* const performer = start(false, true);
  awaitThat("the operation", [] { return assist(), isFinished.load(); });
  performer->kill();
  completeKilled(performer);
}

// Allocations, descriptors and threads, once they have come to rest.
int countResources() {
  for (int count = -1;; sleepMs(2)) {
    const int before = count;
    count = allocations + entriesIn("/proc/self/fd") + entriesIn("/proc/self/task");
    if (count == before)
      return count;
  }
}

// Finds usable what all threads of a process share.
void useShared() {
  at("the global sections");
  for (VarnCriticalSectionObject* const section : {g_pCriticalSection, &g_exitThreadLock})
    const VarnCriticalSection guard(*section, true);
  at("records");
  const std::string text = "of process " + std::to_string(getpid());
  VarnLogRecord(5) << text;
  world->otherLog << setloglevel(5) << text << endrecord;
  for (const char* const log : {"registered", "other"})
    require(World::isWritten(log, text), "a record is missing");
  at("the factory");
  world->factory.add("shared", [] { return static_cast<VarnObjectBase*>(new Counted); });
  const VarnSmartPointer<VarnObjectBase> made = world->factory.construct("shared");
  const VarnSmartPointer<VarnObjectBase> copy = made;
  require(copy != nullptr && copy->refCount() == 2, "nothing is made");
  VarnTimer timer(1, true);
  const Observer flag(timer);
  timer.reset();
  awaitThat("a timer", [&] { return flag.calls > 0; });
}

struct Service : VarnService {
  bool onStart(const std::string&) override { return true; }
  void onStop() override { isStopped = true; }
  std::atomic<bool> isStopped{false};
};

template <typename Body>
struct Thread : VarnThread {
  explicit Thread(Body given) : body(given) { start(); }
  ~Thread() override { waitForThreadExit(); }
  int run() override { return body(), 0; }
  Body body;
};

void actWithSignals(int mode) {
  for (const int signal : {SIGALRM, SIGUSR1, SIGUSR2})
    mode == SIGNALS ? tgkill(getpid(), thread, signal) : kill(getpid(), signal);
}

void actWithFork() {
  const pid_t child = fork();
  if (child == 0)
    useEverythingInChild();
  slot->action = Slot::DONE;
  int status = 0;
  const bool ended =
      eventually([&] { return waitpid(child, &status, WNOHANG) == child; }, kLimit + kLimit);
  require(ended, std::string("the child never ends: ") + slot->stage);
  if (WIFEXITED(status) && WEXITSTATUS(status) == kFaulty)
    _exit(kFaulty);
  require(WIFEXITED(status) && WEXITSTATUS(status) == kExitCode,
          std::string("the child ends badly: ") + slot->stage);
}

[[noreturn]] void act(int mode, Performer* performer, int before) {
  at("the action");
  slot->action = Slot::UNDER_WAY;
  exitTakesLong = mode == EXIT_HELD;
  if (mode == EXIT || mode == EXIT_HELD)
    std::exit(kExitCode);
  if (mode == KILL || mode == KILL_HELD) {
    performer->kill();
    slot->action = Slot::DONE;
    completeKilled(performer);
    int lost = 0;
    const auto isNothingLost = [&] { return (lost = countResources() - before - slot->left) <= 0; };
    const bool isWhole = eventually(isNothingLost, std::chrono::seconds(1));
    require(isWhole, std::to_string(lost) + " allocations, descriptors or threads are lost");
  } else {
    mode == FORK ? actWithFork() : actWithSignals(mode);
    slot->action = Slot::DONE;
    complete(performer);
  }
  useShared();
  complete(start(false, false));
  _exit(0);
}

// Steps take long, and what happens once in a second is not to happen among them.
void awaitSecond() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  usleep(static_cast<useconds_t>(1010000 - now.tv_nsec / 1000));
  complete(start(false, false));
}

}  // namespace

void useEverythingInChild() {
  useShared();
  at("a wait with a time-out");
  std::atomic<bool> isSet{false};
  {
    Thread waited([&] { eventually([&] { return isSet.load(); }); });
    require(waited.wait(5) == -2, "a wait with a time-out fails");
    isSet = true;
  }
  isSet = false;
  Thread waiting([&] { world->otherEvent.wait(-1), isSet = true; });
  awaitThat("an event", [&] { return world->otherEvent.set(), isSet.load(); });
  at("an event that may be in use");
  world->event.set();
  const int ticks = world->ticks.calls;
  if (operation->awaitsTick)
    awaitThat("a timer that was running", [&] { return world->ticks.calls > ticks; });
  at("a service");
  Service service;
  Thread stopping([&] {
    struct sigaction action {};
    eventually([&] {
      sigaction(SIGTERM, nullptr, &action);
      return service.state() == 0 && action.sa_handler != SIG_DFL;
    });
    kill(getpid(), SIGTERM);
  });
  service.start("", false);
  require(service.isStopped, "the service is not stopped");
  waiting.waitForThreadExit();
  stopping.waitForThreadExit();
  at("exit()");
  operation->locksExit ? _exit(kExitCode) : std::exit(kExitCode);
}

void performOperation(const Operation& chosen, int mode, Slot& shared) {
  slot = &shared;
  operation = &chosen;
  const bool isKill = mode == KILL || mode == KILL_HELD;
  // In the child it ticks, before not: steps may take longer than a second.
  world = new World(mode == FORK ? 3000 : 1000000000);
  useShared();
  complete(start(false, false));
  if (isKill || (mode == TRACE && !operation->deletesItself))
    killAtRest();
  if (mode == TRACE && !operation->deletesItself) {
    slot->left = -countResources();
    killAtRest();
    slot->left += countResources();
  }
  if (mode == TRACE)
    awaitSecond();
  cpu_set_t all;
  std::memset(&all, 0xff, sizeof all);
  sched_setaffinity(0, sizeof all, &all);  // the thread stays where it is
  const int before = countResources();
  Performer* const performer = start(true, isKill);
  while (true) {
    const int orders = slot->orders.exchange(0);
    if ((orders & Slot::ASSIST) != 0)
      assist();
    if ((orders & Slot::ACT) != 0)
      act(mode, performer, before);
    usleep(200);
  }
}

// The last of all that exit() does, as it is the first that is registered, and by no module.
extern "C" int __cxa_atexit(void (*function)(void*), void* argument, void* module);
void (*const registerLast)(int, char**, char**)
    __attribute__((section(".preinit_array"), used)) = [](int, char**, char**) {
      const auto linger = [](void*) {
        if (!exitTakesLong)
          return;
        slot->action = Slot::DONE;
        usleep(kExitTakesUs);
      };
      __cxa_atexit(linger, nullptr, nullptr);
    };

// Allocations are counted, by functions of the program: a kill inside of one loses what it counts.

void* operator new(std::size_t size) {
  void* const block = std::malloc(size);
  if (block == nullptr)
    throw std::bad_alloc();
  ++allocations;
  return block;
}

void operator delete(void* block) noexcept {
  allocations -= block != nullptr ? 1 : 0;
  std::free(block);
}

void operator delete(void* block, std::size_t) noexcept { operator delete(block); }
