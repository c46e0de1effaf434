// All threads are looked at first, in one go, and are then told of: waiters, holders and what they
// hold are put together from that one look.
//
// What a thread of this process waits for is known in three ways. A wait of the library leaves a
// note on the stack of its thread. A mutex that somebody waits for without such a note is known by
// the word that the system sleeps on. For all else the call of the system is named, with its
// descriptor.
//
// Nothing is locked meanwhile, so what is told of two threads may be of two moments, some
// microseconds apart: a section that looks free beside a waiter has just been given back.
#include "VarnSupport/VarnDescribeThreads.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <string_view>

#include "VarnSupport/VarnLogging.h"
#include "VarnSupport/VarnThread.h"
#include "insight/PlainText.h"
#include "insight/StackTrace.h"
#include "insight/TaskList.h"
#include "locks/BriefHold.h"
#include "locks/HeldSections.h"
#include "log/LogState.h"
#include "runtime/Cancellation.h"
#include "runtime/OwnMemory.h"

namespace VarnSupport {

namespace {

using Section = HeldSections::Section;

constexpr int kMostSections = 100;  // of a thread: a list that changes may lead in a circle

struct CallName {
  long number;
  std::string_view name;
  bool hasDescriptor;
};

constexpr std::array kCalls{CallName{SYS_read, "read", true},
                            CallName{SYS_write, "write", true},
                            CallName{SYS_readv, "readv", true},
                            CallName{SYS_writev, "writev", true},
                            CallName{SYS_fsync, "fsync", true},
                            CallName{SYS_fdatasync, "fdatasync", true},
                            CallName{SYS_flock, "flock", true},
                            CallName{SYS_fcntl, "fcntl", true},
                            CallName{SYS_ioctl, "ioctl", true},
                            CallName{SYS_connect, "connect", true},
                            CallName{SYS_accept, "accept", true},
                            CallName{SYS_accept4, "accept4", true},
                            CallName{SYS_recvfrom, "recvfrom", true},
                            CallName{SYS_recvmsg, "recvmsg", true},
                            CallName{SYS_sendto, "sendto", true},
                            CallName{SYS_sendmsg, "sendmsg", true},
                            CallName{SYS_epoll_pwait, "epoll_wait", true},
                            CallName{SYS_epoll_pwait2, "epoll_wait", true},
#ifdef SYS_epoll_wait
                            CallName{SYS_epoll_wait, "epoll_wait", true},
                            CallName{SYS_poll, "poll", false},
                            CallName{SYS_select, "select", false},
                            CallName{SYS_pause, "pause", false},
#endif
                            CallName{SYS_ppoll, "poll", false},
                            CallName{SYS_pselect6, "select", false},
                            CallName{SYS_futex, "futex", false},
                            CallName{SYS_nanosleep, "nanosleep", false},
                            CallName{SYS_clock_nanosleep, "clock_nanosleep", false},
                            CallName{SYS_restart_syscall, "a sleep that goes on", false},
                            CallName{SYS_wait4, "waitpid", false},
                            CallName{SYS_waitid, "waitid", false},
                            CallName{SYS_rt_sigtimedwait, "sigtimedwait", false},
                            CallName{SYS_rt_sigsuspend, "sigsuspend", false},
                            CallName{SYS_openat, "open", false}};

// The address of the state of the registered log's record lock. States are never freed.
std::uintptr_t recordLock() {
  VarnLogging::State* state = VarnLogging::State::m_pRegistered;
  return state != nullptr ? HeldSections::addressOf(state->lock) : 0;
}

std::string_view nameOf(std::uintptr_t section) {
  if (section == HeldSections::addressOf(globalSection()))
    return " (the global section)";
  if (section == recordLock())
    return " (the record lock of the log)";
  if (section == HeldSections::addressOf(g_exitThreadLock))
    return " (threads to be joined)";
  return "";
}

// One line for each thread, and below it one for each section that it holds.
class ThreadsText {
 public:
  ThreadsText(PlainText& text, const TaskList& list) : m_oText(text), m_oList(list) {}

  void put() {
    const auto tasks = m_oList.tasks();
    m_oText << tasks.size() + m_oList.leftOut() << (tasks.size() == 1 ? " thread\n" : " threads\n");
    if (m_oList.error() != 0)
      m_oText << "not all can be listed: " << strerrordesc_np(m_oList.error()) << "\n";
    for (const Task& task : tasks)
      putTask(task);
    if (m_oList.leftOut() > 0)
      m_oText << "and " << m_oList.leftOut() << " more\n";
  }

 private:
  void putTask(const Task& task) {
    const std::string_view name(task.name.data());
    putName(task);
    if (name.starts_with("vsupt-"))
      m_oText << ", of the library";
    else if (task.isVarnThread)
      m_oText << ", a VarnThread";
    if (task.isWaiting)
      putWait(task);
    else if (task.id == gettid())
      m_oText << ": describes the threads";
    else
      putCall(task);
    m_oText << "\n";
    if (task.pointer == 0)
      m_oText << "  the system does not tell where it keeps what it holds\n";
    putSections(task);
  }

  void putName(const Task& task) { m_oText << task.id << " \"" << task.name.data() << "\""; }

  void putSection(std::uintptr_t section) {
    m_oText << "section " << Hex(section) << nameOf(section);
  }

