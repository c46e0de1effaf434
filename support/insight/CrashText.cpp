// Each part of a report is left by a jump when it runs into a fault itself. What a part has found
// by then stays, as it stands in memory that is no local variable. Only one thread at a time is
// here.
//
// What is most likely to succeed comes first: the signal and the thread, then the stack, then the
// records, and at the very end what an exception says of itself, as that runs code of the program.
#include "insight/CrashText.h"

#include <cxxabi.h>
#include <sys/prctl.h>
#include <ucontext.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <csetjmp>
#include <exception>
#include <typeinfo>

#include "VarnSupport/VarnException.h"
#include "insight/PlainText.h"
#include "insight/RecordRing.h"
#include "insight/StackTrace.h"

namespace VarnSupport {

namespace {

constexpr std::size_t kMostCalls = 64;
constexpr int kMostPossibleCalls = 32;

sigjmp_buf behindPart;
constinit volatile std::sig_atomic_t isInPart = 0;
constinit std::array<std::uintptr_t, kMostCalls> calls{};
constinit volatile std::size_t callCount = 0;

// What the registers of the interrupted thread say.
struct Interrupted {
  std::uintptr_t instruction;
  std::uintptr_t stack;
};

Interrupted interruptedBy(const void* context) {
  const mcontext_t& machine = static_cast<const ucontext_t*>(context)->uc_mcontext;
#if defined(__x86_64__)
  return {static_cast<std::uintptr_t>(machine.gregs[REG_RIP]),
          static_cast<std::uintptr_t>(machine.gregs[REG_RSP])};
#elif defined(__aarch64__)
  return {machine.pc, machine.sp};
#else
  return {0, 0};
#endif
}

// Runs a part of the report, up to its end or to a fault in it.
template <typename Part>
[[gnu::noinline]] void runPart(PlainText& text, Part part) {
  if (sigsetjmp(behindPart, 1) == 0) {
    isInPart = 1;
    part();
  } else {
    text << "  a fault ended this part\n";
  }
  isInPart = 0;
  text.flush();
}

const char* nameOf(int signal) {
  switch (signal) {
    case SIGSEGV:
      return "SIGSEGV";
    case SIGABRT:
      return "SIGABRT";
    case SIGBUS:
      return "SIGBUS";
    default:
      return "SIGFPE";
  }
}

void putThread(PlainText& text) {
  std::array<char, 17> name{};
  prctl(PR_GET_NAME, name.data());
  const std::chrono::nanoseconds now = std::chrono::system_clock::now().time_since_epoch();
  text << "process " << getpid() << ", thread " << gettid() << " \"" << name.data() << "\", "
       << UtcTime{now.count()} << "\n";
}

void putCalls(PlainText& text) {
  for (std::size_t i = 0; i < callCount; ++i) {
    text << "  ";
    putPlace(text, calls[i]);
    text << "\n";
  }
}

void putRecords(PlainText& text) {
  runPart(text, [&] {
    text << "records:\n";
    RecordRing::write(text);
  });
}

// What an exception says of itself can be found out by throwing it again, without memory of the
// heap, which VarnWhat() needs.
void putWhat(PlainText& text) {
  try {
    throw;
  } catch (const std::exception& exception) {
    text << "what: " << exception.what() << "\n";
  } catch (const VarnException& exception) {
    text << "what: " << exception.getText() << "\n";
  } catch (...) {
  }
}

}  // namespace

// The mask of signals goes back to what it was before the part, by the jump.
void CrashText::leavePart() {
  if (isInPart != 0)
    siglongjmp(behindPart, 1);
}

void CrashText::write(int descriptor, const siginfo_t& info, const void* context) {
  DescriptorOutput output(descriptor);
  PlainText text(DescriptorOutput::put, &output);
  const Interrupted at = interruptedBy(context);
  runPart(text, [&] {
    text << "crash: " << nameOf(info.si_signo) << " (" << info.si_signo << "), code "
         << info.si_code;
    if (info.si_code > 0)
      text << ", address " << Hex(info.si_addr);
    else
      text << ", sent by process " << info.si_pid;
    text << "\n";
    putThread(text);
  });
  callCount = 0;
  text << "stack:\n";
  // No call has the address 1: at an instruction that is none, there is nothing to walk from.
  runPart(text, [&] { walkStack(calls, callCount, at.instruction != 0 ? at.instruction : 1); });
  runPart(text, [&] { putCalls(text); });
  // A jump to a wrong address leaves no frame to walk from. Then every word on the stack that
  // points behind a call is shown.
  if (callCount < 2) {
    runPart(text, [&] {
      text << "  the stack cannot be walked; the instruction, and what may be calls:\n  ";
      putPlace(text, at.instruction);
      text << "\n";
      putPossiblePlaces(text, at.stack, kMostPossibleCalls);
    });
  }
  putRecords(text);
  text << "end of the report\n";
  text.flush();
}

void CrashText::writeTermination(int descriptor) {
  DescriptorOutput output(descriptor);
  PlainText text(DescriptorOutput::put, &output);
  const std::type_info* const type = abi::__cxa_current_exception_type();
  runPart(text, [&] {
    if (type != nullptr)
      text << "crash: uncaught exception of type " << type->name() << "\n";
    else
      text << "crash: std::terminate()\n";
    putThread(text);
  });
  callCount = 0;
  text << "stack:\n";
  runPart(text, [&] { walkStack(calls, callCount, 0); });
  runPart(text, [&] { putCalls(text); });
  putRecords(text);
  if (type != nullptr)
    runPart(text, [&] { putWhat(text); });
  text << "end of the report\n";
  text.flush();
}

}  // namespace VarnSupport
