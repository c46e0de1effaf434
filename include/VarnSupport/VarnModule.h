// Load and unload: the registry of modules and the library's start-up and shut-down functions.
//
// The library attaches itself when it is loaded and detaches when the process ends; a host program
// needs nothing of this, unless it wants to hold the library's state up for a scope
// (ModuleDataControl) or has modules of its own to attach with it. The registry takes no lock: it
// is meant for start-up and shut-down.
#ifndef VARNSUPPORT_VARNMODULE_H
#define VARNSUPPORT_VARNMODULE_H

#include <cstdint>

#include "VarnSupport/VarnExport.h"

namespace VarnSupport {

// One module of the registry. A record enters the registry when it is built and leaves it when it
// is destroyed; neither attaches or detaches it.
class VSUPT_EXPORT ModuleData {
 public:
  explicit ModuleData(bool autoAttach);
  ModuleData(const ModuleData&) = delete;
  ModuleData& operator=(const ModuleData&) = delete;
  virtual ~ModuleData();

  virtual void attach() = 0;
  virtual void detach() = 0;

  // Raises the count of every record, oldest first; records that were at 0 are attached. When an
  // attach() throws, all counts are as they were, and records that got to 0 are detached again.
  static void entry();
  // Lowers every count above 0, newest first; records that reach 0 are detached.
  static void exit();

  static ModuleData* m_pHead;

 protected:
  bool isAutoAttached() const { return m_bAutoAttach; }
  // Counts one more user, attaching on the first. While attach() runs the record already counts, so
  // a nested walk does not attach it again; if attach() throws, the count is as it was.
  void raise();
  // Counts one user less, detaching on the last; does nothing at 0.
  void lower();

 private:
  bool m_bAutoAttach;
  ModuleData* m_pPrevious = nullptr;
  ModuleData* m_pNext = nullptr;
  std::int32_t m_nAttachCount = 0;
};

// The library's own module: attach() and detach() call the functions below in their order.
class VSUPT_EXPORT Module : public ModuleData {
 public:
  // With `autoAttach` the module is attached at once, and detached by its destructor.
  explicit Module(bool autoAttach);
  ~Module() override;

  void attach() override;
  void detach() override;
};

extern VSUPT_EXPORT Module g_ModuleData;

// Holds the state of all registered modules up for its own life; may be nested. One that an
// attach() refuses, by an exception, holds nothing.
class VSUPT_EXPORT ModuleDataControl {
 public:
  ModuleDataControl();
  ModuleDataControl(const ModuleDataControl&) = delete;
  ModuleDataControl& operator=(const ModuleDataControl&) = delete;
  ~ModuleDataControl();
};

// Publishes the global critical section, or clears the pointer to it.
VSUPT_EXPORT void VSUPTInitVarnObjectBase();
VSUPT_EXPORT void VSUPTFinitVarnObjectBase();
// Routes SIGUSR2 to the reaping of threads that deleted themselves; the second does nothing.
VSUPT_EXPORT void VSUPTInitVarnThread();
VSUPT_EXPORT void VSUPTFinitVarnThread();
// Hooks that do nothing; callers rely on their presence.
VSUPT_EXPORT void VSUPTInitVarnLogging();
VSUPT_EXPORT void VSUPTFinitVarnLogging();
// Routes SIGALRM and SIGUSR1 to the timer manager, or deletes the manager; afterwards
// VarnTimerManager::getInstance() throws.
VSUPT_EXPORT void VSUPTInitVarnTimer();
VSUPT_EXPORT void VSUPTFinitVarnTimer();
// Hooks that do nothing; callers rely on their presence.
VSUPT_EXPORT void VSUPTInitVarnLoggingTimer();
VSUPT_EXPORT void VSUPTFinitVarnLoggingTimer();

}  // namespace VarnSupport

#endif
