// Does operations of the library in processes of their own, interferes at one instruction after the
// other, and prints what came of it.
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/personality.h>
#include <sys/prctl.h>

#include <iostream>

#include "Operations.h"
#include "Stepper.h"

namespace {

constexpr int kBroken = 3;  // the harness itself failed
constexpr int kNotRun = 77;
constexpr std::size_t kUsualPoints = 50;  // of an operation and a mode
constexpr int kMostHangs = 4;             // of them, before the rest is given up

enum tOrigin { LIBRARY, PLATFORM, USER };

// Code has the same addresses in all processes.
tOrigin originOf(std::uint64_t address) {
  Dl_info info{};
  if (dladdr(reinterpret_cast<const void*>(address), &info) == 0)
    return PLATFORM;
  return contains(info.dli_fname, "/libvsupt.")    ? LIBRARY
         : contains(info.dli_fname, "vsupt_steps") ? USER
                                                   : PLATFORM;
}

// File, offset and function.
std::string describe(std::uint64_t address) {
  Dl_info info{};
  if (dladdr(reinterpret_cast<const void*>(address), &info) == 0)
    return "";
  std::ostringstream text;
  text << "0x" << std::hex << address - reinterpret_cast<std::uint64_t>(info.dli_fbase);
  const std::string command = "addr2line -fCse " + std::string(info.dli_fname) + ' ' + text.str();
  char line[100] = "";
  std::FILE* const pipe = popen(command.c_str(), "r");
  const std::string function = std::fgets(line, sizeof line, pipe) != nullptr ? line : "";
  pclose(pipe);
  return std::filesystem::path(info.dli_fname).filename().string() + '+' + text.str() + ' ' +
         function.substr(0, function.find('\n'));
}

// What may go wrong at an instruction without the library being at fault, by name.
struct Exception {
  const char* name;
  bool (*applies)(const std::string& operation, int mode, tOrigin origin);
};
constexpr std::array kExceptions{
    Exception{"a frame of the program that had not yet given back what it holds by hand",
              [](const std::string&, int mode, tOrigin origin) {
                return (mode == KILL || mode == KILL_HELD) && origin == USER;
              }},
    Exception{"exit() that runs the destructors of a shared library while a thread unloads it",
              [](const std::string& operation, int mode, tOrigin) {
                return operation == "library-scope" && (mode == EXIT || mode == EXIT_HELD);
              }},
};

// A point, or the trace of an operation, and what came of it.
struct Task {
  std::size_t operation = 0;
  int mode = TRACE;
  std::size_t number = 0;
  Stepper::tVerdict verdict = Stepper::GOOD;
  bool wasTried = false;
  bool wasLetGo = false;
  std::uint64_t address = 0;
  char text[100] = "";
};

// In memory that all workers share.
struct Board {
  std::atomic<std::size_t> next;
  std::size_t count;
  std::atomic<int> hangs[100][kModes];
  Trace traces[100];
  Task* tasks;
};

void* share(std::size_t size) {
  return mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
}

Board& board = *static_cast<Board*>(share(sizeof(Board)));

void doTask(Stepper& stepper, Task& task) {
  Trace& trace = board.traces[task.operation];
  Stepper::Result result;
  if (task.mode == TRACE) {
    result = stepper.trace(task.operation, trace);
  } else {
    std::atomic<int>& hangs = board.hangs[task.operation][task.mode];
    if (hangs >= kMostHangs)
      return;
    const auto start = Clock::now();
    result = stepper.run(task.operation, task.mode, trace, task.number);
    hangs += Clock::now() - start > std::chrono::seconds(5) ? 1 : 0;
  }
  task.verdict = result.verdict;
  task.wasLetGo = result.wasLetGo;
  task.address = result.address;
  task.text[result.text.copy(task.text, sizeof task.text - 1)] = '\0';
  task.wasTried = true;
}

// Has the tasks done by processes that do one after the other; false when one of them fails.
bool work(const std::vector<Task>& tasks, unsigned perProcessor, const TempFolder& folder) {
  board.tasks = static_cast<Task*>(share(sizeof(Task) * (tasks.size() + 1)));
  std::copy(tasks.begin(), tasks.end(), board.tasks);
  board.count = tasks.size();
  board.next = 0;
  const unsigned processors = std::max(1U, std::thread::hardware_concurrency());
  std::vector<pid_t> workers;
  for (unsigned worker = 0; worker < processors * perProcessor; ++worker) {
    workers.push_back(fork());
    if (workers.back() != 0)
      continue;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    cpu_set_t own;  // stepping to and fro between processors is slow
    CPU_ZERO(&own);
    CPU_SET(worker % processors, &own);
    sched_setaffinity(0, sizeof own, &own);
    const std::string place = folder / std::to_string(worker);
    mkdir(place.c_str(), 0700);
    Stepper stepper(place, true);
    for (std::size_t i = board.next++; i < board.count; i = board.next++)
      doTask(stepper, board.tasks[i]);
    _exit(0);
  }
  bool isWhole = true;
  for (const pid_t worker : workers) {
    int status = 0;
    waitpid(worker, &status, 0);
    isWhole = isWhole && status == 0;
  }
  return isWhole;
}

// Evenly chosen, and others for each mode.
void pick(const std::vector<std::size_t>& from, std::size_t many, const Task& pair,
          std::vector<Task>& tasks) {
  many = std::min(many, from.size());
  for (std::size_t i = 0; i < many; ++i) {
    const std::size_t place =
        (i * kModes + static_cast<std::size_t>(pair.mode)) * from.size() / (many * kModes);
    tasks.push_back(pair);
    tasks.back().number = from[place];
  }
}

// Two thirds of the points are instructions of the library, if it has as many.
std::vector<Task> plan(const std::vector<Task>& pairs, std::size_t points) {
  std::vector<Task> tasks;
  for (const Task& pair : pairs) {
    const Trace& trace = board.traces[pair.operation];
    std::vector<std::size_t> own;
    std::vector<std::size_t> others;
    for (std::size_t i = 0; i < trace.count; ++i)
      (originOf(trace.addresses[i]) == LIBRARY ? own : others).push_back(i);
    const std::size_t fromOthers =
        std::min(others.size(), std::max(points / 3, points - std::min(points, own.size())));
    pick(own, points - fromOthers, pair, tasks);
    pick(others, fromOthers, pair, tasks);
  }
  return tasks;
}

struct Cell {
  int tried = 0;
  int faults = 0;
  int excepted = 0;
  std::string text() const {
    return std::to_string(faults) + " of " + std::to_string(tried) +
           (excepted > 0 ? " + " + std::to_string(excepted) : "");
  }
};

// Prints the table, which is also Markdown, and what stands behind it; returns the faults.
int report() {
  std::map<std::size_t, std::array<Cell, kModes>> rows;
  std::map<std::string, int> exceptions;
  std::map<std::tuple<std::size_t, int, std::string>, std::vector<const Task*>> faults;
  Cell all;
  int missed = 0;
  int letGo = 0;
  int givenUp = 0;
  for (const Task* task = board.tasks; task < board.tasks + board.count; ++task) {
    Cell& cell = rows[task->operation][static_cast<std::size_t>(task->mode)];
    const bool isFault = task->verdict == Stepper::FAULTY;
    const auto exception = std::find_if(kExceptions.begin(), kExceptions.end(), [&](auto& some) {
      return isFault &&
             some.applies(g_vOperations[task->operation].name, task->mode, originOf(task->address));
    });
    const bool isExcepted = exception != kExceptions.end();
    givenUp += task->wasTried ? 0 : 1;
    missed += task->verdict == Stepper::MISSED ? 1 : 0;
    letGo += task->wasLetGo ? 1 : 0;
    for (Cell* const each : {&cell, &all}) {
      each->tried += task->wasTried && task->verdict != Stepper::MISSED ? 1 : 0;
      each->excepted += isExcepted ? 1 : 0;
      each->faults += isFault && !isExcepted ? 1 : 0;
    }
    if (isExcepted)
      ++exceptions[exception->name];
    else if (isFault)
      faults[{task->operation, task->mode, task->text}].push_back(task);
  }
  std::cout << "| operation | instructions, the library's own |";
  for (const char* const mode : kModeNames)
    std::cout << ' ' << mode << " |";
  std::cout << "\n|---|---|";
  for (std::size_t i = 0; i < kModes; ++i)
    std::cout << "---|";
  for (const auto& [operation, cells] : rows) {
    const Trace& trace = board.traces[operation];
    const auto own =
        std::count_if(trace.addresses, trace.addresses + trace.count,
                      [](std::uint64_t address) { return originOf(address) == LIBRARY; });
    std::cout << "\n| " << g_vOperations[operation].name << " | " << trace.count << ", " << own
              << " |";
    for (const Cell& cell : cells)
      std::cout << ' ' << (cell.tried > 0 ? cell.text() : "") << " |";
  }
  std::cout << "\n\nIn all: faults at " << all.text() << " points, the last of which are excepted; "
            << missed << " were not reached, " << givenUp << " given up after hangs; " << letGo
            << " held threads were let go as the action waited for them.\n";
  for (const auto& [name, count] : exceptions)
    std::cout << "excepted: " << count << " x " << name << '\n';
  for (const auto& [key, tasks] : faults)
    std::cout << "fault: " << g_vOperations[std::get<0>(key)].name << ' '
              << kModeNames[static_cast<std::size_t>(std::get<1>(key))] << ": " << std::get<2>(key)
              << ", " << tasks.size() << " x, as " << tasks.front()->number << " at "
              << describe(tasks.front()->address) << '\n';
  return all.faults;
}

int runMany(int onlyOperation, int onlyMode) {
  const TempFolder folder;
  std::vector<Task> traces;
  std::vector<Task> pairs;
  for (std::size_t i = 0; i < g_vOperations.size(); ++i) {
    if (onlyOperation >= 0 && i != static_cast<std::size_t>(onlyOperation))
      continue;
    traces.push_back({i, TRACE});
    for (int mode = g_vOperations[i].deletesItself ? FORK : KILL; mode < kModes; ++mode) {
      if (onlyMode < 0 || mode == onlyMode)
        pairs.push_back({i, mode});
    }
  }
  bool isWhole = work(traces, 3, folder);
  int faults = 0;
  for (const Task* task = board.tasks; task < board.tasks + board.count; ++task) {
    if (task->verdict == Stepper::NOT_ALLOWED) {
      std::cout << "not run: the system allows no stepping by ptrace()\n";
      return kNotRun;
    }
    if (task->verdict == Stepper::FAULTY) {
      std::cout << g_vOperations[task->operation].name << " by itself: " << task->text << '\n';
      ++faults;
    }
  }
  const char* const given = std::getenv("VSUPT_STEPS");
  const std::string points = given != nullptr ? given : std::to_string(kUsualPoints);
  isWhole =
      isWhole && work(plan(pairs, points == "all" ? Trace::kMost : std::stoul(points)), 4, folder);
  faults += report();
  if (!isWhole)
    std::cout << "the harness itself failed\n";
  return !isWhole ? kBroken : faults > 0 ? 1 : 0;
}

// One point, with what the process prints, and what the thread's stack refers to.
int runOne(std::size_t operation, int mode, std::size_t number) {
  const TempFolder folder;
  Stepper stepper(folder.path(), false);
  Trace& trace = board.traces[0];
  stepper.trace(operation, trace);
  std::vector<std::uint64_t> stack;
  const Stepper::Result result =
      stepper.run(operation, mode, trace, std::min(number, trace.count - 1), &stack);
  std::cout << "at " << describe(result.address) << '\n';
  for (const std::uint64_t word : stack)
    std::cout << (describe(word).empty() ? "" : "  from " + describe(word) + '\n');
  constexpr std::array<const char*, 4> kVerdicts{"good", "fault: ", "not reached", "not allowed"};
  std::cout << kVerdicts[result.verdict] << result.text << '\n';
  return result.verdict == Stepper::FAULTY ? 1 : 0;
}

int usage() {
  std::cout << "usage: vsupt_steps [OPERATION [MODE [NUMBER]]]\n"
               "VSUPT_STEPS: the points of an operation and a mode, or all.\noperations:";
  for (const Operation& operation : g_vOperations)
    std::cout << ' ' << operation.name;
  std::cout << "\nmodes:";
  for (const char* const mode : kModeNames)
    std::cout << ' ' << mode;
  std::cout << '\n';
  return 2;
}

}  // namespace

