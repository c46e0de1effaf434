// What a daemon tells the manager that runs it, systemd above all: that it is ready, reloads,
// stops, lives. The protocol is the manager's own, datagrams to the socket that NOTIFY_SOCKET
// names, a path or, with a leading '@', an abstract one; no other library is needed.
//
// VarnService tells by itself when it is ready and when it stops, so that each is a service of
// Type=notify; a daemon also that it has taken its launching process's place.
//
// Every operation may be called from any thread. Each returns false when there is no manager, or it
// could not be told: then nothing else happens. One whose socket is full is waited for, up to a
// second. Nothing is kept, so that the child of a fork may use them, too.
#ifndef VARNSUPPORT_VARNSERVICEMANAGER_H
#define VARNSUPPORT_VARNSERVICEMANAGER_H

#include <sys/types.h>

#include <chrono>
#include <string>

#include "VarnSupport/VarnExport.h"

namespace VarnSupport {

class VSUPT_EXPORT VarnServiceManager {
 public:
  VarnServiceManager() = delete;

  // Whether the environment names a manager's socket.
  static bool isPresent();

  // The start, or a reload, is done.
  static bool ready();
  // A reload has begun; ready() ends it. As Type=notify-reload wants it, with the time.
  static bool reloading();
  // The end has begun.
  static bool stopping();
  // One line for people. Control characters, and bytes that are not UTF-8, become blanks, so that
  // no text can tell anything else; 1,000 bytes are told.
  static bool status(const std::string& text);
  // The daemon is alive: to be told twice within each watchdogInterval().
  static bool watchdog();
  // How long the manager waits for watchdog(); 0 when it does not, or waits for another process.
  static std::chrono::microseconds watchdogInterval();
  // Start, reload or stop take that much longer from now on.
  static bool extendTimeout(std::chrono::microseconds time);
  // From here on `process` is the service; for daemons that do not become such by VarnService.
  static bool mainProcess(pid_t process);
};

}  // namespace VarnSupport

#endif
