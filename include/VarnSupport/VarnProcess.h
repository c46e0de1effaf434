// Folders, the environment, error texts and other programs.
//
// Free functions without state, safe from any thread as far as the environment is (it is read
// without a lock). Failures come back as results and out-parameters; nothing is thrown but what
// strings throw. Steps are traced to the log: level 9, failures and starts at 1 and 5.
#ifndef VARNSUPPORT_VARNPROCESS_H
#define VARNSUPPORT_VARNPROCESS_H

#include <string>

#include "VarnSupport/VarnExport.h"

namespace VarnSupport {

// Makes a folder and, when one is missing, all its parents, with mode 0755. True when something of
// that name exists afterwards, also if it is no folder. Besides '/', a '\' separates names, but
// only where parents are missing or no folders: elsewhere it is part of a name; callers rely on it.
VSUPT_EXPORT bool VarnCreateDirectory(const std::string& path);

// Removes a folder; with `recursive` also one that is not empty, by running /bin/rm. On failure
// `errorText` says so and `errorCode` is the error number, or the exit code of /bin/rm, which is
// stored whenever that ends by itself. A /bin/rm that cannot be started, or that a signal ends,
// counts as success; callers rely on it.
VSUPT_EXPORT bool VarnRemoveDirectoryImpl(const std::string& path, bool recursive,
                                          std::string& errorText, int& errorCode);

// Empty when the variable is not set.
VSUPT_EXPORT std::string VarnGetEnvironmentVariable(const std::string& name);
// `text` with each <name> replaced by the environment variable of that name (empty when it is not
// set), and that expanded in turn: a value that refers to itself never ends. A '<' without a later
// '>' ends the expansion.
VSUPT_EXPORT std::string VarnExpandString(const std::string& text);

// The system's text for an error number, without white space at its ends.
VSUPT_EXPORT void VarnGetOSErrorMessage(int errorNumber, std::wstring& message);
VSUPT_EXPORT void VarnGetOSErrorMessage(int errorNumber, std::string& message);

// Starts a program with the caller's signal mask, ignored signals and environment. The command line
// is split as by VarnParseCommandLine(), after its last character, unless a letter or digit, has
// been dropped; its first word is the program's path, which is not searched for. A handle other
// than -1 (and 0, or 1) becomes the program's standard input or output, input first.
// With `wait` the call returns when the program has ended, with its exit code in `exitStatus`: 0 if
// a signal ended it. Without, the child's id is in `processId`, and the caller must wait for it.
// Either may be null, and each is left alone in the other case.
// No handler of pthread_atfork() runs. False only when the process cannot fork; `exitStatus` is -1
// then. A program that cannot be started, or given its handles, counts as one that exits with 0;
// callers rely on it.
VSUPT_EXPORT bool VarnExecuteProgramEx(const std::string& commandLine, int stdinHandle,
                                       int stdoutHandle, bool wait, int* processId,
                                       int* exitStatus);
// The same without handles.
VSUPT_EXPORT bool VarnExecuteProgram(const std::string& commandLine, bool wait, int* processId,
                                     int* exitStatus);

}  // namespace VarnSupport

#endif
