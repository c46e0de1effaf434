// What makes a daemon one of its kind: a PID file that only one process can have, a start that is
// refused with a reason, and standard streams that hold up nobody.
//
//   bool onStart(const std::string&) override {
//     m_oPidFile.emplace("/run/greeter.pid");      // std::optional<VarnPidFile>
//     ...
//     VarnDetachStreams();
//     return true;
//   }
#ifndef VARNSUPPORT_VARNPIDFILE_H
#define VARNSUPPORT_VARNPIDFILE_H

#include <sys/types.h>

#include <memory>
#include <string>

#include "VarnSupport/VarnException.h"
#include "VarnSupport/VarnExport.h"

namespace VarnSupport {

class PidFileState;

// Why a service does not start. A start hook may throw it: VarnService::start() then writes the
// service's name, or else the program's, and the text to standard error before a launching process
// ends, with 1, and returns false as for a hook that refuses.
class VSUPT_EXPORT VarnStartRefused : public VarnException {
 public:
  explicit VarnStartRefused(const std::string& reason, int code = 0)
      : VarnException(reason, code) {}
  VarnStartRefused(const VarnStartRefused&) = default;
  VarnStartRefused& operator=(const VarnStartRefused&) = default;
  ~VarnStartRefused() override;
};

// A file with the identifier of the process that has it, and a line feed. Who reads it sends
// signals: those that must not end the process are to be had by a VarnSignalEvent before. It is
// locked for as long as the object lives, or its process, however that ends; what a dead process
// has left is taken over. Safe from any thread.
//
// It may be made in the start hook or before start(): the lock and the file go over to the daemon,
// whose identifier stands in the file before the hook runs. Other children of a fork do not have
// it, and programs that are started do not either; who becomes a daemon in another way makes it
// afterwards.
class VSUPT_EXPORT VarnPidFile {
 public:
  // Makes the file, with 0644 less the file mask, or takes over one that no process has. The path
  // is made absolute; its last part must be no symbolic link, and a file that is there a plain one
  // that has one name and contains nothing or a number, so that no other file is overwritten by
  // mistake.
  //
  // A file that is held is waited for a tenth of a second, as a killed process has it until it has
  // ended.
  //
  // Throws VarnStartRefused: "PATH is held by process N" with the code N, or "PATH is held by
  // another process" with -1 if that does not tell its identifier; with the code 0 a reason of the
  // system or one of the above.
  explicit VarnPidFile(const std::string& path);
  // Neither copied nor moved: the file is one process's, and the object's life is that of the lock.
  VarnPidFile(const VarnPidFile&) = delete;
  VarnPidFile& operator=(const VarnPidFile&) = delete;
  // Removes the file if it is still the one that was made, and frees the lock. Does nothing in the
  // child of a fork that does not have it.
  ~VarnPidFile();

  const std::string& path() const;

 private:
  std::unique_ptr<PidFileState> m_pState;
};

// Puts /dev/null in place of standard input, output and error, also of files that the program has
// got there as its starter had closed them, and sets the file mask: a daemon has those of its
// starter, and 0. What `stdout` still has in its buffer goes out before.
// Called last in a start hook: what goes wrong before is still told, and whoever reads what the
// launching process prints does not wait for the daemon's end. Files that the hook makes before
// have the mask that is in force then. False when /dev/null cannot be opened, and nothing is
// changed then; and when a stream cannot be replaced, while the others are, and the mask is set.
VSUPT_EXPORT bool VarnDetachStreams(mode_t mask = 022);

}  // namespace VarnSupport

#endif
