// The base of a long-running service process.
//
// A concrete service supplies a start hook and a stop hook; start() runs the first, waits until a
// stop is requested by stop(), SIGINT or SIGTERM, and runs the second. Signals act through
// ControlHandler(), on a library thread, unless the starter had them blocked. One service per
// process answers to signals, the one that was built last. stop() and the queries are safe from any
// thread.
//
// A service manager is told when the start hook has succeeded, and before the stop hook runs; see
// VarnServiceManager.h. Without one nothing of that happens.
#ifndef VARNSUPPORT_VARNSERVICE_H
#define VARNSUPPORT_VARNSERVICE_H

#include <atomic>
#include <cstdint>
#include <string>

#include "VarnSupport/VarnEvent.h"
#include "VarnSupport/VarnExport.h"

namespace VarnSupport {

class VSUPT_EXPORT VarnService {
 public:
  // Each registers the service as getService(). The second text is the service's name; the other
  // texts and the flag are stored and not used.
  VarnService();
  VarnService(const std::string& text1, const std::string& text2, const std::string& text3,
              const std::string& text4, bool flag);
  VarnService(bool flag, const std::string& text4);
  VarnService(const VarnService&) = delete;
  VarnService& operator=(const VarnService&) = delete;
  virtual ~VarnService();

  // Runs the service; returns false when it did not start: the hook refused, or the process could
  // not be split. Returns true at once while the service is running.
  //
  // The signals are routed before a daemon's start hook runs, and after it in the foreground. From
  // then on SIGPIPE has a handler without effect, in a daemon also SIGCHLD, for the rest of the
  // process: children keep their status, for VarnCommand and waitpid(). What a hook
  // throws passes through, but for a VarnStartRefused (VarnPidFile.h) of the start hook, which
  // refuses; a daemon then is to end, as its starter waits for that.
  //
  // With `daemonize` the caller's process ends here, at once and without clean-up; its exit code is
  // 0 when the hook succeeded, 1 when it refused or threw, or the daemon died before, 253 (-3) when
  // it did not answer within 60 seconds. The call goes on in a new process that has a session of
  // its own, "/" as its folder and 0 as its file mask; descriptors stay as they are, and threads do
  // not come along.
  bool start(const std::string& arguments, bool daemonize);
  // Requests the end of the running service; always true. Before start() there is none, and the
  // request is forgotten; from the start hook on it counts.
  bool stop();

  // Do nothing and return true.
  bool install();
  bool remove();

  const std::string& serviceName() const { return m_sText2; }
  // 1 idle, 0 running, 2 stop requested.
  int state() const { return m_nState; }
  // The event that start() waits for.
  VarnEvent& getEventObject() { return m_oStopEvent; }
  // The service that was built last, or null.
  static VarnService* getService();

  // What getService() returns.
  static std::atomic<VarnService*> m_pThis;

 protected:
  // True: started. Runs on the thread that calls start(), in the new process if there is one.
  virtual bool onStart(const std::string& arguments) = 0;
  // Runs there when the wait has ended.
  virtual void onStop() = 0;

 private:
  bool startHere(const std::string& arguments);
  bool startDaemon(const std::string& arguments);
  bool runDaemon(const std::string& arguments, int reportTo);
  VSUPT_LOCAL bool runStartHook(const std::string& arguments);
  void beginRunning();
  void awaitStop();

  std::string m_sText1;
  std::string m_sText2;
  std::string m_sText3;
  std::string m_sText4;
  std::string m_sText5;
  std::wstring m_sWideText;
  VarnEvent m_oStopEvent;
  [[maybe_unused]] bool m_bDaemon = false;
  [[maybe_unused]] bool m_bFlag = false;
  std::atomic<std::int32_t> m_nState{1};
};

// What signals are routed to: the first SIGINT or SIGTERM of the process stops the service,
// everything else is ignored.
VSUPT_EXPORT void ControlHandler(int signal);

}  // namespace VarnSupport

#endif