int main(int count, char** values) {
  const std::vector<std::string> arguments(values + 1, values + count);
  if (count == 5 && arguments[0] == "--child") {
    const int file = open(values[4], O_RDWR | O_CLOEXEC);
    auto* const slot = static_cast<Slot*>(
        mmap(nullptr, sizeof(Slot), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0));
    close(file);
    std::filesystem::current_path(std::filesystem::path(values[4]).parent_path());
    performOperation(g_vOperations[std::stoul(arguments[1])], std::stoi(arguments[2]), *slot);
  }
  // Addresses are to be the same in every process.
  const int persona = personality(0xffffffff);
  if ((persona & ADDR_NO_RANDOMIZE) == 0 &&
      personality(static_cast<unsigned long>(persona) | ADDR_NO_RANDOMIZE) != -1)
    execv("/proc/self/exe", values);
  int operation = -1;
  int mode = -1;
  for (std::size_t i = 0; count > 1 && i < g_vOperations.size(); ++i) {
    if (arguments[0] == g_vOperations[i].name)
      operation = static_cast<int>(i);
  }
  for (std::size_t i = 0; count > 2 && i < kModes; ++i) {
    if (arguments[1] == kModeNames[i])
      mode = static_cast<int>(i);
  }
  if ((count > 1 && operation < 0) || (count > 2 && mode < 0))
    return usage();
  return count > 3 ? runOne(static_cast<std::size_t>(operation), mode, std::stoul(arguments[2]))
                   : runMany(operation, mode);
}
