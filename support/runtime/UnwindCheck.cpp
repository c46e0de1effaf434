// The unwinder walks the frames. A frame's language-specific data area (LSDA), as g++ and clang
// write it, begins with a table of call sites; the Itanium C++ ABI's personality routine ends the
// process for an address that the table does not list.
// https://itanium-cxx-abi.github.io/cxx-abi/exceptions.pdf The frames of the C library are left
// out: the platform unwinds these itself from every place at which it waits.
#include "runtime/UnwindCheck.h"

#include <cxxabi.h>
#include <dlfcn.h>
#include <gnu/lib-names.h>
#include <link.h>
#include <pthread.h>
#include <sys/auxv.h>
#include <unwind.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <span>

namespace VarnSupport {

namespace {

// Code that was loaded as one segment.
struct Segment {
  std::uintptr_t begin = 0;
  std::uintptr_t end = 0;

  bool contains(std::uintptr_t address) const { return address >= begin && address < end; }
};

// The code in which a signal finds nothing that can be unwound: the library's own first, then the C
// library's, then that of the dynamic loader, of what may stand in for it (a sanitizer), of the C++
// run-time libraries and of the heap.
constinit std::array<Segment, 7> theSegments;
constexpr std::size_t kLibrary = 0;
constexpr std::size_t kCLibrary = 1;
constexpr std::size_t kLoader = 2;

constinit std::uintptr_t theExit = UINTPTR_MAX;  // until prepare() no function's address

bool isOfExit(_Unwind_Context* frame) { return _Unwind_GetRegionStart(frame) == theExit; }

// A program that is loaded at fixed addresses may have one of its own for exit().
std::uintptr_t addressOfExit() {
  void* const library = dlopen(LIBC_SO, RTLD_LAZY | RTLD_NOLOAD);
  void* const found = library != nullptr ? dlsym(library, "exit") : nullptr;
  return found != nullptr ? reinterpret_cast<std::uintptr_t>(found)
                          : reinterpret_cast<std::uintptr_t>(&std::exit);
}

bool isInPlatformOrLibrary(std::uintptr_t address) {
  return std::any_of(theSegments.begin(), theSegments.end(),
                     [&](const Segment& segment) { return segment.contains(address); });
}

// The segment of code that `address` lies in; an empty one when there is none.
Segment segmentOf(std::uintptr_t address) {
  struct Search {
    std::uintptr_t address;
    Segment found;
  } search{address, {}};
  dl_iterate_phdr(
      [](dl_phdr_info* object, std::size_t, void* argument) {
        auto& wanted = *static_cast<Search*>(argument);
        for (const auto& header : std::span(object->dlpi_phdr, object->dlpi_phnum)) {
          const Segment segment{object->dlpi_addr + header.p_vaddr,
                                object->dlpi_addr + header.p_vaddr + header.p_memsz};
          if (header.p_type == PT_LOAD && (header.p_flags & PF_X) != 0 &&
              segment.contains(wanted.address)) {
            wanted.found = segment;
            return 1;
          }
        }
        return 0;
      },
      &search);
  return search.found;
}

// The same for a function of the platform; an empty one when the program itself defines it.
template <typename Function>
Segment segmentOf(Function* function) {
  const Segment segment = segmentOf(reinterpret_cast<std::uintptr_t>(function));
  return segment.contains(getauxval(AT_ENTRY)) ? Segment{} : segment;
}

// The code of the dynamic loader; an empty one when the loader was started as a program.
Segment segmentOfLoader() {
  const unsigned long base = getauxval(AT_BASE);
  return base == 0 ? Segment{}
                   : segmentOf(base + reinterpret_cast<const ElfW(Ehdr)*>(base)->e_entry);
}

// Reads the unsigned numbers of an exception table.
class TableReader {
 public:
  explicit TableReader(const unsigned char* position) : m_pPosition(position) {}

