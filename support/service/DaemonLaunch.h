// How a daemon comes out of the process that launches it.
//
// The daemon reports on a pipe whether its start hook has succeeded, and the launching process
// waits for that, or for the end of the pipe, before it exits. The descriptors of the pipe are
// above the standard streams, and are looked at again before they are used: a start hook may close
// what it does not know.
#ifndef SUPPORT_SERVICE_DAEMONLAUNCH_H
#define SUPPORT_SERVICE_DAEMONLAUNCH_H

#include <sys/stat.h>

namespace VarnSupport {

// Returns in the daemon, with its end of the pipe, or with -1 where there is none: the launching
// process ends in here. When there is a service manager the daemon has been made known to it.
int launchDaemon();

// The daemon's end of the pipe. What is not the pipe any more is left alone.
class DaemonReport {
 public:
  explicit DaemonReport(int descriptor);

  void send(bool hasStarted);

 private:
  int m_nDescriptor;
  struct stat m_oStatus {};
};

}  // namespace VarnSupport

#endif
