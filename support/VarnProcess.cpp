// Programs, folders, the environment and the texts of errors.
//
// A program is started by vfork(): the child has this process's memory, stack and all, until it
// executes the program, and the calling thread waits for that. The cost does not grow with the
// memory, and no handler of pthread_atfork() runs. Every signal is blocked until the child has
// given up the handlers of this process: none of them may run in the child. All that allocates is
// made before; the child calls nothing but the system. posix_spawn() would do, but reports a
// program that it cannot start, and leaves the platform's own signals ignored in the others.
//
// Folders are made from the first parent that is missing; a folder that somebody else makes at the
// same moment is no failure. To remove a folder with all it has is left to /bin/rm, which knows
// what changes under it.
#include "VarnSupport/VarnProcess.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cwchar>
#include <vector>

#include "VarnSupport/VarnLocaleFactory.h"
#include "VarnSupport/VarnProgramOptions.h"
#include "VarnSupport/VarnStringUtilities.h"
#include "log/OwnRecords.h"
#include "runtime/Cancellation.h"
#include "runtime/SignalSet.h"
#include "runtime/System.h"
#include "text/ReferenceExpansion.h"

namespace VarnSupport {

namespace {

constexpr mode_t kFolderMode = 0755;
constexpr std::size_t kMessageSize = 1024;

// Makes the folders of a path from the top.
bool createChain(const std::string& path) {
  std::string work(path);
  std::size_t separator = 0;
  while (separator != std::string::npos) {
    separator = work.find_first_of("/\\", separator + 1);
    if (separator != std::string::npos)
      work[separator] = '\0';
    if (mkdir(work.c_str(), kFolderMode) != 0) {
      const int error = errno;
      if (error != EEXIST && access(work.c_str(), F_OK) != 0) {
        OwnRecords::write(OwnRecords::TRACE, "VarnCreateDirectory: couldn't create ", work.c_str(),
                          " (", error, ")");
        return false;
      }
    }
    if (separator != std::string::npos)
      work[separator] = '/';
  }
  return true;
}

// For a child that is about to become another program: none of this one's signal handlers may run
// in it. Signals that are ignored stay so.
void forgetHandlers() {
  for (int signal = 1; signal < NSIG; ++signal) {
    struct sigaction action {};
    if (sigaction(signal, nullptr, &action) != 0)
      continue;
    if ((action.sa_flags & SA_SIGINFO) == 0 &&
        (action.sa_handler == SIG_DFL || action.sa_handler == SIG_IGN))
      continue;
    action.sa_flags = 0;
    action.sa_handler = SIG_DFL;
    sigaction(signal, &action, nullptr);
  }
}

template <typename BecomeProgram>
[[noreturn, gnu::noinline]] void runChild(const sigset_t& mask, BecomeProgram becomeProgram) {
  forgetHandlers();
  pthread_sigmask(SIG_SETMASK, &mask, nullptr);
  becomeProgram();
  _exit(0);
}

// vfork() for a child that only calls `becomeProgram`, which must not return. The child has the
// caller's signal mask.
template <typename BecomeProgram>
pid_t forkProgram(BecomeProgram becomeProgram) {
  const sigset_t all = allSignals();
  sigset_t callers;
  pthread_sigmask(SIG_SETMASK, &all, &callers);
  // The frame that both processes have is left alone: the child works in one further down. Of all
  // that a child may call there, the analyser knows the exec functions alone.
  const pid_t child = vfork();
  if (child == 0)
    runChild(callers, becomeProgram);  // NOLINT(clang-analyzer-unix.Vfork)
  const int error = errno;
  pthread_sigmask(SIG_SETMASK, &callers, nullptr);
  errno = error;
  return child;
}

// False when the child's status cannot be had. The wait can be cancelled; the child goes on.
bool awaitEnd(pid_t child, int& status) {
  const BlockingCall cancellable;
  return retrying([&] { return waitpid(child, &status, 0); }) != -1;
}

bool isRedirected(int handle, int standardHandle) {
  return handle != -1 && handle != standardHandle;
}

bool isOpen(int handle) { return fcntl(handle, F_GETFD) != -1; }

// The record for a handle that cannot be duplicated; null when both can. Input comes first, so an
// output handle of 0 is the new input.
const char* redirectionFailure(int stdinHandle, int stdoutHandle) {
  const bool newInput = isRedirected(stdinHandle, STDIN_FILENO);
  if (newInput && !isOpen(stdinHandle))
    return "VarnExecuteProgram: could not duplicate requested standard input handle: ";
  if (isRedirected(stdoutHandle, STDOUT_FILENO) && !isOpen(stdoutHandle) &&
      !(newInput && stdoutHandle == STDIN_FILENO))
    return "VarnExecuteProgram: could not duplicate requested standard output handle: ";
  return nullptr;
}

bool duplicate(int handle, int standardHandle) {
  return retrying([=] { return dup2(handle, standardHandle); }) != -1;
}

// What the child does. A program that cannot be started has exited with 0; callers rely on it.
[[noreturn]] void becomeProgram(char* const* arguments, int stdinHandle, int stdoutHandle) {
  if ((!isRedirected(stdinHandle, STDIN_FILENO) || duplicate(stdinHandle, STDIN_FILENO)) &&
      (!isRedirected(stdoutHandle, STDOUT_FILENO) || duplicate(stdoutHandle, STDOUT_FILENO)) &&
      arguments[0] != nullptr)
    execv(arguments[0], arguments);
  _exit(0);
}

std::vector<std::string> argumentsOf(const std::string& commandLine) {
  std::string work(commandLine);
  if (!work.empty() && std::isalnum(static_cast<unsigned char>(work.back())) == 0)
    work.pop_back();
  std::vector<std::string> arguments;
  VarnParseCommandLine(work, arguments);
  return arguments;
}

}  // namespace

bool VarnCreateDirectory(const std::string& path) {
  const CancellationGuard closed;
  OwnRecords::write(OwnRecords::TRACE, "VarnCreateDirectory: ", path);
  if (mkdir(path.c_str(), kFolderMode) == 0)
    return true;
  if (errno == ENOENT || errno == ENOTDIR)
    return createChain(path);
  return errno == EEXIST || access(path.c_str(), F_OK) == 0;
}

bool VarnRemoveDirectoryImpl(const std::string& path, bool recursive, std::string& errorText,
                             int& errorCode) {
  const CancellationGuard closed;
  OwnRecords::write(OwnRecords::TRACE, "VarnRemoveDirectory: Remove directoryImpl ", path);
  if (rmdir(path.c_str()) == 0)
    return true;
  const int error = errno;
  const std::string failure = "VarnRemoveDirectory: Could not remove the directory " + path;
  if (error != ENOTEMPTY || !recursive) {
    errorText = failure;
    errorCode = error;
    return false;
  }
  std::string name = "rm";
  std::string option = "-rf";
  std::string operand = path[0] == '-' ? "./" + path : path;
  char* const arguments[] = {name.data(), option.data(), operand.data(), nullptr};
  const pid_t child = forkProgram([&] {
    execv("/bin/rm", arguments);
    _exit(errno);
  });
  int status = 0;
  if (child == -1 || !awaitEnd(child, status) || WIFSIGNALED(status))
    return true;  // callers rely on it
  errorCode = WEXITSTATUS(status);
  if (errorCode == 0)
    return true;
  errorText = failure;
  return false;
}

std::string VarnGetEnvironmentVariable(const std::string& name) {
  const CancellationGuard closed;
  return environmentValue(name);
}

std::string VarnExpandString(const std::string& text) {
  const CancellationGuard closed;
  return expandReferences(text, environmentValue);
}

void VarnGetOSErrorMessage(int errorNumber, std::wstring& message) {
  const CancellationGuard closed;
  message.clear();
  const char* const text = errorText(errorNumber);
  if (text != nullptr && *text != '\0')
    message = VarnStringUtilities::widen(text, VarnLocaleFactory::getDefaultLocale());
  message =
      VarnStringUtilities::trim(message, std::wstring(L" \t\r\n"), VarnStringUtilities::TRIM_BOTH);
  if (!message.empty())
    return;
  wchar_t buffer[kMessageSize];
  std::swprintf(buffer, kMessageSize, L"Unrecognized error code: %d (0x%08x)", errorNumber,
                static_cast<unsigned>(errorNumber));
  message = buffer;
}

void VarnGetOSErrorMessage(int errorNumber, std::string& message) {
  const CancellationGuard closed;
  const char* const text = errorText(errorNumber);
  message = VarnStringUtilities::trim(std::string(text != nullptr ? text : ""),
                                      std::string(" \t\r\n"), VarnStringUtilities::TRIM_BOTH);
  if (!message.empty())
    return;
  char buffer[kMessageSize];
  std::snprintf(buffer, kMessageSize, "Unrecognized error code: %d (0x%08x)", errorNumber,
                static_cast<unsigned>(errorNumber));
  message = buffer;
}

// All that may allocate, fail or wait happens before the fork or in the parent: the child may find
// any lock held by a thread that it does not have.
bool VarnExecuteProgramEx(const std::string& commandLine, int stdinHandle, int stdoutHandle,
                          bool wait, int* processId, int* exitStatus) {
  const CancellationGuard closed;
  OwnRecords::write(OwnRecords::EVENT, "VarnExecuteProgramEx: Execution Started.");
  std::vector<std::string> arguments = argumentsOf(commandLine);
  std::vector<char*> pointers;
  for (std::string& argument : arguments)
    pointers.push_back(argument.data());
  pointers.push_back(nullptr);
  const char* const failure = redirectionFailure(stdinHandle, stdoutHandle);

  const pid_t child = forkProgram([&] {
    if (failure != nullptr)
      _exit(0);
    becomeProgram(pointers.data(), stdinHandle, stdoutHandle);
  });
  OwnRecords::write(OwnRecords::TRACE, "VarnExecuteProgram: child process id: ", child);
  if (child < 0) {
    if (exitStatus != nullptr)
      *exitStatus = -1;
    OwnRecords::write(OwnRecords::FAILURE, "VarnExecuteProgram: could not fork child process.");
    return false;
  }
  for (std::size_t i = 0; i < arguments.size(); ++i)
    OwnRecords::write(OwnRecords::TRACE, "VarnExecuteProgram: argv[", i, "] = ", arguments[i]);
  if (failure != nullptr)
    OwnRecords::write(OwnRecords::FAILURE, failure);
  if (!wait) {
    if (processId != nullptr)
      *processId = child;
    return true;
  }

  OwnRecords::write(OwnRecords::TRACE, "VarnExecuteProgram: waiting for process ", child);
  int status = 0;
  if (!awaitEnd(child, status))
    status = 0;
  if (exitStatus == nullptr)
    return true;
  *exitStatus = WIFSIGNALED(status) ? 0 : WEXITSTATUS(status);
  if (!WIFSIGNALED(status))
    OwnRecords::write(OwnRecords::TRACE, "VarnExecuteProgram: child process ", child,
                      " completed with status ", *exitStatus);
  return true;
}

bool VarnExecuteProgram(const std::string& commandLine, bool wait, int* processId,
                        int* exitStatus) {
  const CancellationGuard closed;
  OwnRecords::write(OwnRecords::EVENT, "VarnExecuteProgram: Execution Started.");
  return VarnExecuteProgramEx(commandLine, -1, -1, wait, processId, exitStatus);
}

}  // namespace VarnSupport
