// The other end of what a service tells its manager.
#ifndef TESTS_SERVICEMANAGERTOOLS_H
#define TESTS_SERVICEMANAGERTOOLS_H

#include <sys/socket.h>
#include <sys/un.h>

#include "TestTools.h"

// The manager's end: a socket with a name, whose messages it reads with their senders.
class Manager {
 public:
  explicit Manager(const std::string& name)
      : m_nSocket(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    name.copy(address.sun_path, sizeof address.sun_path - 1);
    if (name.front() == '@')
      address.sun_path[0] = '\0';
    const auto length = offsetof(sockaddr_un, sun_path) + name.size() + (name.front() != '@');
    EXPECT_EQ(
        0, bind(m_nSocket, reinterpret_cast<sockaddr*>(&address), static_cast<socklen_t>(length)));
    const int yes = 1;
    setsockopt(m_nSocket, SOL_SOCKET, SO_PASSCRED, &yes, sizeof yes);
    setenv("NOTIFY_SOCKET", name.c_str(), 1);
  }
  Manager(const Manager&) = delete;
  Manager& operator=(const Manager&) = delete;
  ~Manager() {
    unsetenv("NOTIFY_SOCKET");
    close(m_nSocket);
  }

  // The next message; "none" when there is none within the time.
  std::string next(std::chrono::seconds limit = kGenerous) {
    const timeval time{limit.count(), limit.count() == 0 ? 1000 : 0};
    setsockopt(m_nSocket, SOL_SOCKET, SO_RCVTIMEO, &time, sizeof time);
    char text[4096];
    char control[CMSG_SPACE(sizeof(ucred))];
    iovec part{text, sizeof text};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    const ssize_t length = recvmsg(m_nSocket, &message, 0);
    if (length < 0)
      return "none";
    if (const cmsghdr* const header = CMSG_FIRSTHDR(&message); header != nullptr) {
      ucred credentials{};
      std::memcpy(&credentials, CMSG_DATA(header), sizeof credentials);
      sender = credentials.pid;
    }
    return {text, static_cast<std::size_t>(length)};
  }

  pid_t sender = 0;

 private:
  int m_nSocket;
};

#endif
