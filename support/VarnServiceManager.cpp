// One message is one datagram, sent from a socket of its own that does not block. A full queue is
// waited for by poll(), within a time limit.
//
// The protocol is that of sd_notify(3) in the manual of systemd, of which this needs no library.
// The environment is read for each message: a program may take the variable away so that its
// children do not speak for it.
#include "VarnSupport/VarnServiceManager.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <optional>
#include <string_view>

#include "runtime/Cancellation.h"
#include "runtime/Descriptor.h"
#include "runtime/System.h"
#include "runtime/Utf8.h"
#include "text/NumberText.h"

namespace VarnSupport {

namespace {

using std::chrono::microseconds;

constexpr std::chrono::milliseconds kPatience{1000};
constexpr std::size_t kMostStatusBytes = 1000;  // a manager reads no more than 4,096 in all

struct Address {
  sockaddr_un address{};
  socklen_t length = 0;
};

std::string_view environmentText(const char* name) {
  const char* const text = std::getenv(name);
  return text != nullptr ? text : "";
}

// Nothing for a socket of a kind that is not known here, such as one of a virtual machine's host.
std::optional<Address> addressOf(std::string_view name) {
  Address result;
  if (name.size() < 2 || name.size() >= sizeof result.address.sun_path ||
      (name.front() != '/' && name.front() != '@'))
    return std::nullopt;
  result.address.sun_family = AF_UNIX;
  name.copy(result.address.sun_path, name.size());
  if (name.front() == '@')
    result.address.sun_path[0] = '\0';
  // The name of an abstract socket is as long as the address says, without a closing NUL.
  const std::size_t closing = name.front() == '@' ? 0 : 1;
  result.length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size() + closing);
  return result;
}

// A socket to the manager for the time of one message: a program may close all descriptors that it
// does not know.
class Connection {
 public:
  explicit Connection(const Address& manager)
      : m_oSocket(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
    m_bConnected = m_oSocket.isOpen() &&
                   connect(m_oSocket.get(), reinterpret_cast<const sockaddr*>(&manager.address),
                           manager.length) == 0;
  }

  bool send(std::string_view message) const {
    const MonotonicTime deadline = monotonicNow() + kPatience;
    while (m_bConnected) {
      const ssize_t sent = retrying(
          [&] { return ::send(m_oSocket.get(), message.data(), message.size(), MSG_NOSIGNAL); });
      if (sent >= 0)
        return true;
      if ((errno != EAGAIN && errno != ENOBUFS) || !awaitRoom(deadline))
        return false;
    }
    return false;
  }

 private:
  // False when the time is over.
  bool awaitRoom(MonotonicTime deadline) const {
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(deadline - monotonicNow()).count();
    if (left <= 0)
      return false;
    // Room in a queue that is short of memory is not announced.
    constexpr long kLookMilliseconds = 20;
    pollfd descriptor{m_oSocket.get(), POLLOUT, 0};
    poll(&descriptor, 1, static_cast<int>(std::min<long>(left, kLookMilliseconds)));
    return true;
  }

  Descriptor m_oSocket;
  bool m_bConnected = false;
};

// A message is lines of "KEY=value".
bool tell(const std::string& message) {
  assert(message.find('=') < message.find('\n'));
  const CancellationGuard closed;
  const std::string_view name = environmentText("NOTIFY_SOCKET");
  if (name.empty())
    return false;
  const std::optional<Address> manager = addressOf(name);
  const NoCancellation telling;
  return manager && Connection(*manager).send(message);
}

}  // namespace

bool VarnServiceManager::isPresent() { return !environmentText("NOTIFY_SOCKET").empty(); }

bool VarnServiceManager::ready() { return tell("READY=1"); }

bool VarnServiceManager::reloading() {
  const auto now = std::chrono::duration_cast<microseconds>(monotonicNow().time_since_epoch());
  return tell("RELOADING=1\nMONOTONIC_USEC=" + std::to_string(now.count()));
}

bool VarnServiceManager::stopping() { return tell("STOPPING=1"); }

// A manager takes no broken text.
bool VarnServiceManager::status(const std::string& text) {
  std::string line = "STATUS=";
  for (std::string_view left = wholeCharacters(text, kMostStatusBytes); !left.empty();) {
    const Utf8Character next = firstCharacter(left);
    if (next.isControl() || next.isBroken())
      line += ' ';
    else
      line += left.substr(0, next.length);
    left.remove_prefix(next.length);
  }
  return tell(line);
}

bool VarnServiceManager::watchdog() { return tell("WATCHDOG=1"); }

microseconds VarnServiceManager::watchdogInterval() {
  const auto interval = numberIn<microseconds::rep>(environmentText("WATCHDOG_USEC"));
  const std::string_view process = environmentText("WATCHDOG_PID");
  if (!interval || *interval <= 0 || (!process.empty() && numberIn<pid_t>(process) != getpid()))
    return microseconds::zero();
  return microseconds(*interval);
}

bool VarnServiceManager::extendTimeout(microseconds time) {
  return time.count() >= 0 && tell("EXTEND_TIMEOUT_USEC=" + std::to_string(time.count()));
}

bool VarnServiceManager::mainProcess(pid_t process) {
  return tell("MAINPID=" + std::to_string(process));
}

}  // namespace VarnSupport
