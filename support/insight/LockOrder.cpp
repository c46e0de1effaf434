// Pairs stand in a table of fixed size, each within a few places from where its hash points to, so
// that a pair can be erased without a trace. A stack is taken outside of the lock of the table.
//
// The addresses of a pair lie apart from the rest of its case, as forget() walks all of them
// whenever a section goes: 64 KiB of addresses instead of the stacks.
//
// A report is written by a thread of its own. The thread that has found it holds at least one
// section, may wait for the next one for ever, and may hold the very section that the log needs.
#include "insight/LockOrder.h"

#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <cassert>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <new>
#include <span>
#include <string>
#include <string_view>

#include "insight/PlainText.h"
#include "insight/StackTrace.h"
#include "log/OwnRecords.h"
#include "runtime/BriefMutex.h"
#include "runtime/HashedPlace.h"
#include "runtime/SystemThreads.h"

namespace VarnSupport {

namespace {

constexpr unsigned kPairBits = 12;
constexpr std::size_t kPairs = std::size_t{1} << kPairBits;
constexpr std::size_t kPlacesToLook = 16;
constexpr int kMostReports = 100;

struct Pair {
  const void* held;
  const void* wanted;
};

struct Case {
  Pair pair;
  pid_t thread;
  bool isTold;  // with the other order
  StackTrace<14> stack;
};

struct Report {
  Case earlier;
  Case later;
};

struct Table {
  std::array<Pair, kPairs + kPlacesToLook> pairs;
  std::array<Case, kPairs + kPlacesToLook> cases;
};

// Both are fixed once sections are checked; what the table holds is guarded by the mutex.
constinit Table* table = nullptr;
constinit BriefMutex mutex;
constinit int reports = 0;  // guarded by the mutex

std::span<Pair> placesOf(const Pair& pair) {
  const std::uint64_t both = reinterpret_cast<std::uintptr_t>(pair.held) * 31 +
                             reinterpret_cast<std::uintptr_t>(pair.wanted);
  return std::span(table->pairs).subspan(hashedPlace(both, kPairBits), kPlacesToLook);
}

Case& caseAt(const Pair& place) {
  return table->cases[static_cast<std::size_t>(&place - table->pairs.data())];
}

Case* findLocked(const Pair& pair) {
  for (Pair& place : placesOf(pair)) {
    if (place.held == pair.held && place.wanted == pair.wanted)
      return &caseAt(place);
  }
  return nullptr;
}

void addLocked(const Case& found) {
  for (Pair& place : placesOf(found.pair)) {
    if (place.held != nullptr)
      continue;
    place = found.pair;
    caseAt(place) = found;
    return;
  }
}

void putCase(PlainText& text, const Case& found) {
  text << "\n  thread " << found.thread << " took " << Hex(found.pair.wanted) << " while it held "
       << Hex(found.pair.held) << ", by";
  for (const std::uintptr_t place : found.stack.places()) {
    text << "\n    ";
    putPlace(text, place);
  }
}

void putReport(PlainText& text, const Report& report) {
  text << "VarnCriticalSection: two sections are taken in both orders; threads that do so at the "
          "same time wait for each other for ever";
  putCase(text, report.later);
  putCase(text, report.earlier);
}

void writeToStandardError(const Report& report) {
  DescriptorOutput output(STDERR_FILENO);
  PlainText text(DescriptorOutput::put, &output);
  putReport(text, report);
  text << "\n";
  text.flush();
}

// A log that is off, or that is none, leaves standard error, which gets the whole at once: another
// thread may be telling of something else.
void tell(const std::unique_ptr<const Report>& report) {
  std::string whole;
  try {
    PlainText text(PlainText::append, &whole);
    putReport(text, *report);
    text.flush();
    if (OwnRecords::areWanted(OwnRecords::FAILURE)) {
      OwnRecords::write(OwnRecords::FAILURE, whole);
      return;
    }
    whole += "\n";
  } catch (const std::bad_alloc&) {
    writeToStandardError(*report);
    return;
  }
  DescriptorOutput output(STDERR_FILENO);
  DescriptorOutput::put(&output, whole.data(), whole.size());
}

void tellElsewhere(std::unique_ptr<Report> report) {
  const Report* const told = report.get();
  if (startDetached("vsupt-order", [told] { tell(std::unique_ptr<const Report>(told)); }) == 0)
    static_cast<void>(report.release());
  else
    writeToStandardError(*report);
}

}  // namespace

constinit std::atomic<bool> LockOrder::m_bChecked{false};

// A table that cannot be had leaves the check off: a program that asked to be watched still runs.
void LockOrder::prepare() {
  const char* const wish = std::getenv("VSUPT_CHECK_LOCKS");
  if (wish == nullptr || std::string_view(wish) != "1" || m_bChecked)
    return;
  void* const memory =
      mmap(nullptr, sizeof(Table), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED)
    return;
  warmUpStackTraces();
  table = static_cast<Table*>(memory);
  m_bChecked = true;
}

// Nearly every call ends at the first look. A pair that another thread has added between the two
// looks has been compared with its other order by that thread.
void LockOrder::note(const void* held, const void* wanted) {
  assert(isChecked() && held != nullptr && wanted != nullptr && held != wanted);
  {
    const BriefMutex::Hold hold(mutex);
    if (findLocked({held, wanted}) != nullptr)
      return;
  }
  Case found{{held, wanted}, gettid(), false, {}};
  found.stack.take();
  auto report = std::unique_ptr<Report>(new (std::nothrow) Report);
  {
    const BriefMutex::Hold hold(mutex);
    if (findLocked({held, wanted}) != nullptr)
      return;
    addLocked(found);
    Case* const earlier = findLocked({wanted, held});
    if (earlier == nullptr || earlier->isTold || report == nullptr || reports == kMostReports)
      return;
    earlier->isTold = true;
    ++reports;
    *report = {*earlier, found};
  }
  tellElsewhere(std::move(report));
}

void LockOrder::forget(const void* section) {
  assert(isChecked() && section != nullptr);
  const BriefMutex::Hold hold(mutex);
  for (Pair& place : table->pairs) {
    if (place.held == section || place.wanted == section)
      place = Pair{};
  }
}

}  // namespace VarnSupport
