// Stacks are walked by the unwinder of the compiler, which allocates nothing and, in the C
// libraries of today, takes no lock. What is mapped where the system tells: the loader's own list
// is locked while a library is loaded.
//
// Places are shown as a file and an address in it, which addr2line and a debugger resolve later
// with the symbols of the packages: to read symbols here would take memory and time that a crash
// does not have.
#include "insight/StackTrace.h"

#include <elf.h>
#include <unwind.h>

#include <cassert>
#include <string_view>

#include "runtime/OwnMemory.h"

namespace VarnSupport {

namespace {

struct StackWalk {
  std::span<std::uintptr_t> places;
  volatile std::size_t& count;
  std::uintptr_t start;
  int toSkip;
};

// The address behind a call may be that of the next function: one less is within the call. For an
// interrupted instruction the address is its own.
_Unwind_Reason_Code step(_Unwind_Context* context, void* argument) {
  StackWalk& walk = *static_cast<StackWalk*>(argument);
  int isExact = 0;
  const std::uintptr_t address = _Unwind_GetIPInfo(context, &isExact);
  if (address == 0 || walk.count == walk.places.size())
    return _URC_END_OF_STACK;
  if (walk.start != 0 && address == walk.start)
    walk.start = 0;
  if (walk.toSkip-- > 0 || walk.start != 0)
    return _URC_NO_REASON;
  walk.places[walk.count] = isExact != 0 ? address : address - 1;
  walk.count = walk.count + 1;
  return _URC_NO_REASON;
}

// A mapping, as /proc/self/maps describes it.
struct Mapping {
  std::uint64_t begin = 0;
  std::uint64_t end = 0;
  std::uint64_t offset = 0;
  bool isCode = false;
  std::string_view file;  // empty when it is none

  bool read(std::string_view line) {
    if (!takeNumber(line, 16, begin) || !line.starts_with('-'))
      return false;
    line.remove_prefix(1);
    if (!takeNumber(line, 16, end) || line.size() < 6)
      return false;
    isCode = line[3] == 'x';
    line.remove_prefix(6);
    if (!takeNumber(line, 16, offset))
      return false;
    const std::size_t name = line.find_first_of("/[");
    file = name != std::string_view::npos ? line.substr(name) : std::string_view();
    return true;
  }
};

// Addresses in a file are those of the process, but for where it lies, if it may lie anywhere.
std::uintptr_t offsetIn(std::uintptr_t base, std::uintptr_t address) {
  Elf64_Ehdr header{};
  const bool isFixed = copyOwnMemory(base, header) && header.e_type == ET_EXEC;
  return isFixed ? address : address - base;
}

bool isCode(std::uintptr_t address) {
  PlainFile maps("/proc/self/maps");
  std::string_view line;
  while (maps.nextLine(line)) {
    Mapping mapping;
    if (mapping.read(line) && address >= mapping.begin && address < mapping.end)
      return mapping.isCode && mapping.file.starts_with('/');
  }
  return false;
}

}  // namespace

// The unwinder's library is loaded, and its tables are found, at the first use.
void warmUpStackTraces() {
  StackTrace<4> trace;
  trace.take();
}

[[gnu::noinline]] void walkStack(std::span<std::uintptr_t> places, volatile std::size_t& count,
                                 std::uintptr_t start) {
  assert(!places.empty());
  count = 0;
  StackWalk walk{places, count, start, start == 0 ? 1 : 0};
  _Unwind_Backtrace(step, &walk);
}

// The mappings of a file follow each other, that of its beginning first.
void putPlace(PlainText& text, std::uintptr_t address) {
  text << Hex(address);
  PlainFile maps("/proc/self/maps");
  std::string_view line;
  std::uint64_t base = 0;
  while (maps.nextLine(line)) {
    Mapping mapping;
    if (!mapping.read(line))
      continue;
    if (mapping.offset == 0 && !mapping.file.empty())
      base = mapping.begin;
    if (address < mapping.begin || address >= mapping.end)
      continue;
    if (!mapping.file.empty())
      text << " in " << mapping.file << " " << Hex(offsetIn(base, address));
    return;
  }
}

void putPossiblePlaces(PlainText& text, std::uintptr_t pointer, int most) {
  constexpr int kWordsToRead = 512;
  pointer -= pointer % sizeof(std::uintptr_t);
  for (int i = 0; i < kWordsToRead && most > 0; ++i, pointer += sizeof(std::uintptr_t)) {
    std::uintptr_t word = 0;
    if (!copyOwnMemory(pointer, word))
      return;
    if (word < 4096 || !isCode(word))
      continue;
    text << "  ";
    putPlace(text, word - 1);
    text << "\n";
    --most;
  }
}

}  // namespace VarnSupport