  const unsigned char* position() const { return m_pPosition; }
  unsigned char byte() { return *m_pPosition++; }
  std::uintptr_t leb128() {
    std::uintptr_t number = 0;
    unsigned shift = 0;
    unsigned char next = 0;
    do {
      next = byte();
      number |= std::uintptr_t{next & 0x7fU} << shift;
      shift += 7;
    } while ((next & 0x80U) != 0);
    return number;
  }
  template <typename T>
  std::uintptr_t fixed() {
    T number{};
    std::memcpy(&number, m_pPosition, sizeof number);
    m_pPosition += sizeof number;
    return static_cast<std::uintptr_t>(number);
  }

 private:
  const unsigned char* m_pPosition;
};

// The encodings of the DWARF exception header format that stand in tables of call sites.
constexpr unsigned char kOmitted = 0xff;
constexpr unsigned char kLeb128 = 0x01;
constexpr unsigned char kTwoBytes = 0x02;
constexpr unsigned char kFourBytes = 0x03;

std::uintptr_t readEncoded(TableReader& table, unsigned char encoding) {
  switch (encoding) {
    case kLeb128:
      return table.leb128();
    case kTwoBytes:
      return table.fixed<std::uint16_t>();
    case kFourBytes:
      return table.fixed<std::uint32_t>();
    default:
      return table.fixed<std::uint64_t>();
  }
}

// Whether the table of call sites in `data` lists the instruction at `offset` of its function.
bool isCallSite(const unsigned char* data, std::uintptr_t offset) {
  TableReader table(data);
  if (table.byte() != kOmitted)
    return true;  // landing pads elsewhere than in the function: nobody writes that
  if (table.byte() != kOmitted)
    table.leb128();
  const unsigned char encoding = table.byte();
  const std::uintptr_t length = table.leb128();
  const unsigned char* const end = table.position() + length;
  while (table.position() < end) {
    const std::uintptr_t begin = readEncoded(table, encoding);
    const std::uintptr_t size = readEncoded(table, encoding);
    readEncoded(table, encoding);  // the landing pad
    table.leb128();                // the action
    if (offset < begin)
      return false;
    if (offset < begin + size)
      return true;
  }
  return false;
}

// What a processor calls the system with. DWARF's register 0 holds the result on both.
#if defined(__x86_64__)
constexpr std::array<unsigned char, 2> kSystemCall{0x0f, 0x05};
#elif defined(__aarch64__)
constexpr std::array<unsigned char, 4> kSystemCall{0x01, 0x00, 0x00, 0xd4};
#else
constexpr std::array<unsigned char, 0> kSystemCall{};  // all code of the platform counts as waiting
#endif

// Where in the platform's code a signal has interrupted a thread.
enum tPlace {
  ELSEWHERE,
  BEHIND_CALL,  // a system call has just returned
  WAITING,      // a system call was interrupted, and is about to be repeated or to fail
};

tPlace placeOf(_Unwind_Context* frame, std::uintptr_t address) {
  const auto* const code = reinterpret_cast<const unsigned char*>(address);
  if (std::equal(kSystemCall.begin(), kSystemCall.end(), code))
    return WAITING;
  if (!std::equal(kSystemCall.begin(), kSystemCall.end(), code - kSystemCall.size()))
    return ELSEWHERE;
  return static_cast<long>(_Unwind_GetGR(frame, 0)) == -EINTR ? WAITING : BEHIND_CALL;
}

// One look at the frames of the calling thread, innermost first.
class Look {
 public:
  enum tBegin { HERE, WHERE_INTERRUPTED, AROUND_CANCELLATION_POINT };

  explicit Look(tBegin begin, bool destroysNothing = false)
      : m_eBegin(begin), m_bDestroysNothing(destroysNothing) {
    _Unwind_Backtrace(&Look::visit, this);
    // A run-time library that holds signals back delivers them in calls, where no frame is an
    // interrupted one.
    if (m_eBegin != HERE && !m_bBegun)
      m_bPossible = Look(HERE).isPossible();
    else if (!m_bHasReachedStart)
      m_bPossible = false;  // there is a frame that nothing is known of
  }

  bool isPossible() const { return m_bPossible; }

