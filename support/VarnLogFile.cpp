// A VarnLogFile is a VarnLogging whose state has a LogFile; there all the work is done.
#include "VarnSupport/VarnLogFile.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <mutex>
#include <system_error>

#include "log/LogFile.h"
#include "log/LogState.h"
#include "runtime/Cancellation.h"

namespace VarnSupport {

namespace {

std::string absoluteName(const std::string& name) {
  std::error_code error;
  const std::filesystem::path path = std::filesystem::absolute(name, error);
  return name.empty() || error ? name : path.string();
}

// Once, before the first log that has to be finished; what is static and older writes at once.
bool finishAtExit() {
  static const bool isNoted = std::atexit(&VarnLogging::State::finishFiles) == 0;
  return isNoted;
}

}  // namespace

VarnLogFile::VarnLogFile(const std::string& name, int level)
    : VarnLogFile(name, level, Background{0}) {}

VarnLogFile::VarnLogFile(const std::string& name, int level, Background background)
    : VarnLogging(name, 0, level) {
  const QuietCancellationGuard closed;
  if (background.queueBytes > 0)
    static_cast<void>(finishAtExit());
  auto file = std::make_shared<LogFile>(*m_pState, absoluteName(name), background.queueBytes);
  {
    const std::lock_guard guard(State::m_oTables);
    m_pState->file = file;
  }
  setTarget(kToFile);
  if (!m_bFileOpen)
    std::fprintf(stderr, "VarnLogFile: Cannot open log file %s\n", file->lastError().c_str());
}

VarnLogFile::~VarnLogFile() = default;

std::string VarnLogFile::getName() const { return m_pState->file->name(); }

bool VarnLogFile::reopen() {
  const CancellationGuard closed;
  if ((m_nTarget & kToFile) == 0)
    return true;
  bool isNew = false;
  {
    const State::FileChange change(*m_pState);
    isNew = m_pState->file->open();
    m_bFileOpen = m_pState->file->isOpen();
  }
  if (!isNew && m_bFileOpen && getLogLevel() >= State::kFailures)
    m_pState->writeAlone("VarnLogFile::reopen: cannot open " + lastError(), State::kFailures);
  return isNew;
}

void VarnLogFile::flush() {
  const CancellationGuard closed;
  m_pState->file->flush();
}

void VarnLogFile::writeLine(std::string_view line) { m_pState->writeAlone(line, 0); }

std::uint64_t VarnLogFile::lostRecords() const { return m_pState->file->lostCount(); }

std::string VarnLogFile::lastError() const { return m_pState->file->lastError(); }

}  // namespace VarnSupport
