// The registry of modules, and the library's own module, whose static object starts the families in
// the order of their needs: locks, threads, the log, timers. They are shut down in the reverse
// order. VSUPTInit... of a family stands in the source of that family, beside what it starts.
//
// Records are linked by themselves and the head needs no constructor, so that modules of any
// library may register before this one's static objects are made.
#include "VarnSupport/VarnModule.h"

#include "VarnSupport/VarnObjectFactory.h"
#include "runtime/Fork.h"

namespace VarnSupport {

constinit ModuleData* ModuleData::m_pHead = nullptr;
Module g_ModuleData(true);

ModuleData::ModuleData(bool autoAttach) : m_bAutoAttach(autoAttach), m_pNext(m_pHead) {
  if (m_pHead != nullptr)
    m_pHead->m_pPrevious = this;
  m_pHead = this;
}

ModuleData::~ModuleData() {
  if (m_pPrevious != nullptr)
    m_pPrevious->m_pNext = m_pNext;
  else
    m_pHead = m_pNext;
  if (m_pNext != nullptr)
    m_pNext->m_pPrevious = m_pPrevious;
}

// The walks read the next link before they call out: a record may leave the registry meanwhile. A
// walk that is refused lowers again what it has raised.
void ModuleData::entry() {
  ModuleData* record = m_pHead;
  while (record != nullptr && record->m_pNext != nullptr)
    record = record->m_pNext;
  while (record != nullptr) {
    ModuleData* const newer = record->m_pPrevious;
    try {
      record->raise();
    } catch (...) {
      for (record = record->m_pNext; record != nullptr;) {
        ModuleData* const older = record->m_pNext;
        record->lower();
        record = older;
      }
      throw;
    }
    record = newer;
  }
}

void ModuleData::exit() {
  ModuleData* record = m_pHead;
  while (record != nullptr) {
    ModuleData* const older = record->m_pNext;
    record->lower();
    record = older;
  }
}

void ModuleData::raise() {
  if (m_nAttachCount++ > 0)
    return;
  try {
    attach();
  } catch (...) {
    --m_nAttachCount;
    throw;
  }
}

void ModuleData::lower() {
  if (m_nAttachCount > 0 && --m_nAttachCount == 0)
    detach();
}

Module::Module(bool autoAttach) : ModuleData(autoAttach) {
  if (autoAttach)
    raise();
}

Module::~Module() {
  if (isAutoAttached())
    lower();
}

void Module::attach() {
  VSUPTInitVarnObjectBase();
  VSUPTInitVarnThread();
  VSUPTInitVarnLogging();
  VSUPTInitVarnTimer();
  VSUPTInitVarnLoggingTimer();
  installForkHandlers();
}

void Module::detach() {
  VarnObjectFactory::deleteGlobalInstance();
  VSUPTFinitVarnLoggingTimer();
  VSUPTFinitVarnTimer();
  VSUPTFinitVarnLogging();
  VSUPTFinitVarnThread();
  VSUPTFinitVarnObjectBase();
}

ModuleDataControl::ModuleDataControl() { ModuleData::entry(); }

ModuleDataControl::~ModuleDataControl() { ModuleData::exit(); }

void VSUPTInitVarnLogging() {}

void VSUPTFinitVarnLogging() {}

void VSUPTInitVarnLoggingTimer() {}

void VSUPTFinitVarnLoggingTimer() {}

}  // namespace VarnSupport