 private:
  static _Unwind_Reason_Code visit(_Unwind_Context* frame, void* look) {
    return static_cast<Look*>(look)->isFine(frame) ? _URC_NO_REASON : _URC_NORMAL_STOP;
  }

  // False when there is nothing more to look at.
  bool isFine(_Unwind_Context* frame) {
    int isInterrupted = 0;
    const std::uintptr_t address = _Unwind_GetIPInfo(frame, &isInterrupted);
    if (address == 0)
      return true;  // behind the thread's first frame
    if (m_eBegin != HERE && !m_bBegun) {
      if (isInterrupted == 0)
        return true;  // the handler's own frames
      m_bBegun = true;
      if (m_eBegin == WHERE_INTERRUPTED)
        m_bPossible = canBegin(frame, address);
    } else if (isInterrupted != 0) {
      m_bPossible = canBegin(frame, address);  // by a signal whose handler was interrupted
    } else if (m_bMustBeCalledDirectly) {
      m_bPossible = !isInPlatformOrLibrary(address);
      m_bMustBeCalledDirectly = false;
    }
    m_bHasReachedStart = theSegments[kCLibrary].contains(address);
    // The loader holds its lock while it runs what libraries do as they come and go.
    if (theSegments[kLoader].contains(address))
      m_bPossible = m_bPossible && isInterrupted != 0;
    else if (m_bHasReachedStart)
      m_bPossible = m_bPossible && !isOfExit(frame);
    else if (m_bPossible)
      m_bPossible = canPass(frame, isInterrupted != 0 ? address : address - 1);
    return m_bPossible;
  }

  bool canBegin(_Unwind_Context* frame, std::uintptr_t address) {
    if (theSegments[kLibrary].contains(address))
      return false;
    if (!isInPlatformOrLibrary(address))
      return true;
    m_bDestroysNothing = false;  // a call: all objects are whole
    const tPlace place = placeOf(frame, address);
    m_bMustBeCalledDirectly = place == BEHIND_CALL;
    return place != ELSEWHERE;
  }

  bool canPass(_Unwind_Context* frame, std::uintptr_t address) const {
    const auto* const data =
        static_cast<const unsigned char*>(_Unwind_GetLanguageSpecificData(frame));
    if (data == nullptr)
      return true;
    if (m_bDestroysNothing && !theSegments[kLibrary].contains(address))
      return false;
    return isCallSite(data, address - _Unwind_GetRegionStart(frame));
  }

  tBegin m_eBegin;
  bool m_bDestroysNothing;
  bool m_bBegun = false;
  bool m_bMustBeCalledDirectly = false;
  bool m_bHasReachedStart = false;
  bool m_bPossible = true;
};

}  // namespace

// The first walk makes the unwinder set itself up, which a signal handler could not have it do.
void UnwindCheck::prepare() {
  theSegments = {segmentOf(&UnwindCheck::prepare),
                 segmentOf(&pthread_testcancel),
                 segmentOfLoader(),
                 segmentOf(dlsym(RTLD_DEFAULT, "__tls_get_addr")),
                 segmentOf(&abi::__cxa_begin_catch),
                 segmentOf(&_Unwind_Resume),
                 segmentOf(&std::free)};
  theExit = addressOfExit();
  isPossibleHere();
}

bool UnwindCheck::isPossibleHere() { return Look(Look::HERE).isPossible(); }

bool UnwindCheck::isPossibleWhereInterrupted(bool destroysNothing) {
  return Look(Look::WHERE_INTERRUPTED, destroysNothing).isPossible();
}

bool UnwindCheck::isPossibleAroundCancellationPoint() {
  return Look(Look::AROUND_CANCELLATION_POINT).isPossible();
}

bool UnwindCheck::isInsideExit() {
  bool isInside = false;
  const auto look = [](_Unwind_Context* frame, void* found) {
    bool& isFound = *static_cast<bool*>(found);
    isFound = isOfExit(frame);
    return isFound ? _URC_NORMAL_STOP : _URC_NO_REASON;
  };
  _Unwind_Backtrace(look, &isInside);
  return isInside;
}

}  // namespace VarnSupport
