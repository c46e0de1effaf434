// Starts the process of a command.
#ifndef SUPPORT_COMMAND_COMMANDLAUNCH_H
#define SUPPORT_COMMAND_COMMANDLAUNCH_H

#include <sys/types.h>
#include <unistd.h>

#include <string>
#include <utility>

#include "command/CommandSettings.h"

namespace VarnSupport {

// Owns a file descriptor.
class Descriptor {
 public:
  Descriptor() = default;
  explicit Descriptor(int number) : m_nNumber(number) {}
  Descriptor(Descriptor&& source) noexcept : m_nNumber(std::exchange(source.m_nNumber, -1)) {}
  Descriptor& operator=(Descriptor&& source) noexcept {
    std::swap(m_nNumber, source.m_nNumber);
    return *this;
  }
  ~Descriptor() { close(); }

  bool isOpen() const { return m_nNumber >= 0; }
  int get() const { return m_nNumber; }
  void close() {
    if (isOpen())
      ::close(std::exchange(m_nNumber, -1));
  }

 private:
  int m_nNumber = -1;
};

struct LaunchedProgram {
  pid_t process = -1;
  Descriptor handle;  // a pidfd, where the system has them
  Descriptor output;  // ends of pipes that do not block; not open for what is not captured
  Descriptor errors;
  // When there is no process: why, and what it was about.
  int error = 0;
  std::string subject;
};

// The caller must wait for the process. Requires: NoCancellation.
LaunchedProgram launch(const CommandSettings& settings) noexcept;

// Takes over a descriptor, or none. The same file under a number that is no standard stream's:
// those are free in a process that has closed them.
Descriptor aboveStreams(int number);

}  // namespace VarnSupport

#endif