  void putWait(const Task& task) {
    m_oText << ": waits for " << Seconds{m_nNow - task.since} << " s for ";
    if (task.kind == WaitNote::EVENT) {
      m_oText << "event " << Hex(task.awaited);
    } else {
      putSection(task.awaited);
      putHolder(task.awaited);
    }
  }

  // Who has noted itself as the owner, or else who the platform says has the mutex.
  void putHolder(std::uintptr_t address) {
    Section section;
    if (!HeldSections::read(address, section))
      return;
    const Task* holder = m_oList.withPointer(static_cast<std::uintptr_t>(section.owner));
    if (holder == nullptr && section.thread != 0)
      holder = m_oList.withId(section.thread);
    if (holder != nullptr) {
      m_oText << ", which ";
      putName(*holder);
      m_oText << " holds";
    } else if (section.owner != 0 || section.thread != 0) {
      m_oText << ", which a thread that has ended holds";
    } else {
      m_oText << ", which is free";
    }
  }

  void putCall(const Task& task) {
    const SystemCall& call = task.call;
    if (call.number < 0) {
      m_oText << ": runs, or the system does not tell";
      return;
    }
    const auto known = std::find_if(kCalls.begin(), kCalls.end(), [&](const CallName& entry) {
      return entry.number == call.number;
    });
    if (known == kCalls.end()) {
      m_oText << ": in call " << call.number << " of the system";
      return;
    }
    if (call.number == SYS_futex && putKnownFutex(call))
      return;
    m_oText << ": in " << known->name << "()";
    if (known->hasDescriptor)
      putDescriptor(static_cast<int>(call.arguments[0]));
  }

  void putDescriptor(int descriptor) {
    m_oText << ", descriptor " << descriptor;
    std::array<char, 256> target;
    const ssize_t length =
        readlink(ProcPath("fd/", descriptor).get(), target.data(), target.size());
    if (length > 0)
      m_oText << ", " << std::string_view(target.data(), static_cast<std::size_t>(length));
  }

  // Who locks a mutex waits for a 2 to go, which the number of the holder stands behind; who joins
  // a thread waits for the number of that to go.
  bool putKnownFutex(const SystemCall& call) {
    const auto word = static_cast<std::uintptr_t>(call.arguments[0]);
    const auto operation = static_cast<int>(call.arguments[1]) & FUTEX_CMD_MASK;
    if (operation != FUTEX_WAIT && operation != FUTEX_WAIT_BITSET)
      return false;
    if (const std::uintptr_t section = HeldSections::withFutex(word); section != 0) {
      m_oText << ": waits for ";
      putSection(section);
      putHolder(section);
      return true;
    }
    std::array<int, 3> words{};
    if (!copyOwnMemory(word, words))
      return false;
    const bool isMutex = call.arguments[2] == 2 && words[0] == 2;
    const Task* const other = m_oList.withId(isMutex ? words[2] : words[0]);
    if (other == nullptr)
      return false;
    m_oText << (isMutex ? ": waits for a mutex, which " : ": waits for the end of ");
    putName(*other);
    m_oText << (isMutex ? " holds" : "");
    return true;
  }

  // The newest first. The list changes while its thread runs: it is followed as long as its
  // sections name that thread as their owner.
  void putSections(const Task& task) {
    std::uintptr_t address = task.newestLock;
    for (int i = 0; address != 0 && i < kMostSections; ++i) {
      Section section;
      if (!HeldSections::read(address, section) ||
          static_cast<std::uintptr_t>(section.owner) != task.pointer)
        return;
      putHeld(task, address, section);
      address = section.older;
    }
  }

  // The time of holding is a lower bound: a holder that waits has held the section since it began
  // to wait, at the latest. Holders note no time, so that taking a section stays as cheap as it is.
  void putHeld(const Task& task, std::uintptr_t address, const Section& section) {
    m_oText << "  holds ";
    putSection(address);
    m_oText << ", " << section.levels << (section.levels == 1 ? " level" : " levels");
    if (task.isWaiting)
      m_oText << ", held for at least " << Seconds{m_nNow - task.since} << " s";
    int waiters = 0;
    std::int64_t first = m_nNow;
    for (const Task& other : m_oList.tasks()) {
      if (!other.isWaiting || other.kind != WaitNote::SECTION || other.awaited != address)
        continue;
      ++waiters;
      first = std::min(first, other.since);
    }
    if (waiters > 0) {
      m_oText << ", wanted for " << Seconds{m_nNow - first} << " s by " << waiters
              << (waiters == 1 ? " thread" : " threads");
    }
    m_oText << "\n";
  }

  PlainText& m_oText;
  const TaskList& m_oList;
  const std::int64_t m_nNow = WaitNote::now();
};

// A thread that is killed in between ends behind the description, which is then whole.
void describe(PlainText::Sink sink, void* to) {
  const NoCancellation whole;
  const TaskList list;
  PlainText text(sink, to);
  ThreadsText(text, list).put();
  text.flush();
}

}  // namespace

std::string VarnDescribeThreads() {
  const CancellationGuard closed;
  std::string text;
  describe(PlainText::append, &text);
  return text;
}

void VarnDescribeThreads(int descriptor) {
  const QuietCancellationGuard closed;
  const int error = errno;
  {
    DescriptorOutput output(descriptor);
    describe(DescriptorOutput::put, &output);
  }
  errno = error;
}

}  // namespace VarnSupport
