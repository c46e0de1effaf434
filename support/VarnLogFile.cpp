// A VarnLogFile is a VarnLogging whose state has a LogFile; there all the work is done.
//
// The name is made absolute at once: a daemon changes its folder after it has opened its log, and
// the file of a later reopen() is to be the same one.
#include "VarnSupport/VarnLogFile.h"

#include <atomic>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <new>
#include <system_error>

#include "log/LogFile.h"
#include "log/LogState.h"
#include "runtime/Cancellation.h"
#include "runtime/ProcessExit.h"

namespace VarnSupport {

namespace {

std::string absoluteName(const std::string& name) {
  std::error_code error;
  const std::filesystem::path path = std::filesystem::absolute(name, error);
  return name.empty() || error ? name : path.string();
}

// Once, before the first log that has to be finished; what is static and older writes at once.
// Functions that the program has registered later run earlier, so that their records are still
// gathered and then written.
void finishAtExit() {
  static constinit std::atomic<bool> isNoted{false};
  if (!isNoted.exchange(true))
    isNoted = ProcessExit::addHandler(&VarnLogging::State::finishFiles);
}

}  // namespace

VarnLogFile::VarnLogFile(const std::string& name, int level)
    : VarnLogFile(name, level, Background{0}) {}

VarnLogFile::VarnLogFile(const std::string& name, int level, Background background)
    : VarnLogging(name, 0, level) {
  const QuietCancellationGuard closed;
  if (background.queueBytes > 0)
    finishAtExit();
  State& state = State::of(*this);
  state.setFile(std::make_shared<LogFile>(state, absoluteName(name), background.queueBytes));
  setTarget(kToFile);
  if (!isFileOpen())
    std::fprintf(stderr, "VarnLogFile: Cannot open log file %s\n", lastError().c_str());
}

VarnLogFile::~VarnLogFile() = default;

std::string VarnLogFile::getName() const { return State::of(*this).file->name(); }

// The failure goes to the log itself, where the old file is still open and somebody may be reading.
bool VarnLogFile::reopen() {
  const CancellationGuard closed;
  if ((getTarget() & kToFile) == 0)
    return true;
  State& state = State::of(*this);
  const bool isNew = state.reopenFile();
  if (isNew || !isFileOpen())
    return isNew;
  try {
    const std::string text = "VarnLogFile::reopen: cannot open " + lastError();
    if (const std::string line = state.file->inOwnForm(text); !line.empty())
      writeLine(line);
    else if (getLogLevel() >= LogFile::kFailures)
      state.writeAlone(text, LogFile::kFailures);
  } catch (const std::bad_alloc&) {
    // It is left out, as a record is.
  }
  return false;
}

void VarnLogFile::flush() {
  const CancellationGuard closed;
  State::of(*this).file->flush();
}

void VarnLogFile::writeLine(std::string_view line) {
  State::of(*this).writeAlone(line.substr(0, line.find('\0')), 0);
}

std::uint64_t VarnLogFile::lostRecords() const { return State::of(*this).file->lostCount(); }

void VarnLogFile::setForm(std::string (*form)(const VarnLogEntry& entry)) {
  State::of(*this).file->setForm(form);
}

std::string VarnLogFile::lastError() const { return State::of(*this).file->lastError(); }

}  // namespace VarnSupport
